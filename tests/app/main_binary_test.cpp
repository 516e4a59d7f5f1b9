// Runs the real mcd_main binary: command-line errors, the configuration exchange with a
// local server and signals.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

using mcdtest::Count;
using std::chrono::seconds;

const char kFirstRequest[] = R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"7"}})";
const char kSetupDone[] = "main - set-up done:";
const std::string kRed = "\x1b[1;31m", kReset = "\x1b[0m", kSeparator(57, '-');

class DaemonRun : public ::testing::Test {
 protected:
  std::map<std::string, std::string> Env() {
    auto env = root.env();
    env["MCD_SERVER_URL"] = server.url();
    env["MCD_TIME_SCALE"] = "50";
    return env;
  }
  // Runs the binary to its end; its exit status.
  int Run(std::vector<std::string> args, mcdtest::ChildProcess& child) {
    args.insert(args.begin(), mcdtest::MainBinary());
    int status = -1;
    EXPECT_TRUE(child.Start(args, Env()) && child.Wait(seconds(30), &status));
    return status;
  }
  bool Logged(const std::string& text, size_t count = 1) {
    return mcdtest::WaitFor([&] { return Count(daemon.Stderr(), text) >= count; }, seconds(30));
  }
  int Stop(int sig) {
    int status = -1;
    return daemon.Signal(sig) && daemon.Wait(seconds(10), &status) ? status : -1;
  }
  std::string Line(const mcdtest::PtyPair& pty) const {
    return R"("port_params": {"name": ")" + pty.slaveName() + R"("})";
  }

  mcdtest::TempRoot root;
  mcdtest::ConfigServer server;
  mcdtest::ChildProcess daemon;
};

TEST_F(DaemonRun, CommandLineVerdictsReachTheStreamsAndTheExitStatus) {
  const std::string usage = "Usage: " + mcdtest::MainBinary() + " [options]\n";
  mcdtest::ChildProcess a, b, c;
  EXPECT_EQ(1, Run({"-i", "7", "-v", "8"}, a));
  EXPECT_EQ("\nmain: Unacceptable logs level!\n\n", a.Stderr());
  EXPECT_EQ(0u, a.Stdout().find(usage));
  EXPECT_EQ(18u, Count(a.Stdout(), "\n"));  // the whole usage text
  EXPECT_EQ(1, Run({"-e", "-v", "7"}, b));
  EXPECT_EQ("\nmain: Do not set any ID of HeatMeter!\n\n", b.Stderr());
  EXPECT_EQ(0, Run({"--help"}, c));
  EXPECT_EQ(0u, c.Stdout().find(usage));
}

// Two meters share the first one's line; a SIGHUP rebuilds the drivers and a SIGTERM
// ends the long wait of the new ones at once.
TEST_F(DaemonRun, SharedPortReloadOnSighupAndStopOnSigterm) {
  const char kSecondRequest[] = R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"9"}})";
  mcdtest::PtyPair first, second;
  ASSERT_TRUE(server.Start(R"({"meters": {"7": {"manufacturer": "none", "period_current": "5400", )" + Line(first) +
                           R"(}, "9": {"manufacturer": "none", )" + Line(second) + "}}}"));
  ASSERT_TRUE(daemon.Start({mcdtest::MainBinary(), "-e", "-i", "7", "-i", "9"}, Env()));
  // a model without a driver is never ready: each driver says so once, after its first turn
  ASSERT_TRUE(Logged("driver not ready", 2)) << daemon.Stderr();
  // every identifier has a client of its own, numbering from 1
  EXPECT_EQ(server.Requests(), (std::vector<std::string>{kFirstRequest, kSecondRequest}));
  std::string err = daemon.Stderr();
  EXPECT_NE(std::string::npos, err.find("Info: main - heat meter 9: meter 0 period_current = 20\n")) << err;
  // both identifiers use the first one's port: the lamps of the one connector start once
  EXPECT_EQ(1u, Count(err, "A new thread \"manager LED \"A\"\" has been STARTED"));
  EXPECT_NE(std::string::npos, err.find("main - set-up done: 2 driver(s)"));

  ASSERT_TRUE(daemon.Signal(SIGHUP));
  ASSERT_TRUE(Logged(kSetupDone, 2) && Logged("driver not ready", 4)) << daemon.Stderr();
  EXPECT_EQ(server.Requests(), (std::vector<std::string>{kFirstRequest, kSecondRequest, kFirstRequest, kSecondRequest}));
  EXPECT_EQ(1u, Count(daemon.Stderr(), "main - reload: stopping 2 driver(s)"));
  EXPECT_EQ(4u, Count(daemon.Stderr(), "A new thread \"none\" has been STARTED"));

  const auto begin = std::chrono::steady_clock::now();
  EXPECT_EQ(0, Stop(SIGTERM));
  EXPECT_LT(std::chrono::steady_clock::now() - begin, seconds(4));
  err = daemon.Stderr();
  EXPECT_NE(std::string::npos, err.find("Crit: " + kRed + kSeparator + kReset + "\n")) << err;
  EXPECT_NE(std::string::npos, err.find("Crit: " + kRed + "System signal number 15 (Terminated) is received from process " +
                                        std::to_string(getpid()) + "."));
  EXPECT_EQ(4u, Count(err, kSeparator));  // two lines around each of the two signals
  EXPECT_EQ(std::string::npos, err.find("Immediate exit"));
  EXPECT_EQ(1u, Count(err, "main - shutdown done."));
}

}  // namespace
