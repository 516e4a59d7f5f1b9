// The daemon with a meter of unknown make: the real binary warns once that nothing is
// read, files the link state 0 and stops cleanly on SIGTERM.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>
#include <thread>

#include "support/test_support.h"
#include "tz_fixture.h"

namespace {

using namespace std::chrono_literals;

TEST(DaemonEndToEnd, UnknownManufacturerRunsTheEmptyDriver) {
  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  mcdtest::ConfigServer server;
  const std::string config = R"({"meters": {"5": {
      "manufacturer": "no-such-meter", "period_current": "20",
      "port_params": {"name": ")" + pty.slaveName() + R"(", "speed": "9600", "data": "8",
                      "parity": "none", "stop": "1"},
      "systems": {"system_1": "1"}}}})";
  ASSERT_TRUE(server.Start(config));

  auto env = root.env();
  env["MCD_SERVER_URL"] = server.url();
  env["MCD_TIME_SCALE"] = "100";
  mcdtest::ChildProcess daemon;
  ASSERT_TRUE(daemon.Start({mcdtest::MainBinary(), "-e", "-v", "7", "-i", "5"}, env));

  // The model has no driver in this version: it says so once, is never ready, and its
  // link state stays 0 while the supervision goes on handing it turns.
  EXPECT_TRUE(mcdtest::WaitFor(
      [&] {
        const std::string log = daemon.Stderr();
        size_t n = 0;
        for (size_t at = log.find("driver not ready"); at != std::string::npos; at = log.find("driver not ready", at + 1))
          ++n;
        return n >= 1 && mcdtest::ReadFile(root.tmp("5/1/tc_items/Connected")) == "0\n";
      },
      30s))
      << daemon.Stderr();
  std::this_thread::sleep_for(2s);

  ASSERT_TRUE(daemon.Signal(SIGTERM));
  int status = -1;
  ASSERT_TRUE(daemon.Wait(10s, &status)) << daemon.Stderr();
  EXPECT_EQ(status, 0) << daemon.Stderr();

  const std::string log = daemon.Stderr();
  const std::string warning = "no driver for manufacturer no-such-meter: nothing is read";
  ASSERT_NE(log.find(warning), std::string::npos) << log;
  EXPECT_EQ(log.find(warning, log.find(warning) + 1), std::string::npos) << "warned more than once";
  EXPECT_EQ(mcdtest::ReadFile(root.tmp("5/1/tc_items/Connected")), "0\n");
  // Nothing is published or filed for it.
  EXPECT_EQ(log.find("begin all current values."), std::string::npos);
  EXPECT_EQ(log.find("ReadHourlyArch"), std::string::npos);
  EXPECT_TRUE(mcdtest::ListDir(root.storage("5/1/tc_archives")).empty());
}

}  // namespace
