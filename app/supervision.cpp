#include "app/supervision.h"

#include "app/clock.h"
#include "drivers/base/base_driver.h"
#include "server/jsonrpc_connector.h"

namespace mcd {

bool SupervisionPass(const std::vector<CMcdBaseDriver*>& drivers) {
  bool allCurrent = true;
  bool lastReserved = false;
  for (CMcdBaseDriver* driver : drivers) {
    driver->SetTurn();
    while (driver->GetTurn()) Sleep(kSupervisionStep);
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
  if (drivers.empty()) Sleep(kSupervisionStep);
  return allCurrent;
}

void RunSupervision(const std::vector<CMcdBaseDriver*>& drivers, const std::atomic<bool>& exitFlag) {
  while (!exitFlag.load()) SupervisionPass(drivers);
}

}  // namespace mcd
