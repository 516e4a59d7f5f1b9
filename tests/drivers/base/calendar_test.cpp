// Local calendar hours and days over daylight-saving changes and half-hour zones. The
// expected labels come from the C library's own view of each instant, sampled every
// five minutes across the window; the walks must meet each of them exactly once, at its
// first instant.
#include <gtest/gtest.h>

#include <ctime>
#include <set>
#include <string>
#include <tuple>

#include "drivers/base/calendar.h"
#include "tz_fixture.h"

namespace {

namespace cal = mcd::cal;

typedef std::tuple<int, int, int, int> Key;  // year, month, day, hour
Key HourKey(time_t t) {
  const cal::Label l = cal::LocalLabel(t);
  return Key(l.year, l.month, l.day, l.hour);
}
Key DayKey(time_t t) {
  const cal::Label l = cal::LocalLabel(t);
  return Key(l.year, l.month, l.day, 0);
}

struct Window {
  const char* zone;
  const char* what;
  time_t begin;  // UTC instants; the walk covers [begin, end)
  time_t end;
};

// Every window holds a change of the zone's offset (but UTC's), a day or two from its edges.
const Window kWindows[] = {
    {"UTC", "no change", 1774569600, 1774915200},                                // 2026-03-27 .. 03-31
    {"Europe/Moscow", "2014-10-26 01:00 repeated (+4 to +3)", 1414108800, 1414454400},
    {"Europe/Moscow", "2011-03-27 02:00 left out (+3 to +4)", 1301011200, 1301356800},
    {"Europe/Berlin", "2026-03-29 02:00 left out", 1774569600, 1774915200},
    {"Europe/Berlin", "2026-10-25 02:00 repeated", 1792713600, 1793059200},
    {"America/New_York", "2026-03-08 02:00 left out", 1772755200, 1773100800},
    {"America/New_York", "2026-11-01 01:00 repeated", 1793318400, 1793664000},
    {"Australia/Sydney", "2026-04-05 02:00 repeated", 1775174400, 1775520000},
    {"Australia/Sydney", "2026-10-04 02:00 left out", 1790899200, 1791244800},
    {"Asia/Kolkata", "half-hour offset, 1941-10-01 midnight left out", -891734400, -891388800},
    {"Asia/Kolkata", "half-hour offset, 1945-10-14 23:00 repeated", -764380800, -764035200},
};

class CalendarWalk : public ::testing::TestWithParam<Window> {};

TEST_P(CalendarWalk, EveryLocalHourAndDayOnceAtItsFirstInstant) {
  const Window w = GetParam();
  mcdtest::ZoneScope zone(w.zone);
  SCOPED_TRACE(std::string(w.zone) + ": " + w.what);

  // What the zone shows, from samples every five minutes (every change falls on one).
  std::set<Key> hours, days;
  for (time_t t = w.begin; t < w.end; t += 300) {
    hours.insert(HourKey(t));
    days.insert(DayKey(t));
  }
  // The window must really hold the change it is named after.
  if (std::string(w.zone) != "UTC") {
    struct tm a, b;
    localtime_r(&w.begin, &a);
    localtime_r(&w.end, &b);
    ASSERT_NE(a.tm_gmtoff, b.tm_gmtoff);
  }

  // Hours: from the first hour start in the window, NextHour to the end.
  std::set<Key> walked;
  time_t t = cal::HourStart(w.begin);
  if (t < w.begin) t = cal::NextHour(t);
  for (time_t prev = 0; t < w.end; prev = t, t = cal::NextHour(t)) {
    const Key key = HourKey(t);
    EXPECT_TRUE(walked.insert(key).second) << "hour asked twice at " << t;
    EXPECT_NE(HourKey(t - 1), key) << "not the first instant of its hour: " << t;
    EXPECT_EQ(cal::HourStart(t), t);
    EXPECT_EQ(cal::HourStart(t + 1799), t) << t;
    EXPECT_EQ(cal::FromLabel(cal::LocalLabel(t)), t);
    if (prev) {
      EXPECT_GT(t, prev);
      EXPECT_EQ(cal::PrevHour(t), prev);
    }
  }
  // The window's first hour may have begun before it.
  hours.erase(HourKey(w.begin));
  walked.erase(HourKey(w.begin));
  EXPECT_EQ(walked, hours);

  // Days.
  std::set<Key> walkedDays;
  time_t d = cal::NextDay(w.begin);
  days.erase(DayKey(w.begin));
  for (time_t prev = 0; d < w.end; prev = d, d = cal::NextDay(d)) {
    const Key key = DayKey(d);
    EXPECT_TRUE(walkedDays.insert(key).second) << "day asked twice at " << d;
    EXPECT_NE(DayKey(d - 1), key) << "not the first instant of its day: " << d;
    EXPECT_EQ(cal::DayStart(d + 43200), d);
    if (prev) {
      EXPECT_GT(d, prev);
      EXPECT_EQ(cal::PrevDay(d), prev);
    }
  }
  EXPECT_EQ(walkedDays, days);
}

INSTANTIATE_TEST_SUITE_P(Zones, CalendarWalk, ::testing::ValuesIn(kWindows));

TEST(Calendar, LeftOutHourHasNoRecordTimeAndRepeatedHourTheFirstOccurrence) {
  mcdtest::ZoneScope zone("Europe/Berlin");
  // 2026-03-29 02:00 does not exist; 2026-10-25 02:00 CEST is 00:00 UTC.
  EXPECT_EQ(cal::FromLabel({2026, 3, 29, 2}), -1);
  EXPECT_EQ(cal::FromLabel({2026, 3, 29, 3}), 1774746000);   // 01:00 UTC
  EXPECT_EQ(cal::FromLabel({2026, 10, 25, 2}), 1792886400);  // 00:00 UTC
  EXPECT_EQ(cal::HourStart(1792886400 + 3600 + 600), 1792886400);  // inside the repeat
  EXPECT_EQ(cal::NextHour(1792886400), 1792886400 + 7200);        // 03:00 CET
  mcdtest::ZoneScope kolkata("Asia/Kolkata");
  // Half-hour zone: local hour starts fall on half past the UTC hour.
  EXPECT_EQ(cal::HourStart(1790000000) % 3600, 1800);
  EXPECT_EQ(cal::DayStart(1790000000), 1789929000);  // 2026-09-21 00:00 IST
}

}  // namespace
