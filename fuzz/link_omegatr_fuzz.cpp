// The fuzzer plays an OMEGA-TR meter; the first input byte picks the function code.
#include "drivers/base/exceptions.h"
#include "drivers/omegatr/omegatr_link.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  mcdfuzz::UsePrivateRoot();
  static const unsigned char kFunctions[] = {4, 20, 100, 101, 102, 103, 104, 7};
  unsigned char request[] = {1, kFunctions[data[0] % 8], 0x00, 0x00, 0x00, 0x02};
  // Once the input is used up the meter sends colons: a broken frame ends each read at
  // once instead of waiting out the time limit.
  mcdfuzz::FuzzConnector connector(data + 1, size - 1, ':');
  COMEGATRLowLevelConnector link(&connector, false);
  link.SetNetAddr(1);
  try {
    COMEGATRLowLevelConnector::ReplyView reply = link.SendString(request, sizeof request, "fuzz", data[0] & 0x80);
    unsigned sum = 0;
    for (int i = 0; i < reply.length; ++i) sum += reply.data[i];
    (void)sum;
  } catch (const std::exception&) {
  }
  return 0;
}
