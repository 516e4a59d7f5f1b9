// The fuzzer plays a VKT-9 meter; the first input byte picks the request's function.
#include "drivers/base/exceptions.h"
#include "drivers/vkt9/vkt9_link.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  mcdfuzz::UsePrivateRoot();
  static const unsigned char kFunctions[] = {0x03, 0x04, 0x06, 0x11, 0x41, 0x42};
  unsigned char body[] = {kFunctions[data[0] % sizeof kFunctions], 0x00, 0x00, 0x00, 0x0A};
  mcdfuzz::FuzzConnector connector(data + 1, size - 1);
  CVKT9LowLevelConnector link(&connector, false);
  link.SetNetAddr(1);
  try {
    CVKT9LowLevelConnector::ReplyView reply = link.SendString(body, sizeof body, "fuzz", data[0] & 0x80);
    unsigned sum = 0;
    for (int i = 0; i < reply.length; ++i) sum += reply.data[i];
    (void)sum;
  } catch (const std::exception&) {
  }
  return 0;
}
