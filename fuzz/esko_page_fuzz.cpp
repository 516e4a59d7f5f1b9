// ESKO archive page parsing: the input is a long 'A' answer (261 bytes), laid into a
// buffer of the link's size; the page is checked against the date it carries and parsed.
#include <cstring>

#include "drivers/base/exceptions.h"
#include "drivers/base/base_driver.h"
#include "drivers/esko/esko_link.h"
#include "drivers/esko/esko_values.h"
#include "fuzz_support.h"

namespace {

int FromBcd(unsigned char b) { return (b >> 4) * 10 + (b & 0x0F); }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  mcdfuzz::UsePrivateRoot();
  unsigned char reply[272] = {0};
  const int length = static_cast<int>(size - 1 < 260 ? size - 1 : 260);
  std::memcpy(reply, data + 1, static_cast<size_t>(length));
  const int eskoKind = data[0] & 1;
  const int type = eskoKind ? ARCH_DAILY : ARCH_HOURLY;

  // Ask for the date the page claims, so that the parser runs past the date checks.
  mcd::cal::Label want;
  want.year = 2000 + FromBcd(reply[4]);
  want.month = FromBcd(reply[5]);
  want.day = FromBcd(reply[6]);
  want.hour = eskoKind ? 0 : FromBcd(reply[7]);
  const time_t when = 1700000000;

  ParamValueList out;
  try {
    mcd::esko::ParseArchPage(CMTR06Buffer(reply, length), {eskoKind, type, want, when}, "Cmcd_MTR06::", out);
  } catch (const std::exception&) {
  }
  try {
    mcd::esko::parse_inWork(CMTR06Buffer(reply + 4, length > 4 ? length - 4 : 0), type, when, "Cmcd_MTR06::", out);
  } catch (const std::exception&) {
  }
  return 0;
}
