// The daemon with a meter of unknown make: the empty driver's loop runs on the real
// binary, files the link state (0: nothing answers) and stops cleanly on SIGTERM.
#include <gtest/gtest.h>

#include <signal.h>

#include <chrono>

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

  // Let it go round a few more cycles before stopping it.
  EXPECT_TRUE(mcdtest::WaitFor(
      [&] {
        const std::string log = daemon.Stderr();
        size_t n = 0;
        for (size_t at = log.find("end all current values."); at != std::string::npos;
             at = log.find("end all current values.", at + 1))
          ++n;
        return n >= 2;
      },
      30s))
      << daemon.Stderr();

  // The empty driver never hears its meter: the link state stays 0.
  EXPECT_EQ(mcdtest::ReadFile(root.tmp("5/1/tc_items/Connected")), "0\n");

  ASSERT_TRUE(daemon.Signal(SIGTERM));
  int status = -1;
  ASSERT_TRUE(daemon.Wait(30s, &status)) << daemon.Stderr();
  EXPECT_EQ(status, 0) << daemon.Stderr();

  const std::string log = daemon.Stderr();
  EXPECT_NE(log.find("A new thread \"no-such-meter\" has been STARTED"), std::string::npos) << log;
  EXPECT_NE(log.find("CMcdBaseDriver::functionThread begin execute thread."), std::string::npos);
  EXPECT_NE(log.find("CMcdBaseDriver::functionThread system info is absent."), std::string::npos);
  // The empty driver never reads archives.
  EXPECT_EQ(log.find("ReadHourlyArch"), std::string::npos);
  EXPECT_TRUE(mcdtest::ListDir(root.storage("5/1/tc_archives")).empty());
}

}  // namespace
