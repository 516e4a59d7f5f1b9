// The three upload requests: exact bytes, skipped records and id numbering.
#include "server/jsonrpc_connector.h"
#include "server_test_util.h"

using servertest::Value;
typedef std::vector<std::string> Lines;

namespace {

class PublishTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(server.Start("{}"));
    servertest::UseServer(server.url());
  }
  void TearDown() override {
    unsetenv("MCD_SERVER_URL");
    mcd::paths::Reset();
  }
  mcdtest::TempRoot root;
  mcdtest::ConfigServer server;
};

// Q1 of system 1 with error 0xff, a pair without a name, T3 of system 0 with error 0.
const ParamValueList kSample = {Value(0, 0, "1.5", 1500000000, 1, 192, 0xff, "m3/h"), Value(16, 0, "9", 1),
                                Value(8, 0, "71.25", 1500000002, 0, 0, 0, "C")};

TEST_F(PublishTest, AllCurrentValuesInOneRequest) {
  CJSONRPCConnector connector("7", 0);
  EXPECT_TRUE(connector.SendAllCurrentValues(kSample));
  // Nothing known: one request without "params".
  EXPECT_TRUE(connector.SendAllCurrentValues({}));
  EXPECT_TRUE(connector.SendAllCurrentValues({Value(16, 0, "1", 1), Value(1, 6, "2", 2)}));
  EXPECT_EQ(server.Requests(),
            (Lines{R"({"id":1,"jsonrpc":"2.0","method":"put_all_current_values","params":[)"
                   R"({"dim":"m3/h","error":"ff","name":"Q1","quality":192,"sys":"1","timestamp":1500000000,"value":"1.5"},)"
                   R"({"dim":"C","error":"0","name":"T3","quality":0,"sys":"0","timestamp":1500000002,"value":"71.25"}]})",
                   R"({"id":2,"jsonrpc":"2.0","method":"put_all_current_values"})",
                   R"({"id":3,"jsonrpc":"2.0","method":"put_all_current_values"})"}));
}

TEST_F(PublishTest, CurrentValueSendsOneRequestPerRecordWithItsOwnId) {
  CJSONRPCConnector connector("7", 0);
  testing::internal::CaptureStdout();
  EXPECT_TRUE(connector.SendParameters_right(kSample));
  std::string out = testing::internal::GetCapturedStdout();
  const Lines expected = {
      R"({"id":1,"jsonrpc":"2.0","method":"put_current_value","params":{"opc_quality":192,"timestamp":1500000000,"value":"1.5","value_name":"Q1"}})",
      R"({"id":2,"jsonrpc":"2.0","method":"put_current_value","params":{"opc_quality":0,"timestamp":1500000002,"value":"71.25","value_name":"T3"}})"};
  EXPECT_EQ(server.Requests(), expected);
  EXPECT_EQ(out.find("CJSONRPCConnector::SendParameters_right query is " + expected[0] + "\n\nresult JSONRPC"), 0u)
      << out;
  // An empty list sends nothing and takes no id.
  EXPECT_TRUE(connector.SendParameters_right({}));
  EXPECT_EQ(server.Requests().size(), 2u);
  EXPECT_EQ(connector.GetRequestId(), 3);
}

TEST_F(PublishTest, OneValueSharesOneIdPerCall) {
  CJSONRPCConnector connector("7", 0);
  ParamValueList list = kSample;
  list.push_back(Value(46, 7, "1", 1500000003, 2, 1, 31));
  testing::internal::CaptureStdout();
  EXPECT_TRUE(connector.SendParameters2(list));
  EXPECT_TRUE(connector.SendParameters2({Value(0, 0, "2", 5)}));
  std::string out = testing::internal::GetCapturedStdout();
  const Lines expected = {
      R"({"id":1,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"m3/h","error":"ff","opc_quality":192,"sys":"1","timestamp":1500000000,"value":"1.5","value_name":"Q1"}})",
      R"({"id":1,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"C","error":"0","opc_quality":0,"sys":"0","timestamp":1500000002,"value":"71.25","value_name":"T3"}})",
      R"({"id":1,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"","error":"1f","opc_quality":1,"sys":"2","timestamp":1500000003,"value":"1","value_name":"Connected"}})",
      R"({"id":2,"jsonrpc":"2.0","method":"put_one_value","params":{"dim":"","error":"0","opc_quality":192,"sys":"0","timestamp":5,"value":"2","value_name":"Q1"}})"};
  EXPECT_EQ(server.Requests(), expected);
  EXPECT_EQ(out.find("CJSONRPCConnector::SendParameters2 query is " + expected[0] + "\n\nresult JSONRPC"), 0u) << out;
  // Even a call that sends nothing uses up its id.
  EXPECT_TRUE(connector.SendParameters2({}));
  EXPECT_EQ(server.Requests().size(), 4u);
  EXPECT_EQ(connector.GetRequestId(), 4);
}

}  // namespace
