// The JSON-RPC transport and the configuration requests, against a real local server.
#include <unistd.h>

#include "server/jsonrpc_connector.h"
#include "server_test_util.h"

using mcdtest::ConfigServer;
using mcdtest::FileExists;
using mcdtest::TempRoot;
using servertest::InstantClock;

namespace {

class JsonRpcTest : public ::testing::Test {
 protected:
  void TearDown() override {
    mcd::SetClock(nullptr);
    unsetenv("MCD_SERVER_URL");
    mcd::paths::Reset();
  }

  void StartServer(const std::string& config, const std::vector<std::string>& options = {}) {
    ASSERT_TRUE(server.Start(config, 0, options));
    servertest::UseServer(server.url());
  }

  TempRoot root;
  ConfigServer server;
};

const char* const kMeters = R"({"meters": {
  "7": {"manufacturer": "vkt-7", "address": "1",
        "port_params": {"name": "/dev/ttyS1", "speed": "9600", "protocol": "uart"},
        "systems": {"system_1": "heating", "system_2": "water", "system_3": ""}},
  "vkt9": {"manufacturer": "vkt-9"},
  "vkt9p": {"manufacturer": "vkt-9", "period_current": "60"},
  "tem": {"manufacturer": "tem-104"},
  "temp": {"manufacturer": "tem-104", "period_current": "60"},
  "vkt7p": {"manufacturer": "vkt-7", "period_current": "60"},
  "empty": {"manufacturer": ""},
  "typed": {"manufacturer": "km-5", "period_current": 60, "flag": true, "list": [1, 2], "nested": {"a": "b"}},
  "zero": {"manufacturer": "esko", "systems": {"system_0": "x"}}
}})";

TEST_F(JsonRpcTest, RequestBytesIdsAndStandardOutput) {
  StartServer(kMeters);
  CJSONRPCConnector connector("7", 0);

  testing::internal::CaptureStdout();
  connector.GetInitParameters1();
  connector.GetInitParameters2();
  std::string out = testing::internal::GetCapturedStdout();

  const std::string first = R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"7"}})";
  const std::string second = R"({"id":2,"jsonrpc":"2.0","method":"get_config2"})";
  ASSERT_EQ(server.Requests(), (std::vector<std::string>{first, second}));
  EXPECT_EQ(connector.GetRequestId(), 3);

  // The request text ends with its own newline and the line adds one more.
  const std::string query1 = "CJSONRPCConnector::ExecJSONRPCFunc query is " + first + "\n\n";
  ASSERT_EQ(out.compare(0, query1.size(), query1), 0) << out;
  size_t result1 = out.find("result JSONRPC{", query1.size());
  EXPECT_EQ(result1, query1.size()) << out;
  size_t query2 = out.find("CJSONRPCConnector::ExecJSONRPCFunc query is " + second + "\n\n");
  ASSERT_NE(query2, std::string::npos) << out;
  EXPECT_EQ(out[query2 - 1], '\n');
  EXPECT_NE(out.find("result JSONRPC{", query2), std::string::npos);
  EXPECT_EQ(out.back(), '\n');
}

TEST_F(JsonRpcTest, GetConfigSplitsPortAndDriverAndRegistersSystems) {
  StartServer(kMeters);
  CJSONRPCConnector connector("7", 0);
  std::list<PortConfig> ports = connector.GetInitParameters1();

  ASSERT_EQ(ports.size(), 1u);
  const PortConfig& port = ports.front();
  EXPECT_EQ(port.portParams, (ParamMap{{"name", "/dev/ttyS1"}, {"protocol", "uart"}, {"speed", "9600"}}));
  ASSERT_EQ(port.drivers.size(), 1u);
  EXPECT_EQ(port.drivers.front(), (ParamMap{{"address", "1"}, {"manufacturer", "vkt-7"}, {"period_current", "5400"}}));

  // system_1 and system_2 are present, system_3 has an empty value.
  EXPECT_EQ(connector.GetDefaultSystem(), 0);
  EXPECT_TRUE(FileExists(root.tmp("7/1/tc_items")));
  EXPECT_TRUE(FileExists(root.tmp("7/2/tc_items")));
  EXPECT_FALSE(FileExists(root.tmp("7/3")));
  EXPECT_TRUE(FileExists(root.storage("7/1/tc_archives")));
  EXPECT_TRUE(FileExists(root.storage("7/2/tc_archives")));
  EXPECT_FALSE(FileExists(root.storage("7/3")));
  char target[512] = {0};
  ASSERT_GT(readlink(root.tmp("7/default").c_str(), target, sizeof target - 1), 0);
  EXPECT_EQ(std::string(target), root.tmp("7/1"));
}

TEST_F(JsonRpcTest, GetConfigDefaultsThePollingPeriodOnlyWhenMissing) {
  StartServer(kMeters);
  struct Case {
    const char* meter;
    const char* period;
  } cases[] = {{"vkt9", "5400"}, {"vkt9p", "60"}, {"vkt7p", "60"}, {"tem", "20"},
               {"temp", "60"},   {"empty", "20"}, {"unknown-meter", "20"}};
  for (const Case& c : cases) {
    CJSONRPCConnector connector(c.meter, 0);
    std::list<PortConfig> ports = connector.GetInitParameters1();
    ASSERT_EQ(ports.size(), 1u) << c.meter;
    ASSERT_EQ(ports.front().drivers.size(), 1u) << c.meter;
    EXPECT_EQ(ports.front().drivers.front().at("period_current"), c.period) << c.meter;
  }
  // A meter the server does not know gets an empty result: no port parameters at all.
  CJSONRPCConnector unknown("unknown-meter", 0);
  std::list<PortConfig> ports = unknown.GetInitParameters1();
  EXPECT_TRUE(ports.front().portParams.empty());
  EXPECT_EQ(ports.front().drivers.front(), (ParamMap{{"period_current", "20"}}));
}

TEST_F(JsonRpcTest, NonStringValuesBecomeTextAndNestedValuesAreSkipped) {
  StartServer(kMeters);
  CJSONRPCConnector connector("typed", 0);
  std::list<PortConfig> ports = connector.GetInitParameters1();
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports.front().drivers.front(),
            (ParamMap{{"flag", "true"}, {"manufacturer", "km-5"}, {"period_current", "60"}}));
}

TEST_F(JsonRpcTest, SystemDigitZeroLowersTheDefaultSystem) {
  StartServer(kMeters);
  CJSONRPCConnector connector("zero", 0);
  connector.GetInitParameters1();
  EXPECT_EQ(connector.GetDefaultSystem(), -1);
  // Digit 0 registers system 0, whose directory is "1"; the default link would name "0".
  EXPECT_TRUE(FileExists(root.tmp("zero/1/tc_items")));
  EXPECT_TRUE(FileExists(root.storage("zero/1/tc_archives")));
  EXPECT_FALSE(FileExists(root.tmp("zero/default")));
  EXPECT_FALSE(FileExists(root.storage("zero/default")));
}

TEST_F(JsonRpcTest, SetSystemsIgnoresEmptyValuesAndKeysWithoutDigit) {
  CJSONRPCConnector connector("s", 0);
  Json::Value systems(Json::objectValue);
  systems["system_3"] = "x";
  systems["system_2"] = "";
  systems["short"] = "x";
  systems["system_x"] = "x";
  EXPECT_TRUE(connector.SetSystems(systems));
  EXPECT_EQ(connector.GetDefaultSystem(), 0);
  EXPECT_EQ(mcdtest::ListDir(root.tmp("s")), (std::vector<std::string>{"3"}));
  EXPECT_EQ(mcdtest::ListDir(root.storage("s")), (std::vector<std::string>{"3"}));
  // A value that is not an object registers nothing.
  EXPECT_TRUE(connector.SetSystems(Json::Value("system_1")));
  EXPECT_EQ(mcdtest::ListDir(root.tmp("s")), (std::vector<std::string>{"3"}));
}

TEST_F(JsonRpcTest, GetConfig2OverridesTheVktPeriod) {
  StartServer(R"({"get_config2": [
    {"port_params": {"name": "/dev/ttyS1"},
     "drivers": [{"manufacturer": "vkt-7", "period_current": "60", "id": "1"},
                 {"manufacturer": "tem-104", "period_current": "60", "id": "2"},
                 {"manufacturer": "tem-104", "id": "3"},
                 {"manufacturer": "vkt-9", "id": "4"}]},
    {"drivers": [{"manufacturer": "esko", "id": "5"}]},
    {"port_params": {"name": "/dev/ttyS2"}}
  ]})");
  CJSONRPCConnector connector("1", 0);
  std::list<PortConfig> ports = connector.GetInitParameters2();
  ASSERT_EQ(ports.size(), 3u);
  auto it = ports.begin();
  EXPECT_EQ(it->portParams, (ParamMap{{"name", "/dev/ttyS1"}}));
  std::vector<ParamMap> drivers(it->drivers.begin(), it->drivers.end());
  ASSERT_EQ(drivers.size(), 4u);
  EXPECT_EQ(drivers[0], (ParamMap{{"id", "1"}, {"manufacturer", "vkt-7"}, {"period_current", "5400"}}));
  EXPECT_EQ(drivers[1].at("period_current"), "60");
  EXPECT_EQ(drivers[2].at("period_current"), "20");
  EXPECT_EQ(drivers[3].at("period_current"), "5400");
  ++it;
  EXPECT_TRUE(it->portParams.empty());
  ASSERT_EQ(it->drivers.size(), 1u);
  EXPECT_EQ(it->drivers.front(), (ParamMap{{"id", "5"}, {"manufacturer", "esko"}, {"period_current", "20"}}));
  ++it;
  EXPECT_EQ(it->portParams, (ParamMap{{"name", "/dev/ttyS2"}}));
  EXPECT_TRUE(it->drivers.empty());
}

TEST_F(JsonRpcTest, NonJsonAnswerIsRetriedWithTheSameId) {
  InstantClock clock;
  mcd::SetClock(&clock);
  StartServer(kMeters, {"--garbage", "2"});
  CJSONRPCConnector connector("7", 0);

  testing::internal::CaptureStdout();
  std::list<PortConfig> ports = connector.GetInitParameters1();
  std::string out = testing::internal::GetCapturedStdout();

  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports.front().drivers.front().at("manufacturer"), "vkt-7");
  EXPECT_EQ(clock.sleeps(), 2);
  EXPECT_EQ(clock.slept(), 10u);
  std::vector<std::string> requests = server.Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0], requests[1]);
  EXPECT_EQ(requests[0], requests[2]);
  EXPECT_NE(out.find("result JSONRPCthis is not json\n"), std::string::npos) << out;

  connector.GetInitParameters2();
  ASSERT_EQ(server.Requests().size(), 4u);
  EXPECT_EQ(server.Requests()[3], R"({"id":2,"jsonrpc":"2.0","method":"get_config2"})");
}

TEST_F(JsonRpcTest, ServerDownIsRetriedEveryFiveSecondsUntilItAnswers) {
  InstantClock clock;
  mcd::SetClock(&clock);
  int port = mcdtest::FreeLoopbackPort();
  servertest::UseServer("http://127.0.0.1:" + std::to_string(port) + "/");
  // Nothing listens yet; the server comes up during the third wait.
  clock.onSleep = [&] {
    if (clock.sleeps() == 3) {
      ASSERT_TRUE(server.Start(kMeters, port));
    }
  };
  CJSONRPCConnector connector("tem", 0);
  std::list<PortConfig> ports = connector.GetInitParameters1();
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports.front().drivers.front().at("manufacturer"), "tem-104");
  EXPECT_EQ(clock.sleeps(), 3);
  EXPECT_EQ(clock.slept(), 15u);
  EXPECT_EQ(server.Requests(),
            (std::vector<std::string>{R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"tem"}})"}));
}

TEST_F(JsonRpcTest, ConstructorBuildsPathsAndCreatesBothMeterDirectories) {
  CJSONRPCConnector connector("42", 0);
  EXPECT_EQ(connector.GetMeterId(), "42");
  EXPECT_EQ(connector.GetVolatileDir(), root.tmp("42/"));
  EXPECT_EQ(connector.GetStorageDir(), root.storage("42/"));
  EXPECT_EQ(connector.GetForceUpdateFile(), root.tmp("qmd_force_update_42"));
  EXPECT_EQ(connector.GetRequestId(), 1);
  EXPECT_TRUE(FileExists(root.tmp("42")));
  EXPECT_TRUE(FileExists(root.storage("42")));
  EXPECT_TRUE(mcdtest::ListDir(root.tmp("42")).empty());
}

}  // namespace
