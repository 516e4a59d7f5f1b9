// The supervision loop that hands the one serial line from driver to driver.
#pragma once

#include <atomic>
#include <vector>

class CMcdBaseDriver;

namespace mcd {

// Seconds main sleeps between looks at a driver's turn flag (and per pass when there
// is no driver at all).
constexpr unsigned kSupervisionStep = 5;

// One pass over the drivers in list order: give each its turn and wait, in steps of
// kSupervisionStep through mcd::Sleep, until the driver gives it back. Afterwards, unless
// the last driver is on a reserved port, the external pause file is removed when every
// driver's archives are current and written otherwise. With no drivers the pass removes
// the file and sleeps one step. Returns whether all archives were current.
bool SupervisionPass(const std::vector<CMcdBaseDriver*>& drivers);

// Runs passes while exitFlag is clear; a pass under way always finishes.
void RunSupervision(const std::vector<CMcdBaseDriver*>& drivers, const std::atomic<bool>& exitFlag);

}  // namespace mcd
