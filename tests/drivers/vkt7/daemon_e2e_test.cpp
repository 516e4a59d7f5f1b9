// The daemon reading a simulated VKT-7 end to end: items, system values, hourly and
// daily archive lines and their bounds, then a restart that files only what came
// after the bounds.
#include <gtest/gtest.h>

#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <set>

#include "drivers/base/value_text.h"
#include "support/test_support.h"
#include "vkt7_test_util.h"

namespace {

using namespace std::chrono_literals;

long ReadNumber(const std::string& path) {
  std::string text = mcdtest::ReadFile(path);
  return text.empty() ? 0 : atol(text.c_str());
}

// Checks an archive file: one line per record from first to last by step, each
// "time,192,value" with the simulator's value, no gap and no duplicate.
void ExpectArchive(const std::string& path, time_t first, time_t last, long step, int base, int digits) {
  std::vector<std::string> lines = mcdtest::ReadLines(path);
  ASSERT_EQ(static_cast<long>(lines.size()), (last - first) / step + 1) << path;
  for (size_t i = 0; i < lines.size(); ++i) {
    const time_t t = first + static_cast<time_t>(i) * step;
    EXPECT_EQ(lines[i], std::to_string(t) + ",192," + vkt7test::SimValue(base, t / step, digits)) << path << " line " << i;
  }
}

class Vkt7Daemon {
 public:
  Vkt7Daemon(const mcdtest::TempRoot& root, const std::string& url) : m_root(root), m_url(url) {}

  void Start(const std::vector<std::string>& simOptions) {
    const std::string link = m_root.root() + "/vkt7.tty";
    std::vector<std::string> argv = {"/usr/bin/python3", mcdtest::SourcePath("tools/vkt7_sim.py"), "--link", link};
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
  const std::string archives1 = root.storage("71/1/tc_archives/");
  const std::string archives2 = root.storage("71/2/tc_archives/");

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

    ExpectArchive(archives1 + "A20", firstHour, lastHour1, 3600, 5123, 2);
    ExpectArchive(archives2 + "A20", firstHour, lastHour1, 3600, 5223, 2);
    ExpectArchive(archives1 + "A48", firstDay, lastDay1, 86400, 5123, 2);
    EXPECT_EQ(mcdtest::ReadLines(archives1 + "A28").size(), mcdtest::ReadLines(archives1 + "A20").size());
    run.Stop();
  }
  const std::vector<std::string> hourly1 = mcdtest::ReadLines(archives1 + "A20");
  const std::vector<std::string> daily1 = mcdtest::ReadLines(archives1 + "A48");

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
  ExpectArchive(archives1 + "A20", firstHour, lastHour2, 3600, 5123, 2);
  ExpectArchive(archives2 + "A20", firstHour, lastHour2, 3600, 5223, 2);
  ExpectArchive(archives1 + "A48", firstDay, lastDay2, 86400, 5123, 2);
  // what the first run filed is left as it was
  std::vector<std::string> hourly2 = mcdtest::ReadLines(archives1 + "A20");
  std::vector<std::string> daily2 = mcdtest::ReadLines(archives1 + "A48");
  EXPECT_TRUE(std::equal(hourly1.begin(), hourly1.end(), hourly2.begin()));
  EXPECT_TRUE(std::equal(daily1.begin(), daily1.end(), daily2.begin()));
}

}  // namespace
