// The supervision loop that hands the one serial line from driver to driver.
#pragma once

#include <vector>

class CMcdBaseDriver;

namespace mcd {

// Seconds main sleeps between looks at a driver's turn flag (and per pass when there
// is no driver at all).
constexpr unsigned kSupervisionStep = 5;
// Once a stop or reload is pending, how long main still waits for the driver that
// holds the turn to reach a block boundary and give the turn back, in milliseconds.
// The process must be gone within 10 s of SIGTERM; joining the drivers and the lamps
// takes the rest.
constexpr unsigned kHandBackGraceMs = 6000;
// A driver that holds the turn longer than this (seconds on the monotonic clock) counts
// as stuck: the service watchdog is no longer fed, so systemd restarts the process.
// A full 90-day backfill of the slowest meter stays well below it.
constexpr long kTurnStallLimit = 3600;

// One pass over the drivers in list order: give each its turn and wait, in steps of
// kSupervisionStep through mcd::Sleep, until the driver gives it back. A stop or reload
// request ends the pass at once: the turn holder gets kHandBackGraceMs to give the turn
// back and no later driver gets a turn. After a full pass, unless the last driver is on
// a reserved port, the external pause file is removed when every driver's archives are
// current and written otherwise. With no drivers the pass removes the file and sleeps
// one step. Returns whether all archives were current (false for a pass cut short).
bool SupervisionPass(const std::vector<CMcdBaseDriver*>& drivers);

enum class SupervisionEnd { kStop, kReload };

// Runs passes until a stop or reload is requested and says which.
SupervisionEnd RunSupervision(const std::vector<CMcdBaseDriver*>& drivers);

}  // namespace mcd
