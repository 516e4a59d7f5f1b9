// The daemon reading a simulated VKT-7 end to end: items, system values, hourly and
// daily archive lines and their bounds, then a restart that files only what came
// after the bounds. Every archive file is compared with the simulator's held-out list.
#include <gtest/gtest.h>
#include <json/json.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <fstream>

#include "drivers/base/value_text.h"
#include "support/test_support.h"
#include "vkt7_test_util.h"

namespace {

using namespace std::chrono_literals;

long ReadNumber(const std::string& path) {
  std::string text = mcdtest::ReadFile(path);
  return text.empty() ? 0 : atol(text.c_str());
}

// file below the meter's storage directory -> record time -> "value,quality"
using Tree = std::map<std::string, std::map<long, std::string>>;

// What the simulator says must be on file up to the bounds. Monthly records are filed
// one day after their own time.
Tree Expected(const std::string& heldOut, long hourBound, long dayBound) {
  std::ifstream in(heldOut);
  Json::Value root;
  in >> root;
  Tree out;
  for (const char* section : {"hourly", "daily", "monthly"}) {
    const Json::Value& records = root["0"][section];
    for (const auto& key : records.getMemberNames()) {
      const long t = std::stol(key);
      if (t > (std::string(section) == "hourly" ? hourBound : dayBound)) continue;
      for (const auto& file : records[key].getMemberNames())
        out[file][std::string(section) == "monthly" ? t + 86400 : t] =
            records[key][file][0].asString() + "," + std::to_string(records[key][file][1].asInt());
    }
  }
  return out;
}

// Every archive line on file; the times of each file must strictly increase.
Tree OnFile(const std::string& meterDir) {
  Tree out;
  for (const std::string dir : {"1/tc_archives/", "2/tc_archives/", "1/tc_tmp_archives/", "2/tc_tmp_archives/"}) {
    for (const std::string& name : mcdtest::ListDir(meterDir + dir)) {
      long last = 0;
      for (const std::string& line : mcdtest::ReadLines(meterDir + dir + name)) {
        const size_t a = line.find(','), b = line.find(',', a + 1);
        const long t = std::stol(line.substr(0, a));
        EXPECT_GT(t, last) << dir << name << ": " << line;
        last = t;
        out[dir + name][t] = line.substr(b + 1) + "," + line.substr(a + 1, b - a - 1);
      }
    }
  }
  return out;
}

class Vkt7Daemon {
 public:
  Vkt7Daemon(const mcdtest::TempRoot& root, const std::string& url) : m_root(root), m_url(url) {}

  void Start(const std::vector<std::string>& simOptions) {
    const std::string link = m_root.root() + "/vkt7.tty";
    std::vector<std::string> argv = {"/usr/bin/python3", mcdtest::SourcePath("tools/vkt7_sim.py"), "--link", link,
                                     "--held-out", m_root.root() + "/held.json"};
    argv.insert(argv.end(), simOptions.begin(), simOptions.end());
    ASSERT_TRUE(m_sim.Start(argv));
    ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(link); }, 10s));
    auto env = m_root.env();
    env["MCD_SERVER_URL"] = m_url;
    env["MCD_TIME_SCALE"] = "100";
    ASSERT_TRUE(m_daemon.Start({mcdtest::MainBinary(), "-e", "-v", "7", "-i", "71"}, env));
  }

  void Stop() {
    ASSERT_TRUE(m_daemon.Signal(SIGTERM));
    int status = -1;
    ASSERT_TRUE(m_daemon.Wait(60s, &status)) << Log();
    EXPECT_EQ(status, 0) << Log();
    m_sim.Signal(SIGTERM);
    m_sim.Wait(10s, &status);
  }

  std::string Log() const { return m_daemon.Stderr(); }

 private:
  const mcdtest::TempRoot& m_root;
  std::string m_url;
  mcdtest::ChildProcess m_sim;
  mcdtest::ChildProcess m_daemon;
};

TEST(Vkt7DaemonEndToEnd, ReadsTheMeterAndResumesAfterTheBounds) {
  mcdtest::TempRoot root;
  mcdtest::ConfigServer server;
  const std::string link = root.root() + "/vkt7.tty";
  const std::string config = R"({"meters": {"71": {
      "manufacturer": "vkt-7", "period_current": "3600",
      "port_params": {"name": ")" + link + R"(", "speed": "9600"},
      "systems": {"system_1": "1", "system_2": "1"}}}})";
  ASSERT_TRUE(server.Start(config));

  const time_t start = time(nullptr);
  const time_t firstHour = mcdtest::LocalHourStart(start) - 32 * 3600;
  const time_t firstDay = mcdtest::LocalMidnight(mcdtest::LocalMidnight(start) - 4 * 86400 + 7200);
  // The first run sees a meter clock 28 hours behind; the restart sees the real one.
  const long lag = 28 * 3600;
  const time_t lastHour1 = mcdtest::LocalHourStart(start - lag) - 3600;
  const time_t lastDay1 = mcdtest::LocalMidnight(mcdtest::LocalMidnight(start - lag) - 43200);
  const std::vector<std::string> bounds = {"--first-hour", std::to_string(firstHour), "--first-day",
                                           std::to_string(firstDay)};
  const std::string hourlyBound = root.storage("71/timestamp_max_hourly");
  const std::string dailyBound = root.storage("71/timestamp_max_daily");

  {
    Vkt7Daemon run(root, server.url());
    std::vector<std::string> options = bounds;
    options.push_back("--clock-offset");
    options.push_back(std::to_string(-lag));
    run.Start(options);
    ASSERT_TRUE(mcdtest::WaitFor(
        [&] { return ReadNumber(hourlyBound) == lastHour1 && ReadNumber(dailyBound) == lastDay1; }, 60s))
        << run.Log();

    // current values, the link state and the system values under every system
    const std::string items1 = root.tmp("71/1/tc_items/");
    const std::string items2 = root.tmp("71/2/tc_items/");
    EXPECT_EQ(mcdtest::ReadFile(items1 + "Connected"), "1\n");
    EXPECT_EQ(mcdtest::ReadFile(items1 + "T1"), "51.23\n");
    EXPECT_EQ(mcdtest::ReadFile(items2 + "T1"), "52.23\n");
    EXPECT_EQ(mcdtest::ReadFile(items1 + "P1"), "6.12\n");
    EXPECT_EQ(mcdtest::ReadFile(items1 + "Q1"), "12.5\n");
    EXPECT_EQ(mcdtest::ReadFile(items2 + "T3"), "12.34\n");  // system 0's t3, copied
    EXPECT_EQ(mcdtest::ReadFile(items1 + "IQ1"), mcd::StreamText(1234.567) + "\n");
    EXPECT_EQ(mcdtest::ReadFile(items1 + "F1C"), "0\n");
    EXPECT_EQ(mcdtest::ReadFile(items2 + "F2C"), "0\n");
    for (const std::string& items : {items1, items2}) {
      EXPECT_EQ(mcdtest::ReadFile(items + "MeterManufacturer"), "ООО \"Теплоком\"\n") << items;
      EXPECT_EQ(mcdtest::ReadFile(items + "MeterModel"), "ВКТ-7\n") << items;
      EXPECT_EQ(mcdtest::ReadFile(items + "Firmware"), "2.7.3\n") << items;
      EXPECT_EQ(mcdtest::ReadFile(items + "TSType"), "0x12\n") << items;
    }

    run.Stop();
  }
  const Tree first = OnFile(root.storage("71/"));
  EXPECT_EQ(first, Expected(root.root() + "/held.json", lastHour1, lastDay1));
  EXPECT_EQ(first.at("1/tc_archives/A20").size(), static_cast<size_t>((lastHour1 - firstHour) / 3600 + 1));

  // Restart after the hold-off between two connections has passed.
  unlink(root.tmp("71/timestamp_VKT7").c_str());
  {
    Vkt7Daemon run(root, server.url());
    run.Start(bounds);
    ASSERT_TRUE(mcdtest::WaitFor(
        [&] {
          const time_t now = time(nullptr);
          return ReadNumber(hourlyBound) == mcdtest::LocalHourStart(now) - 3600 &&
                 ReadNumber(dailyBound) == mcdtest::LocalMidnight(mcdtest::LocalMidnight(now) - 43200);
        },
        60s))
        << run.Log();
    run.Stop();
    EXPECT_NE(run.Log().find("Cmcd_VKT7::SendDataForArch3 - Asking data"), std::string::npos);
  }
  const time_t lastHour2 = ReadNumber(hourlyBound);
  const time_t lastDay2 = ReadNumber(dailyBound);
  EXPECT_GT(lastHour2, lastHour1);
  EXPECT_GT(lastDay2, lastDay1);
  EXPECT_EQ(OnFile(root.storage("71/")), Expected(root.root() + "/held.json", lastHour2, lastDay2));
}

}  // namespace
