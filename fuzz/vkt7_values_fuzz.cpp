// VKT-7 answer parsing: the input is split into an active-element answer and a value
// answer, each laid into a buffer of the link's size as the link would hand it over.
#include <cstring>

#include "drivers/base/exceptions.h"
#include "drivers/vkt7/vkt7_driver.h"
#include "fuzz_support.h"

namespace {

// An answer as the link keeps it: in a zeroed buffer of its full size.
struct Answer {
  unsigned char bytes[272] = {0};
  int count = 0;
  Answer(const uint8_t* data, size_t size) {
    count = static_cast<int>(size < 267 ? size : 267);
    std::memcpy(bytes, data, static_cast<size_t>(count));
  }
  CVKT7Buffer View() const { return CVKT7Buffer(bytes, count); }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  mcdfuzz::UsePrivateRoot();
  static const int kKinds[] = {0, 1, 2, 4, 5};
  const int kind = kKinds[data[0] % 5];
  const size_t split = 1 + (data[1] % (size - 1));
  Answer list(data + 1, split - 1), values(data + split, size - split);

  Cmcd_VKT7 driver;
  driver.SetBaseType(data[0] & 0x80 ? 1 : 0);
  try {
    driver.ParseActiveList(list.View());
  } catch (const std::exception&) {
  }
  ParamValueList out;
  try {
    driver.parce45inWork(values.View(), out, kind, 1457163000);
  } catch (const std::exception&) {
  }
  Timestamps stamps;
  try { driver.ParseProperties(values.View()); } catch (const std::exception&) {}
  try { driver.ParseSystemData(values.View()); } catch (const std::exception&) {}
  try { driver.ParseTimestamps(values.View(), stamps); } catch (const std::exception&) {}
  try { driver.ParseCurrentTimestamp(values.View()); } catch (const std::exception&) {}
  return 0;
}
