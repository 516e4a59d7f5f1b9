#include "drivers/base/calendar.h"

namespace mcd {
namespace cal {
namespace {

// Every zone offset change moves the clock by at most this much; stepping by it from
// an hour start always reaches the next label's instant or passes into it.
constexpr time_t kHour = 3600;

struct tm Local(time_t t) {
  struct tm parts;
  localtime_r(&t, &parts);
  return parts;
}

// The first instant whose local label is the same as t's and whose minutes and
// seconds are zero: t less its minutes and seconds, then one hour earlier while the
// earlier instant still carries the same label (the repeated hour of an autumn change).
time_t FirstOfHour(time_t t) {
  const struct tm parts = Local(t);
  time_t start = t - parts.tm_min * 60 - parts.tm_sec;
  const Label label = LocalLabel(start);
  for (;;) {
    const time_t earlier = start - kHour;
    const struct tm e = Local(earlier);
    if (e.tm_min != 0 || e.tm_sec != 0 || !SameHour(LocalLabel(earlier), label)) break;
    start = earlier;
  }
  return start;
}

}  // namespace

Label LocalLabel(time_t t) {
  const struct tm parts = Local(t);
  Label label;
  label.year = parts.tm_year + 1900;
  label.month = parts.tm_mon + 1;
  label.day = parts.tm_mday;
  label.hour = parts.tm_hour;
  return label;
}

bool SameHour(const Label& a, const Label& b) { return SameDay(a, b) && a.hour == b.hour; }
bool SameDay(const Label& a, const Label& b) { return a.year == b.year && a.month == b.month && a.day == b.day; }

time_t HourStart(time_t t) { return FirstOfHour(t); }

time_t NextHour(time_t t) {
  const time_t start = FirstOfHour(t);
  const Label label = LocalLabel(start);
  // Step forward by whole hours until the label changes: the repeated hour of an
  // autumn change is passed over, the left-out hour of a spring change does not exist.
  time_t next = start + kHour;
  while (SameHour(LocalLabel(next), label)) next += kHour;
  return FirstOfHour(next);
}

time_t PrevHour(time_t t) { return FirstOfHour(FirstOfHour(t) - 1); }

time_t DayStart(time_t t) {
  struct tm parts = Local(t);
  parts.tm_hour = 0;
  parts.tm_min = 0;
  parts.tm_sec = 0;
  parts.tm_isdst = -1;
  time_t midnight = mktime(&parts);
  // Where midnight does not exist, mktime lands in the previous day or after the gap;
  // walk to the first instant whose label is t's day.
  const Label day = LocalLabel(t);
  while (!SameDay(LocalLabel(midnight), day) && midnight < t) midnight = NextHour(midnight);
  while (midnight > t || SameDay(LocalLabel(PrevHour(midnight)), day)) {
    const time_t before = PrevHour(midnight);
    if (!SameDay(LocalLabel(before), day)) break;
    midnight = before;
  }
  return FirstOfHour(midnight);
}

time_t NextDay(time_t t) {
  struct tm parts = Local(DayStart(t));
  parts.tm_mday += 1;
  parts.tm_hour = 12;  // noon of the next day always exists
  parts.tm_min = 0;
  parts.tm_sec = 0;
  parts.tm_isdst = -1;
  return DayStart(mktime(&parts));
}

time_t PrevDay(time_t t) { return DayStart(DayStart(t) - 1); }

time_t FromLabel(const Label& label) {
  struct tm parts = {};
  parts.tm_year = label.year - 1900;
  parts.tm_mon = label.month - 1;
  parts.tm_mday = label.day;
  parts.tm_hour = label.hour;
  parts.tm_isdst = -1;
  const time_t guess = mktime(&parts);
  if (guess == static_cast<time_t>(-1)) return -1;
  const time_t start = FirstOfHour(guess);
  return SameHour(LocalLabel(start), label) ? start : -1;
}

}  // namespace cal
}  // namespace mcd
