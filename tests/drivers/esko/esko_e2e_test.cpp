// The daemon reading an MTR-06 (pages with a wrong page sum) and a TM-3E on one
// simulated line: current values, integrators and system data as items, daily archives
// up to yesterday. (Archive lines are compared with the simulator's in the fault run.)
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>

#include "support/test_support.h"

using namespace std::chrono_literals;

TEST(EskoDaemonEndToEnd, TwoMetersOnOneLine) {
  mcdtest::TempRoot root;
  const std::string link = root.root() + "/esko.tty";
  std::string meters;
  for (const char* m : {"\"101\": {\"manufacturer\": \"esko-mtr-06\", \"serial\": \"1\"",
                        "\"102\": {\"manufacturer\": \"esko-tm3\", \"serial\": \"2\""})
    meters +=
        std::string(meters.empty() ? "" : ", ") + m + ", \"period_current\": \"3600\", \"port_params\": {\"name\": \"" +
        link +
        "\", \"speed\": \"19200\"}, \"systems\": {\"system_1\": \"1\", \"system_2\": \"1\", \"system_3\": \"1\"}}";
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start("{\"meters\": {" + meters + "}}"));
  mcdtest::ChildProcess sim;
  ASSERT_TRUE(sim.Start({"/usr/bin/python3", mcdtest::SourcePath("tools/esko_sim.py"), "--link", link, "--meter",
                         "1:mtr06:3:2:badpagecs", "--meter", "2:tm3e:3:2"}));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(link); }, 10s));
  auto env = root.env();
  env["MCD_SERVER_URL"] = server.url();
  env["MCD_TIME_SCALE"] = "100";
  mcdtest::ChildProcess daemon;
  ASSERT_TRUE(daemon.Start({mcdtest::MainBinary(), "-e", "-v", "6", "-i", "101", "-i", "102"}, env));
  const long yesterday = static_cast<long>(mcdtest::LocalMidnight(mcdtest::LocalMidnight(time(nullptr)) - 1));
  auto filed = [&](const char* id) { return atol(mcdtest::ReadFile(root.storage(id)).c_str()); };
  ASSERT_TRUE(mcdtest::WaitFor(
      [&] { return filed("101/timestamp_max_daily") == yesterday && filed("102/timestamp_max_daily") == yesterday; },
      90s))
      << daemon.Stderr();
  for (int a = 1; a <= 2; ++a) {
    for (int s = 0; s < 3; ++s) {
      const std::string dir = root.tmp(std::to_string(100 + a) + "/" + std::to_string(s + 1) + "/tc_items/");
      char q1[32], ie1[32];
      snprintf(q1, sizeof q1, "%.16g\n", 10.5 + 10 * a + s);
      snprintf(ie1, sizeof ie1, "%.12g\n", (10 * a + s) + 0.123456789);
      EXPECT_EQ(mcdtest::ReadFile(dir + "Q1"), q1) << dir;
      EXPECT_EQ(mcdtest::ReadFile(dir + "IE1"), ie1) << dir;
      EXPECT_EQ(mcdtest::ReadFile(dir + "MeterModel"), a == 2 ? "ТМ-3Э\n" : "МТР-06\n") << dir;
      EXPECT_EQ(mcdtest::ReadFile(dir + "DN1"), s == 0 ? "50\n" : s == 1 ? "80\n" : "100\n") << dir;  // high byte first
    }
    EXPECT_EQ(mcdtest::ReadFile(root.tmp(std::to_string(100 + a) + "/2/tc_items/TSType")), "Открытый (Режим 2)\n");
  }
  int status = -1;
  EXPECT_TRUE(daemon.Signal(SIGTERM) && daemon.Wait(60s, &status) && status == 0) << daemon.Stderr();
}
