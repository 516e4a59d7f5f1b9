// The tests of this folder run in a fixed time zone without daylight saving (UTC+3),
// so local midnights and raw local times have known values.
#pragma once

#include <cstdlib>
#include <ctime>

namespace mcdtest {
namespace {

struct FixedZone {
  FixedZone() {
    setenv("TZ", "MSK-3", 1);
    tzset();
  }
};
const FixedZone kFixedZone;

}  // namespace
}  // namespace mcdtest
