#include "drivers/base/driver_factory.h"

#include "drivers/base/driver_families.h"
#include "drivers/base/empty_driver.h"
#include "log/logger.h"

CMcdBaseDriver* NewDriverFor(const std::string& manufacturer) {
  const DriverFamily* family = FindDriverFamily(manufacturer);
  if (family && family->create) return family->create();
  return new CMcdEmptyDriver();
}

CMcdBaseDriver* CreateDriver(ParamMap meter, CConnector* connector, CJSONRPCConnector* client) {
  auto found = meter.find("manufacturer");
  const std::string manufacturer = found == meter.end() ? std::string() : found->second;
  const DriverFamily* family = FindDriverFamily(manufacturer);
  if (!family || !family->create) LOG_WARNING("no driver for manufacturer %s: nothing is read", manufacturer.c_str());
  CMcdBaseDriver* driver = NewDriverFor(manufacturer);
  driver->SetJsonRpcConnector(client);
  driver->SetConfiguration(meter);
  driver->SaveConnector(connector);
  driver->start(driver, manufacturer);
  return driver;
}
