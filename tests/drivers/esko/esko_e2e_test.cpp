// The daemon reading three ESKO meters on one simulated line end to end: an MTR-06,
// a TM-3E and a second MTR-06 at another address, three identifiers sharing one port:
// current values, integrators and system data as items. (Archives are compared with
// the simulator's records in the ESKO fault run.)
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <cstdio>

#include "support/test_support.h"

namespace {

using namespace std::chrono_literals;

time_t Midnight(time_t t, int days = 0) {
  struct tm v;
  localtime_r(&t, &v);
  v.tm_hour = v.tm_min = v.tm_sec = 0;
  v.tm_mday += days;
  v.tm_isdst = -1;
  return mktime(&v);
}

long ReadNumber(const std::string& path) {
  std::string text = mcdtest::ReadFile(path);
  return text.empty() ? 0 : atol(text.c_str());
}

struct Meter {
  std::string id;
  int addr;
  const char* manufacturer;
  const char* sim;
  int hours, days;
};

const Meter kMeters[] = {{"101", 1, "esko-mtr-06", "mtr06", 6, 3},
                         {"102", 2, "esko-tm3", "tm3e", 3, 2},
                         {"103", 3, "esko-mtr-06", "mtr06", 4, 2}};

TEST(EskoDaemonEndToEnd, ThreeMetersOnOneLine) {
  mcdtest::TempRoot root;
  const std::string link = root.root() + "/esko.tty";
  std::string meters;
  for (const Meter& m : kMeters) {
    if (!meters.empty()) meters += ",";
    meters += "\"" + m.id + "\": {\"manufacturer\": \"" + m.manufacturer + "\", \"serial\": \"" +
              std::to_string(m.addr) + "\", \"period_current\": \"3600\", \"port_params\": {\"name\": \"" + link +
              "\", \"speed\": \"19200\"}, \"systems\": {\"system_1\": \"1\", \"system_2\": \"1\", \"system_3\": \"1\"}}";
  }
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start("{\"meters\": {" + meters + "}}"));

  std::vector<std::string> simArgs = {"/usr/bin/python3", mcdtest::SourcePath("tools/esko_sim.py"), "--link", link};
  for (const Meter& m : kMeters) {
    simArgs.push_back("--meter");
    simArgs.push_back(std::to_string(m.addr) + ":" + m.sim + ":" + std::to_string(m.hours) + ":" +
                      std::to_string(m.days) + (m.addr == 3 ? ":badpagecs" : ""));
  }
  mcdtest::ChildProcess sim;
  ASSERT_TRUE(sim.Start(simArgs));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(link); }, 10s));

  auto env = root.env();
  env["MCD_SERVER_URL"] = server.url();
  env["MCD_TIME_SCALE"] = "100";
  mcdtest::ChildProcess daemon;
  ASSERT_TRUE(daemon.Start({mcdtest::MainBinary(), "-e", "-v", "6", "-i", "101", "-i", "102", "-i", "103"}, env));

  const time_t now = time(nullptr);
  ASSERT_TRUE(mcdtest::WaitFor(
      [&] {
        for (const Meter& m : kMeters)
          if (ReadNumber(root.storage(m.id + "/timestamp_max_daily")) != Midnight(now, -1)) return false;
        return true;
      },
      90s))
      << daemon.Stderr();

  for (const Meter& m : kMeters) {
    const std::string items = root.tmp(m.id + "/");
    const double a = m.addr;
    for (int s = 0; s < 3; ++s) {
      const std::string dir = items + std::to_string(s + 1) + "/tc_items/";
      char text[64];
      EXPECT_EQ(mcdtest::ReadFile(dir + "Connected"), "1\n") << dir;
      snprintf(text, sizeof text, "%.16g\n", 10.5 + 10 * a + s);
      EXPECT_EQ(mcdtest::ReadFile(dir + "Q1"), text) << dir;
      snprintf(text, sizeof text, "%.16g\n", 70.5 + s + a);
      EXPECT_EQ(mcdtest::ReadFile(dir + "T1"), text) << dir;
      EXPECT_EQ(mcdtest::ReadFile(dir + "P1"), std::to_string(6 + s) + ".25\n") << dir;
      EXPECT_EQ(mcdtest::ReadFile(dir + "ER"), std::to_string(s) + "\n") << dir;
      // integrators
      snprintf(text, sizeof text, "%.12g\n", (10 * a + s) + 0.123456789);
      EXPECT_EQ(mcdtest::ReadFile(dir + "IE1"), text) << dir;
      // system values
      EXPECT_EQ(mcdtest::ReadFile(dir + "MeterManufacturer"), "ЗАО \"ЕСКО-3Э\"\n") << dir;
      EXPECT_EQ(mcdtest::ReadFile(dir + "MeterModel"), m.addr == 2 ? "ТМ-3Э\n" : "МТР-06\n") << dir;
      EXPECT_EQ(mcdtest::ReadFile(dir + "SerialNumber"), "2016000" + std::to_string(m.addr) + "\n") << dir;
      const char* scheme[] = {"Закрытый (Режим 1)\n", "Открытый (Режим 2)\n", "Расходомер (Режим 3)\n"};
      EXPECT_EQ(mcdtest::ReadFile(dir + "TSType"), scheme[s]) << dir;
    }
  }

  ASSERT_TRUE(daemon.Signal(SIGTERM));
  int status = -1;
  ASSERT_TRUE(daemon.Wait(60s, &status)) << daemon.Stderr();
  EXPECT_EQ(status, 0);
  sim.Signal(SIGTERM);
  sim.Wait(10s, &status);
}

}  // namespace
