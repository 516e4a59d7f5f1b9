// Local calendar hours and days over daylight-saving changes: the walks meet every label
// the C library shows (sampled every five minutes) exactly once, at its first instant.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <tuple>

#include "drivers/base/calendar.h"
#include "tz_fixture.h"

namespace {

namespace cal = mcd::cal;
typedef std::tuple<int, int, int, int> Key;
Key KeyOf(time_t t, bool day) {
  const cal::Label l = cal::LocalLabel(t);
  return Key(l.year, l.month, l.day, day ? 0 : l.hour);
}

struct Window {
  const char* zone;
  time_t begin, end;  // UTC, each holding one change of the zone's offset
};
// Berlin's spring change (an hour left out) and autumn change (one repeated), and a
// change in a half-hour zone.
const Window kWindows[] = {{"Europe/Berlin", 1774569600, 1774915200}, {"Europe/Berlin", 1792713600, 1793059200},
                           {"Asia/Kolkata", -891734400, -891388800}};

class CalendarWalk : public ::testing::TestWithParam<Window> {};

TEST_P(CalendarWalk, EveryLocalHourAndDayOnceAtItsFirstInstant) {
  const Window w = GetParam();
  mcdtest::ZoneScope zone(w.zone);
  for (bool day : {false, true}) {
    std::set<Key> shown, walked;
    for (time_t t = w.begin; t < w.end; t += 300) shown.insert(KeyOf(t, day));
    shown.erase(KeyOf(w.begin, day));  // may have begun before the window
    time_t prev = 0;
    for (time_t t = day ? cal::NextDay(w.begin) : cal::NextHour(w.begin); t < w.end;
         prev = t, t = day ? cal::NextDay(t) : cal::NextHour(t)) {
      EXPECT_TRUE(walked.insert(KeyOf(t, day)).second) << "asked twice at " << t;
      EXPECT_NE(KeyOf(t - 1, day), KeyOf(t, day)) << "not the first instant: " << t;
      EXPECT_EQ(day ? cal::DayStart(t + 43200) : cal::HourStart(t + 1799), t);
      if (prev) {
        EXPECT_EQ(day ? cal::PrevDay(t) : cal::PrevHour(t), prev);
      }
      if (!day) {
        EXPECT_EQ(cal::FromLabel(cal::LocalLabel(t)), t);
      }
    }
    EXPECT_EQ(walked, shown) << w.zone << " " << w.begin << (day ? " days" : " hours");
  }
}

INSTANTIATE_TEST_SUITE_P(Zones, CalendarWalk, ::testing::ValuesIn(kWindows));

TEST(Calendar, LeftOutHourHasNoRecordTime) {
  mcdtest::ZoneScope zone("Europe/Berlin");
  EXPECT_EQ(cal::FromLabel({2026, 3, 29, 2}), -1);
  EXPECT_EQ(cal::FromLabel({2026, 3, 29, 3}), 1774746000);
}

}  // namespace
