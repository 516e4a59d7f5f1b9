// Driver selection, the stored configuration and the empty driver.
#include <gtest/gtest.h>

#include <memory>

#include "drivers/base/driver_factory.h"
#include "drivers/base/empty_driver.h"
#include "drivers/magika/magika_driver.h"
#include "drivers/tsrv/tsrv_driver.h"
#include "fake_driver.h"
#include "server/jsonrpc_connector.h"
#include "support/test_support.h"
#include "tz_fixture.h"

namespace {


bool IsEmptyDriver(const std::string& manufacturer) {
  std::unique_ptr<CMcdBaseDriver> driver(NewDriverFor(manufacturer));
  return driver && dynamic_cast<CMcdEmptyDriver*>(driver.get()) != nullptr;
}

TEST(DriverSelection, UnknownOrInexactNamesGetTheEmptyDriver) {
  EXPECT_TRUE(IsEmptyDriver(""));
  EXPECT_TRUE(IsEmptyDriver("VKT-7"));
  EXPECT_TRUE(IsEmptyDriver("vkt-7 "));
  EXPECT_TRUE(IsEmptyDriver("Esko-MTR-06"));
  EXPECT_TRUE(IsEmptyDriver("something else"));
  // Every known key builds a driver (its own class, or the empty one until it exists).
  for (const char* key : {"vkt-7", "vkt-9", "esko-mtr-06", "esko-tm3", "tem-104", "tsm-104", "tem-106", "km5-6i",
                          "magika-axxx", "tsrv-024m", "mkts", "elteko-ts555", "teleross-tm", "omega-tr"}) {
    std::unique_ptr<CMcdBaseDriver> driver(NewDriverFor(key));
    EXPECT_NE(driver, nullptr) << key;
  }
  std::unique_ptr<CMcdBaseDriver> tsrv(NewDriverFor("tsrv-024m")), magika(NewDriverFor("magika-axxx"));
  EXPECT_NE(dynamic_cast<CmcdTSRV*>(tsrv.get()), nullptr);
  EXPECT_NE(dynamic_cast<CmcdMAGIKAAXXX*>(magika.get()), nullptr);
}

TEST(DriverConfiguration, LedIndicationAndReservedPort) {
  CMcdEmptyDriver driver;
  struct Case {
    ParamMap map;
    bool led;
    bool reserved;
  };
  const Case cases[] = {
      {{}, true, false},
      {{{"led_indication", "0"}}, false, false},
      {{{"led_indication", "1"}}, true, false},
      {{{"led_indication", "7"}}, true, false},
      {{{"led_indication", "off"}}, false, false},
      {{{"led_indication", ""}}, false, false},
      {{{"port_alias", "serial232.0"}}, true, true},
      {{{"port_alias", "serial232.D"}}, true, true},
      {{{"port_alias", "serial485.4"}}, true, true},
      {{{"port_alias", "serial485.3"}}, true, false},
      {{{"port_alias", "SERIAL232.D"}}, true, false},
      {{{"port_alias", ""}}, true, false},
  };
  for (const auto& c : cases) {
    driver.SetConfiguration(c.map);
    EXPECT_EQ(driver.GetLedIndication(), c.led) << (c.map.empty() ? "" : c.map.begin()->second);
    EXPECT_EQ(driver.IsReservedPort(), c.reserved) << (c.map.empty() ? "" : c.map.begin()->second);
    EXPECT_EQ(driver.GetConfiguration(), c.map);
  }
}

class FactoryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mcd::SetClock(&clock);
    client.reset(new CJSONRPCConnector("31", 0));
  }
  void TearDown() override {
    driver.reset();
    mcd::SetClock(nullptr);
    client.reset();
  }
  mcdtest::TempRoot root;
  mcdtest::FakeClock clock{1457163000};
  std::unique_ptr<CJSONRPCConnector> client;
  std::unique_ptr<CMcdBaseDriver> driver;
};

TEST_F(FactoryTest, CreateDriverWiresConfiguresAndStartsUnderTheManufacturerName) {
  const ParamMap meter{{"led_indication", "0"}, {"port_alias", "serial232.0"}, {"period_current", "30"}};
  driver.reset(CreateDriver(meter, nullptr, client.get()));
  ASSERT_NE(driver, nullptr);
  EXPECT_NE(dynamic_cast<CMcdEmptyDriver*>(driver.get()), nullptr);
  EXPECT_TRUE(driver->isRunning());
  EXPECT_EQ(driver->threadName(), "");  // no manufacturer: the empty name
  EXPECT_EQ(driver->GetClient(), client.get());
  EXPECT_EQ(driver->GetConfiguration(), meter);
  EXPECT_FALSE(driver->GetLedIndication());
  EXPECT_TRUE(driver->IsReservedPort());
  EXPECT_FALSE(driver->ArchivesCurrent());
}

TEST_F(FactoryTest, AModelWithoutADriverSaysSoOnceAndNeverGetsReady) {
  mcdtest::LogCapture log(4);
  driver.reset(CreateDriver({{"manufacturer", "tem-104"}}, nullptr, client.get()));
  EXPECT_FALSE(driver->IsReady());
  EXPECT_EQ(log.Count("no driver for manufacturer tem-104: nothing is read"), 1u);
  std::unique_ptr<CMcdBaseDriver> tsrv(CreateDriver({{"manufacturer", "tsrv-024m"}}, nullptr, client.get()));
  EXPECT_EQ(log.Count("no driver for manufacturer"), 1u);
}

}  // namespace
