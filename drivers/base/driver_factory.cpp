#include "drivers/base/driver_factory.h"

#include "drivers/base/empty_driver.h"
#include "drivers/esko/esko_driver.h"
#include "drivers/vkt7/vkt7_driver.h"

// Each meter family plugs in here: when its driver class exists, its row builds it.
// Rows whose driver does not exist yet build the empty driver, which reads nothing.
CMcdBaseDriver* NewDriverFor(const std::string& manufacturer) {
  if (manufacturer == "vkt-7") return new Cmcd_VKT7();
  if (manufacturer == "vkt-9") return new CMcdEmptyDriver();         // Cmcd_VKT9
  if (manufacturer == "esko-mtr-06") return new Cmcd_MTR06();
  if (manufacturer == "esko-tm3") return new Cmcd_TM3E();
  if (manufacturer == "tem-104") return new CMcdEmptyDriver();       // CmcdTEM104
  if (manufacturer == "tsm-104") return new CMcdEmptyDriver();       // CmcdTEM106
  if (manufacturer == "tem-106") return new CMcdEmptyDriver();       // CmcdTEM106
  if (manufacturer == "km5-6i") return new CMcdEmptyDriver();        // CmcdKM5(6)
  if (manufacturer == "magika-axxx") return new CMcdEmptyDriver();   // CmcdMAGIKAAXXX
  if (manufacturer == "tsrv-024m") return new CMcdEmptyDriver();     // CmcdTSRV
  if (manufacturer == "mkts") return new CMcdEmptyDriver();          // CmcdMKTS
  if (manufacturer == "elteko-ts555") return new CMcdEmptyDriver();  // CmcdElteko
  if (manufacturer == "teleross-tm") return new CMcdEmptyDriver();   // CmcdTeross
  if (manufacturer == "omega-tr") return new CMcdEmptyDriver();      // Cmcd_OMEGATR
  return new CMcdEmptyDriver();
}

CMcdBaseDriver* CreateDriver(ParamMap meter, CConnector* connector, CJSONRPCConnector* client) {
  auto found = meter.find("manufacturer");
  const std::string manufacturer = found == meter.end() ? std::string() : found->second;
  CMcdBaseDriver* driver = NewDriverFor(manufacturer);
  driver->SetJsonRpcConnector(client);
  driver->SetConfiguration(meter);
  driver->SaveConnector(connector);
  driver->start(driver, manufacturer);
  return driver;
}
