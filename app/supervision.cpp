#include "app/supervision.h"

#include <unistd.h>

#include "app/clock.h"
#include "app/service_notify.h"
#include "drivers/base/base_driver.h"
#include "log/logger.h"
#include "server/jsonrpc_connector.h"
#include "server/paths.h"

namespace mcd {

namespace {

constexpr unsigned kHandBackPollMs = 50;

bool Paused() {
  return access(paths::Tmp(kPauseFile).c_str(), F_OK) == 0 || access(paths::Tmp(kPauseAllFile).c_str(), F_OK) == 0;
}

// Waits for the driver to give its turn back. Returns false when a stop or reload came
// first and the driver did not give the turn back within the grace.
bool AwaitTurn(CMcdBaseDriver* driver) {
  const time_t began = Monotonic();
  while (driver->GetTurn() && !InterruptRequested()) {
    // The watchdog is fed while the turn holder is within its allowance, or while a
    // pause file holds it back on purpose.
    if (Monotonic() - began < kTurnStallLimit || Paused()) service::Watchdog();
    Sleep(kSupervisionStep);
  }
  for (unsigned waited = 0; driver->GetTurn() && waited < kHandBackGraceMs; waited += kHandBackPollMs)
    PauseMilliseconds(kHandBackPollMs);
  if (driver->GetTurn()) {
    LOG_WARNING("main - the driver \"%s\" did not give its turn back in time; it is stopped where it stands.",
                driver->threadName().c_str());
    return false;
  }
  return true;
}

}  // namespace

bool SupervisionPass(const std::vector<CMcdBaseDriver*>& drivers) {
  bool allCurrent = true;
  bool lastReserved = false;
  for (CMcdBaseDriver* driver : drivers) {
    if (InterruptRequested()) return false;
    driver->SetTurn();
    AwaitTurn(driver);
    if (InterruptRequested()) return false;
    service::Watchdog();
    if (driver->IsReservedPort() || !driver->ArchivesCurrent()) allCurrent = false;
    lastReserved = driver->IsReservedPort();
  }
  if (!lastReserved) {
    if (allCurrent)
      CJSONRPCConnector::RemoveExtPauseFile();
    else
      CJSONRPCConnector::CreateExtPauseFile();
  }
  // Nobody to wait for: keep the pass rate of a supervisor with one idle driver
  // instead of spinning.
  if (drivers.empty()) {
    service::Watchdog();
    Sleep(kSupervisionStep);
  }
  return allCurrent;
}

SupervisionEnd RunSupervision(const std::vector<CMcdBaseDriver*>& drivers) {
  while (!InterruptRequested()) SupervisionPass(drivers);
  return StopRequested() ? SupervisionEnd::kStop : SupervisionEnd::kReload;
}

}  // namespace mcd
