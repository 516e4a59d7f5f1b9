// The one seam through which the supervision and polling loops read the time and sleep.
//
// The daemon runs on the real clock. Tests install their own Clock to drive the loops
// through simulated time. The environment variable MCD_TIME_SCALE=N (N > 1) makes the
// default clock fast-forward: every Sleep(s) really sleeps s/N seconds while Now()
// moves on by the full s, so end-to-end runs see hours of polling in minutes.
// Link-layer pauses between frames do not go through this seam: they are real.
// MCD_CLOCK_OFFSET_FILE=path (tests only) adds the whole seconds written in that file
// to the calendar clock, read anew at each look, so a test can step the controller's
// clock under a running daemon; the monotonic clock does not move.
//
// Two clocks: Now() is the controller's calendar clock (record stamps, comparisons
// with the meter's clock) and may be stepped by an operator or a time service at any
// moment; Monotonic() never steps and is what waits and due times are measured on.
// Every Sleep ends early once a stop has been requested, so no wait outlives a
// SIGTERM by more than the time it takes the sleeper to look at StopRequested().
#pragma once

#include <ctime>

namespace mcd {

class Clock {
 public:
  virtual ~Clock() = default;
  // Calendar time, seconds since the epoch.
  virtual time_t Now() = 0;
  // Seconds on a clock that never steps backwards or forwards (only its differences
  // mean anything). A test clock that never steps may leave it to Now().
  virtual time_t Monotonic() { return Now(); }
  // Sleeps the seconds, or less when a stop is requested meanwhile.
  virtual void Sleep(unsigned seconds) = 0;
};

// The clock in force: the one installed with SetClock, else the default.
Clock& GetClock();
// Installs a clock (not owned); nullptr restores the default. Tests only, before
// any loop thread runs or after all have stopped.
void SetClock(Clock* clock);

inline time_t Now() { return GetClock().Now(); }
inline time_t Monotonic() { return GetClock().Monotonic(); }
inline void Sleep(unsigned seconds) { GetClock().Sleep(seconds); }

// Asks every loop to end: wakes every sleeper of the default clock at once and makes
// later sleeps return immediately. Callable from any thread, but not from a signal
// handler (it takes a lock); a handler hands the signal to a thread that calls it.
void RequestStop();
bool StopRequested();
// Clears a stop request (tests that run several loops in one process).
void ClearStopRequest();

// Asks the loops to come to a block boundary so that the configuration can be read
// again and the drivers rebuilt: wakes every sleeper like a stop request does, until
// cleared by whoever carries out the reload.
void RequestReload();
bool ReloadRequested();
void ClearReloadRequest();

// A stop or a reload is pending: walks end at the next block boundary, waits end now.
inline bool InterruptRequested() { return StopRequested() || ReloadRequested(); }

// Sleeps on the steady clock for the given real seconds, ending early on a stop or
// reload request. The building block of the default clocks; test clocks may use it too.
void InterruptibleSleep(double seconds);

// A short real pause that no stop or reload request ends: for the bounded wait of a
// loop that is already ending (main waiting for a driver to give its turn back).
void PauseMilliseconds(unsigned milliseconds);

}  // namespace mcd
