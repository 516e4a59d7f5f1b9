// The fuzzer plays an MTR-06 meter; the first input byte picks the command.
#include "drivers/base/exceptions.h"
#include "drivers/esko/esko_link.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  mcdfuzz::UsePrivateRoot();
  static const unsigned char kCommands[][2] = {{'R', 0}, {'G', 0}, {'L', 0}, {'A', 1}, {'A', 3}, {'A', 4}, {'Q', 0}, {'T', 'G'}};
  const unsigned char* command = kCommands[data[0] % 8];
  unsigned char image[13] = {0, 0, command[0], command[1], 0, 0, 0, 0, 0, 0, 0, 0, 0};
  mcdfuzz::FuzzConnector connector(data + 1, size - 1);
  CMTR06LowLevelConnector link(&connector, false);
  link.SetNetAddress(1);
  try {
    ReplyView reply = link.SendString(image, sizeof image, "fuzz", data[0] & 0x80);
    unsigned sum = 0;
    for (int i = 0; i < reply.length; ++i) sum += reply.data[i];
    (void)sum;
  } catch (const std::exception&) {
  }
  return 0;
}
