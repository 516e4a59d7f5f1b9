// Configuration requests and uploads against a real local server: bytes, ids, output, retries.
#include "server/jsonrpc_connector.h"
#include "server_test_util.h"

using servertest::Value;
typedef std::vector<std::string> Lines;

namespace {

class JsonRpcTest : public ::testing::Test {
 protected:
  void TearDown() override { servertest::UseServer(""); }
  void StartServer(const std::string& config) {
    ASSERT_TRUE(server.Start(config));
    servertest::UseServer(server.url());
  }
  mcdtest::TempRoot root;
  mcdtest::ConfigServer server;
  mcdtest::LogCapture log;
};

const char* const kMeters = R"({"meters": {
  "7": {"manufacturer": "vkt-7", "address": "1",
        "port_params": {"name": "/dev/ttyS1", "speed": "9600", "protocol": "uart"},
        "systems": {"system_1": "heating", "system_2": "water", "system_3": ""}},
  "tem": {"manufacturer": "tem-104"},
  "temp": {"manufacturer": "tem-104", "period_current": "60"},
  "typed": {"manufacturer": "km-5", "period_current": 60, "flag": true, "list": [1, 2], "nested": {"a": "b"}},
  "vkt9": {"manufacturer": "vkt-9"}},
 "get_config2": [
    {"port_params": {"name": "/dev/ttyS1"},
     "drivers": [{"manufacturer": "vkt-7", "period_current": "60"}, {"manufacturer": "tem-104", "period_current": "60"},
                 {"manufacturer": "tem-104"}, {"manufacturer": "vkt-9"}]},
    {"drivers": [{"manufacturer": "esko"}]}]})";

TEST_F(JsonRpcTest, ConfigRequestsTheirBytesIdsOutputAndParsing) {
  StartServer(kMeters);
  CJSONRPCConnector connector("7", 0);
  testing::internal::CaptureStdout();
  std::list<PortConfig> ports = connector.GetInitParameters1();
  std::list<PortConfig> ports2 = connector.GetInitParameters2();
  const std::string out = testing::internal::GetCapturedStdout();
  const std::string first = R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"7"}})";
  const std::string second = R"({"id":2,"jsonrpc":"2.0","method":"get_config2"})";
  ASSERT_EQ(server.Requests(), (Lines{first, second}));
  // The request text ends with its own newline and the line adds one more.
  EXPECT_EQ(out.find("CJSONRPCConnector::ExecJSONRPCFunc query is " + first + "\n\nresult JSONRPC{"), 0u) << out;

  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports.front().portParams, (ParamMap{{"name", "/dev/ttyS1"}, {"protocol", "uart"}, {"speed", "9600"}}));
  EXPECT_EQ(ports.front().drivers,
            (std::list<ParamMap>{{{"address", "1"}, {"manufacturer", "vkt-7"}, {"period_current", "5400"}}}));
  // system_1 and system_2 are present, system_3 has an empty value.
  EXPECT_EQ(connector.GetDefaultSystem(), 0);
  EXPECT_EQ(mcdtest::ListDir(root.tmp("7")), (Lines{"1", "2", "default"}));
  EXPECT_EQ(mcdtest::ListDir(root.storage("7")), (Lines{"1", "2", "default"}));

  // "period_current" is defaulted only when missing, and the VKT period is always 5400.
  const std::map<std::string, ParamMap> drivers = {
      {"vkt9", {{"manufacturer", "vkt-9"}, {"period_current", "5400"}}},
      {"tem", {{"manufacturer", "tem-104"}, {"period_current", "20"}}},
      {"temp", {{"manufacturer", "tem-104"}, {"period_current", "60"}}},
      // Numbers and booleans become text; arrays and objects are skipped.
      {"typed", {{"flag", "true"}, {"manufacturer", "km-5"}, {"period_current", "60"}}}};
  for (const auto& meter : drivers) {
    ports = CJSONRPCConnector(meter.first, 0).GetInitParameters1();
    ASSERT_EQ(ports.size(), 1u) << meter.first;
    EXPECT_TRUE(ports.front().portParams.empty()) << meter.first;
    EXPECT_EQ(ports.front().drivers, std::list<ParamMap>{meter.second}) << meter.first;
  }
  ASSERT_EQ(ports2.size(), 2u);
  EXPECT_EQ(ports2.front().portParams, (ParamMap{{"name", "/dev/ttyS1"}}));
  Lines periods;
  for (const ParamMap& driver : ports2.front().drivers) periods.push_back(driver.at("period_current"));
  EXPECT_EQ(periods, (Lines{"5400", "60", "20", "5400"}));
  EXPECT_EQ(ports2.back().drivers, (std::list<ParamMap>{{{"manufacturer", "esko"}, {"period_current", "20"}}}));
}

TEST_F(JsonRpcTest, ServerDownThenNotJsonIsRetriedEveryFiveSecondsWithTheSameId) {
  mcdtest::FakeClock clock;
  const int port = mcdtest::FreeLoopbackPort();
  servertest::UseServer("http://127.0.0.1:" + std::to_string(port) + "/");
  // nothing listens yet; the server comes up during the second wait, answering the
  // first two requests with text that is not JSON
  bool started = false;
  clock.onSleep = [&](time_t) {
    if (clock.sleeps() == 2) started = server.Start(kMeters, port, {"--garbage", "2"});
  };
  CJSONRPCConnector connector("tem", 0);
  testing::internal::CaptureStdout();
  std::list<PortConfig> ports = connector.GetInitParameters1();
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_TRUE(started);
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports.front().drivers.front().at("manufacturer"), "tem-104");
  EXPECT_EQ(clock.Slept(), (std::vector<unsigned>{5, 5, 5, 5}));
  const std::string first = R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"tem"}})";
  EXPECT_EQ(server.Requests(), (Lines{first, first, first}));
  EXPECT_NE(out.find("result JSONRPCthis is not json\n"), std::string::npos) << out;
  EXPECT_EQ(log.Count("CJSONRPCConnector::SendParameters - Error while sending data! retry!!! wait 5 sec. "
                      "Error code - 7"), 2u) << log.Text();
  EXPECT_EQ(log.Count("CJSONRPCConnector::SendParameters - Error while parsing data! retry!!! wait 5 sec"), 2u);
  // A stop ends the retries.
  servertest::UseServer("http://127.0.0.1:" + std::to_string(mcdtest::FreeLoopbackPort()) + "/");
  clock.onSleep = [](time_t) { mcd::RequestStop(); };
  EXPECT_TRUE(connector.GetInitParameters1().empty());
  EXPECT_EQ(clock.sleeps(), 5);
  mcd::ClearStopRequest();
}

// Q1 of system 1 with error 0xff, a pair without a name, T3 of system 0 with error 0.
const ParamValueList kSample = {Value(0, 0, "1.5", 1500000000, 1, 192, 0xff, "m3/h"), Value(16, 0, "9", 1),
                                Value(8, 0, "71.25", 1500000002, 0, 0, 0, "C")};

TEST_F(JsonRpcTest, UploadsTheirBytesAndIds) {
  StartServer("{}");
  CJSONRPCConnector connector("7", 0);
  EXPECT_TRUE(connector.SendAllCurrentValues(kSample));
  EXPECT_TRUE(connector.SendAllCurrentValues({Value(16, 0, "1", 1), Value(1, 6, "2", 2)}));  // no "params"
  testing::internal::CaptureStdout();
  // One request per record, each with its own id; an empty list sends nothing, takes no id.
  EXPECT_TRUE(connector.SendParameters_right(kSample));
  EXPECT_TRUE(connector.SendParameters_right({}));
  // One id per call, shared by its records, used up even when nothing is sent.
  ParamValueList list = kSample;
  list.push_back(Value(46, 7, "1", 1500000003, 2, 1, 31));
  EXPECT_TRUE(connector.SendParameters2(list));
  EXPECT_TRUE(connector.SendParameters2({}));
  EXPECT_TRUE(connector.SendParameters2({Value(0, 0, "2", 5)}));
  const std::string out = testing::internal::GetCapturedStdout();
  const Lines expected = {
      R"({"id":1,"jsonrpc":"2.0","method":"put_all_current_values","params":[)"
      R"({"dim":"m3/h","error":"ff","name":"Q1","quality":192,"sys":"1","timestamp":1500000000,"value":"1.5"},)"
      R"({"dim":"C","error":"0","name":"T3","quality":0,"sys":"0","timestamp":1500000002,"value":"71.25"}]})",
      R"({"id":2,"jsonrpc":"2.0","method":"put_all_current_values"})",
      R"({"id":3,"jsonrpc":"2.0","method":"put_current_value","params":{"opc_quality":192,"timestamp":1500000000,"value":"1.5","value_name":"Q1"}})",
      R"({"id":4,"jsonrpc":"2.0","method":"put_current_value","params":{"opc_quality":0,"timestamp":1500000002,"value":"71.25","value_name":"T3"}})",
      R"({"id":5,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"m3/h","error":"ff","opc_quality":192,"sys":"1","timestamp":1500000000,"value":"1.5","value_name":"Q1"}})",
      R"({"id":5,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"C","error":"0","opc_quality":0,"sys":"0","timestamp":1500000002,"value":"71.25","value_name":"T3"}})",
      R"({"id":5,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"","error":"1f","opc_quality":1,"sys":"2","timestamp":1500000003,"value":"1","value_name":"Connected"}})",
      R"({"id":7,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"","error":"0","opc_quality":192,"sys":"0","timestamp":5,"value":"2","value_name":"Q1"}})"};
  EXPECT_EQ(server.Requests(), expected);
  EXPECT_EQ(out.find("CJSONRPCConnector::SendParameters_right query is " + expected[2] + "\n\nresult JSONRPC"), 0u)
      << out;
}

}  // namespace
