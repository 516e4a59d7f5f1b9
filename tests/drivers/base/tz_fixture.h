// The tests of this folder run in a fixed time zone without daylight saving (UTC+3),
// so local midnights and raw local times have known values. A test that needs another
// zone holds a ZoneScope, which puts the fixed zone back when it ends.
#pragma once

#include <cstdlib>
#include <ctime>
#include <string>

namespace mcdtest {
namespace {

constexpr const char* kFixedZoneName = "MSK-3";

struct FixedZone {
  FixedZone() {
    setenv("TZ", kFixedZoneName, 1);
    tzset();
  }
};
const FixedZone kFixedZone;

class ZoneScope {
 public:
  explicit ZoneScope(const std::string& zone) {
    setenv("TZ", zone.c_str(), 1);
    tzset();
  }
  ~ZoneScope() {
    setenv("TZ", kFixedZoneName, 1);
    tzset();
  }
  ZoneScope(const ZoneScope&) = delete;
  ZoneScope& operator=(const ZoneScope&) = delete;
};

}  // namespace
}  // namespace mcdtest
