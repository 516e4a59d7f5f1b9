// Local calendar hours and days, as the meters key their archives: a record is asked
// for by its local date and hour, so walks step over local labels, not over fixed
// 3600- or 86400-second steps. In the controller's time zone (TZ):
//  - a local hour that the zone leaves out (spring change) is not a record time;
//  - a local hour that the zone repeats (autumn change) is one record time, stamped
//    with its first occurrence;
//  - a day starts at its first local instant (midnight, or the first time that exists).
#pragma once

#include <ctime>

namespace mcd {
namespace cal {

// A local label: what the meter is asked for.
struct Label {
  int year = 0;   // e.g. 2026
  int month = 0;  // 1..12
  int day = 0;    // 1..31
  int hour = 0;   // 0..23
};

Label LocalLabel(time_t t);
bool SameHour(const Label& a, const Label& b);
bool SameDay(const Label& a, const Label& b);

// The record time of the local hour that contains t (its first occurrence).
time_t HourStart(time_t t);
// The record time of the next local hour after the one that contains t.
time_t NextHour(time_t t);
// The record time of the local hour before the one that contains t.
time_t PrevHour(time_t t);

// The first instant of t's local day.
time_t DayStart(time_t t);
// The first instant of the local day after t's.
time_t NextDay(time_t t);
// The first instant of the local day before t's.
time_t PrevDay(time_t t);

// The record time of a label (its first occurrence); -1 when the zone has no such
// local hour.
time_t FromLabel(const Label& label);

}  // namespace cal
}  // namespace mcd
