// The tests of this folder run in a fixed zone without daylight saving (UTC+3); a test
// that needs another zone holds a ZoneScope, which puts the fixed zone back.
#pragma once

#include <cstdlib>
#include <ctime>

namespace mcdtest {
namespace {

struct ZoneScope {
  explicit ZoneScope(const char* zone) { Set(zone); }
  ~ZoneScope() { Set("MSK-3"); }
  static void Set(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
};
const bool kFixedZone = (ZoneScope::Set("MSK-3"), true);

}  // namespace
}  // namespace mcdtest
