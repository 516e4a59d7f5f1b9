// The fuzzer plays a VKT-7 meter answering one read request.
#include "drivers/base/exceptions.h"
#include "drivers/vkt7/vkt7_link.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mcdfuzz::UsePrivateRoot();
  mcdfuzz::FuzzConnector connector(data, size);
  CVKT7LowLevelConnector link(&connector, false);
  unsigned char request[] = {0xFF, 0xFF, 0x00, 0x03, 0x3F, 0xFE, 0x00, 0x00, 0x00, 0x00};
  bool tolerate = size > 0 && (data[0] & 1);
  try {
    CVKT7Buffer answer = link.SendString(request, sizeof request, "fuzz", tolerate);
    // walk the whole answer the way a parser does
    for (int i = 0; !answer.empty() && i < 300; ++i) {
      (void)answer[0];
      answer += 1;
    }
  } catch (const std::exception&) {
  }
  return 0;
}
