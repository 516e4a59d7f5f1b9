// The JSON-RPC transport and the configuration requests, against a real local server.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <memory>
#include <thread>

#include "log/logger.h"
#include "server/jsonrpc_connector.h"
#include "server_test_util.h"

using mcdtest::FileExists;
using mcdtest::ListDir;

namespace {

class JsonRpcTest : public ::testing::Test {
 protected:
  void TearDown() override {
    unsetenv("MCD_SERVER_URL");
    mcd::paths::Reset();
  }
  void StartServer(const std::string& config, const std::vector<std::string>& options = {}) {
    ASSERT_TRUE(server.Start(config, 0, options));
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
  "vkt9": {"manufacturer": "vkt-9"},
  "vkt9p": {"manufacturer": "vkt-9", "period_current": "60"},
  "tem": {"manufacturer": "tem-104"},
  "temp": {"manufacturer": "tem-104", "period_current": "60"},
  "empty": {"manufacturer": ""},
  "typed": {"manufacturer": "km-5", "period_current": 60, "flag": true, "list": [1, 2], "nested": {"a": "b"}},
  "zero": {"manufacturer": "esko", "systems": {"system_0": "x"}}
}})";

// Answers each HTTP request on a loopback port with the next canned answer (the last
// one repeats), with or without a Content-Length header.
struct Canned {
  std::string body;
  bool withLength = true;
};
class CannedServer {
 public:
  explicit CannedServer(std::vector<Canned> answers) : m_answers(std::move(answers)) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(m_fd, 8) != 0 ||
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      ADD_FAILURE() << "no loopback listener";
    m_port = ntohs(addr.sin_port);
    m_thread = std::thread([this] {
      for (int c; (c = accept(m_fd, nullptr, nullptr)) >= 0; close(c)) {
        std::string in;
        char buf[4096];
        for (ssize_t n; (n = read(c, buf, sizeof buf)) > 0;) {
          in.append(buf, static_cast<size_t>(n));
          const size_t head = in.find("\r\n\r\n"), length = in.find("Content-Length: ");
          if (head != std::string::npos && length != std::string::npos &&
              in.size() >= head + 4 + std::stoul(in.substr(length + 16)))
            break;
        }
        const Canned& answer = m_answers[std::min<size_t>(m_count++, m_answers.size() - 1)];
        std::string reply = "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n";
        if (answer.withLength) reply += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
        reply += "\r\n" + answer.body;
        for (size_t at = 0, n; at < reply.size(); at += n)
          if ((n = static_cast<size_t>(std::max<ssize_t>(0, write(c, reply.data() + at, reply.size() - at)))) == 0) break;
      }
    });
  }
  ~CannedServer() {
    shutdown(m_fd, SHUT_RDWR);  // wakes accept
    m_thread.join();
    close(m_fd);
  }
  std::string url() const { return "http://127.0.0.1:" + std::to_string(m_port) + "/"; }
  int requests() const { return m_count.load(); }

 private:
  int m_fd = socket(AF_INET, SOCK_STREAM, 0);
  int m_port = 0;
  std::vector<Canned> m_answers;
  std::atomic<int> m_count{0};
  std::thread m_thread;
};

std::string Link(const std::string& path) {
  char target[512] = {0};
  return readlink(path.c_str(), target, sizeof target - 1) > 0 ? target : "";
}

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
  EXPECT_EQ(out.find(query1 + "result JSONRPC{"), 0u) << out;
  size_t query2 = out.find("\nCJSONRPCConnector::ExecJSONRPCFunc query is " + second + "\n\nresult JSONRPC{");
  EXPECT_NE(query2, std::string::npos) << out;
  EXPECT_EQ(out.back(), '\n');
}

TEST_F(JsonRpcTest, GetConfigParsing) {
  StartServer(kMeters);
  CJSONRPCConnector connector("7", 0);
  std::list<PortConfig> ports = connector.GetInitParameters1();
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports.front().portParams, (ParamMap{{"name", "/dev/ttyS1"}, {"protocol", "uart"}, {"speed", "9600"}}));
  EXPECT_EQ(ports.front().drivers,
            (std::list<ParamMap>{{{"address", "1"}, {"manufacturer", "vkt-7"}, {"period_current", "5400"}}}));
  // system_1 and system_2 are present, system_3 has an empty value.
  EXPECT_EQ(connector.GetDefaultSystem(), 0);
  EXPECT_EQ(ListDir(root.tmp("7")), (std::vector<std::string>{"1", "2", "default"}));
  EXPECT_EQ(ListDir(root.storage("7")), (std::vector<std::string>{"1", "2", "default"}));
  EXPECT_TRUE(FileExists(root.tmp("7/2/tc_items")));
  EXPECT_TRUE(FileExists(root.storage("7/2/tc_archives")));
  EXPECT_EQ(Link(root.tmp("7/default")), root.tmp("7/1"));

  // "period_current" is defaulted only when missing.
  const std::map<std::string, ParamMap> drivers = {
      {"vkt9", {{"manufacturer", "vkt-9"}, {"period_current", "5400"}}},
      {"tem", {{"manufacturer", "tem-104"}, {"period_current", "20"}}},
      {"temp", {{"manufacturer", "tem-104"}, {"period_current", "60"}}},
      // Numbers and booleans become text; arrays and objects are skipped.
      {"typed", {{"flag", "true"}, {"manufacturer", "km-5"}, {"period_current", "60"}}}};
  for (const auto& meter : drivers) {
    CJSONRPCConnector other(meter.first, 0);
    ports = other.GetInitParameters1();
    ASSERT_EQ(ports.size(), 1u) << meter.first;
    EXPECT_TRUE(ports.front().portParams.empty()) << meter.first;
    EXPECT_EQ(ports.front().drivers, std::list<ParamMap>{meter.second}) << meter.first;
  }

  // Digit 0 registers system 0 (directory "1") and lowers the default system to -1, so no
  // "default" link is made for it.
  CJSONRPCConnector zero("zero", 0);
  zero.GetInitParameters1();
  EXPECT_EQ(zero.GetDefaultSystem(), -1);
  EXPECT_EQ(ListDir(root.tmp("zero")), std::vector<std::string>{"1"});
  EXPECT_EQ(ListDir(root.storage("zero")), std::vector<std::string>{"1"});
}

TEST_F(JsonRpcTest, GetConfig2OverridesTheVktPeriod) {
  StartServer(R"({"get_config2": [
    {"port_params": {"name": "/dev/ttyS1"},
     "drivers": [{"manufacturer": "vkt-7", "period_current": "60"}, {"manufacturer": "tem-104", "period_current": "60"},
                 {"manufacturer": "tem-104"}, {"manufacturer": "vkt-9"}]},
    {"drivers": [{"manufacturer": "esko"}]},
    {"port_params": {"name": "/dev/ttyS2"}}]})");
  CJSONRPCConnector connector("1", 0);
  std::list<PortConfig> ports = connector.GetInitParameters2();
  ASSERT_EQ(ports.size(), 3u);
  auto it = ports.begin();
  EXPECT_EQ(it->portParams, (ParamMap{{"name", "/dev/ttyS1"}}));
  std::vector<std::string> periods;
  for (const ParamMap& driver : it->drivers) periods.push_back(driver.at("period_current"));
  EXPECT_EQ(periods, (std::vector<std::string>{"5400", "60", "20", "5400"}));
  ++it;
  EXPECT_TRUE(it->portParams.empty());
  EXPECT_EQ(it->drivers, (std::list<ParamMap>{{{"manufacturer", "esko"}, {"period_current", "20"}}}));
  ++it;
  EXPECT_EQ(it->portParams, (ParamMap{{"name", "/dev/ttyS2"}}));
  EXPECT_TRUE(it->drivers.empty());
}

TEST_F(JsonRpcTest, ServerDownThenNotJsonIsRetriedEveryFiveSecondsWithTheSameId) {
  mcdtest::FakeClock clock;
  const int port = mcdtest::FreeLoopbackPort();
  servertest::UseServer("http://127.0.0.1:" + std::to_string(port) + "/");
  // nothing listens yet; the server comes up during the second wait, answering the
  // first two requests with text that is not JSON
  clock.onSleep = [&](time_t) {
    if (clock.sleeps() == 2) {
      ASSERT_TRUE(server.Start(kMeters, port, {"--garbage", "2"}));
    }
  };
  CJSONRPCConnector connector("tem", 0);
  testing::internal::CaptureStdout();
  std::list<PortConfig> ports = connector.GetInitParameters1();
  const std::string out = testing::internal::GetCapturedStdout();
  ASSERT_EQ(ports.size(), 1u);
  EXPECT_EQ(ports.front().drivers.front().at("manufacturer"), "tem-104");
  EXPECT_EQ(clock.Slept(), (std::vector<unsigned>{5, 5, 5, 5}));
  const std::string first = R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"tem"}})";
  EXPECT_EQ(server.Requests(), (std::vector<std::string>{first, first, first}));
  EXPECT_NE(out.find("result JSONRPCthis is not json\n"), std::string::npos) << out;
  EXPECT_EQ(log.Count("CJSONRPCConnector::SendParameters - Error while sending data! retry!!! wait 5 sec. "
                      "Error code - 7"), 2u) << log.Text();
  EXPECT_EQ(log.Count("CJSONRPCConnector::SendParameters - Error while parsing data! retry!!! wait 5 sec"), 2u);
  EXPECT_EQ(log.Count("Response String - this is not json"), 2u);
  connector.GetInitParameters2();
  EXPECT_EQ(server.Requests().back(), R"({"id":2,"jsonrpc":"2.0","method":"get_config2"})");
}

TEST_F(JsonRpcTest, AnswersWithoutTheMeterAreFailedAttempts) {
  mcdtest::FakeClock clock;
  const std::string huge = R"({"jsonrpc":"2.0","id":1,"result":{"manufacturer":")" + std::string(1100000, 'x') + "\"}}";
  CannedServer canned({{R"({"jsonrpc":"2.0","id":1,"error":{"code":-32000,"message":"busy"}})"},
                       {R"({"jsonrpc":"2.0","id":2})"},
                       {R"({"jsonrpc":"2.0","id":3,"result":{}})"},
                       {huge, true},
                       {huge, false},
                       {R"({"jsonrpc":"2.0","id":6,"result":{"manufacturer":"tem-104"}})"}});
  servertest::UseServer(canned.url());
  CJSONRPCConnector connector("tem", 0);
  testing::internal::CaptureStdout();
  std::list<PortConfig> ports = connector.GetInitParameters1();
  std::string out = testing::internal::GetCapturedStdout();

  ASSERT_EQ(ports.size(), 1u);
  // (compared without printing: a wrongly accepted answer holds a megabyte)
  EXPECT_TRUE(ports.front().drivers.front().at("manufacturer") == "tem-104");
  EXPECT_EQ(canned.requests(), 6);
  // 5 s after an error answer, one without "result" and each refused one; 60 s while the
  // server knows no such meter
  EXPECT_EQ(clock.Slept(), (std::vector<unsigned>{5, 5, 60, 5, 5}));
  const std::string text = log.Text();
  const std::string retry = "CJSONRPCConnector::GetInitParameters1 - retry in ";
  EXPECT_NE(text.find(retry + "5 sec: " + canned.url() + ": error -32000 busy"), std::string::npos) << text;
  EXPECT_NE(text.find(retry + "5 sec: " + canned.url() + ": no \"result\" in the answer"), std::string::npos) << text;
  EXPECT_NE(text.find(retry + "60 sec: " + canned.url() + ": no entry for heat meter tem"), std::string::npos) << text;
  EXPECT_EQ(log.Count("answered over 1048576 bytes, refused!"), 2u) << text;
  // nothing of the refused answers reaches standard output
  EXPECT_LT(out.size(), 4096u);
}

TEST_F(JsonRpcTest, AStopEndsTheRetries) {
  mcdtest::FakeClock clock;
  servertest::UseServer("http://127.0.0.1:" + std::to_string(mcdtest::FreeLoopbackPort()) + "/");
  clock.onSleep = [](time_t) { mcd::RequestStop(); };
  CJSONRPCConnector connector("tem", 0);
  EXPECT_TRUE(connector.GetInitParameters1().empty());
  EXPECT_EQ(clock.sleeps(), 1);
  mcd::ClearStopRequest();
}

}  // namespace
