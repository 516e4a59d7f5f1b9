// The one seam through which the supervision and polling loops read the time and sleep.
//
// The daemon runs on the real clock. Tests install their own Clock to drive the loops
// through simulated time. The environment variable MCD_TIME_SCALE=N (N > 1) makes the
// default clock fast-forward: every Sleep(s) really sleeps s/N seconds while Now()
// moves on by the full s, so end-to-end runs see hours of polling in minutes.
// Link-layer pauses between frames do not go through this seam: they are real.
#pragma once

#include <ctime>

namespace mcd {

class Clock {
 public:
  virtual ~Clock() = default;
  virtual time_t Now() = 0;
  virtual void Sleep(unsigned seconds) = 0;
};

// The clock in force: the one installed with SetClock, else the default.
Clock& GetClock();
// Installs a clock (not owned); nullptr restores the default. Tests only, before
// any loop thread runs or after all have stopped.
void SetClock(Clock* clock);

inline time_t Now() { return GetClock().Now(); }
inline void Sleep(unsigned seconds) { GetClock().Sleep(seconds); }

}  // namespace mcd
