// Runs the real mcd_main binary: command-line errors, the configuration exchange with a
// local server, signals and daemon mode.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using mcdtest::ChildProcess;
using mcdtest::ConfigServer;
using std::chrono::milliseconds;
using std::chrono::seconds;

const char kFirstRequest[] = R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"7"}})";
const char kSetupDone[] = "main - set-up done:";
const char kRed[] = "\x1b[1;31m";
const char kReset[] = "\x1b[0m";
const std::string kSeparator(57, '-');

size_t Count(const std::string& text, const std::string& what) {
  size_t n = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
  return n;
}

// Runs the binary to its end with the given arguments.
struct Finished {
  int status = -1;
  std::string out, err;
};
Finished RunToEnd(const std::vector<std::string>& args) {
  ChildProcess child;
  std::vector<std::string> argv = {mcdtest::MainBinary()};
  argv.insert(argv.end(), args.begin(), args.end());
  Finished f;
  EXPECT_TRUE(child.Start(argv));
  EXPECT_TRUE(child.Wait(seconds(30), &f.status));
  f.out = child.Stdout();
  f.err = child.Stderr();
  return f;
}

TEST(MainBinary, CommandLineVerdictsReachTheStreamsAndTheExitStatus) {
  const std::string usage = "Usage: " + mcdtest::MainBinary() + " [options]\n";
  Finished f = RunToEnd({"-i", "7", "-v", "8"});
  EXPECT_EQ(1, f.status);
  EXPECT_EQ("\nmain: Unacceptable logs level!\n\n", f.err);
  EXPECT_EQ(0u, f.out.find(usage)) << f.out;
  EXPECT_EQ(18u, Count(f.out, "\n"));  // the whole usage text
  f = RunToEnd({"-e", "-v", "7"});
  EXPECT_EQ(1, f.status);
  EXPECT_EQ("\nmain: Do not set any ID of HeatMeter!\n\n", f.err);
  f = RunToEnd({"--help"});
  EXPECT_EQ(0, f.status);
  EXPECT_EQ(0u, f.out.find(usage));
}

// One daemon run against a local configuration server, all under a fresh root.
class DaemonRun : public ::testing::Test {
 protected:
  std::map<std::string, std::string> Env(int port) {
    auto env = root.env();
    env["MCD_SERVER_URL"] = "http://127.0.0.1:" + std::to_string(port) + "/";
    env["MCD_TIME_SCALE"] = "50";
    return env;
  }
  bool StartDaemon(const std::vector<std::string>& args, int port,
                   std::map<std::string, std::string> extraEnv = {}) {
    std::vector<std::string> argv = {mcdtest::MainBinary()};
    argv.insert(argv.end(), args.begin(), args.end());
    auto env = Env(port);
    for (auto& kv : extraEnv) env[kv.first] = kv.second;
    return daemon.Start(argv, env);
  }
  bool StderrHas(const std::string& text, int count = 1) {
    return mcdtest::WaitFor([&] { return Count(daemon.Stderr(), text) >= static_cast<size_t>(count); },
                            seconds(30));
  }
  int ExitStatus() {
    int status = -1;
    if (!daemon.Wait(seconds(30), &status)) return -1;
    return status;
  }

  mcdtest::TempRoot root;
  ConfigServer server;
  ChildProcess daemon;
  const std::string config = R"({"meters": {"7": {"manufacturer": "none"}, "9": {"manufacturer": "none"}}})";
};

TEST_F(DaemonRun, FirstRequestsSharedPortAndSigtermShutdown) {
  mcdtest::PtyPair first, second;
  ASSERT_TRUE(server.Start(R"({"meters": {
      "7": {"manufacturer": "none", "port_params": {"name": ")" + first.slaveName() + R"("}},
      "9": {"manufacturer": "none", "port_params": {"name": ")" + second.slaveName() + R"("}}}})"));
  ASSERT_TRUE(StartDaemon({"-e", "-i", "7", "-i", "9"}, server.port()));
  ASSERT_TRUE(StderrHas("A new thread \"none\" has been STARTED", 2)) << daemon.Stderr();
  // both identifiers use the first one's port: the lamps of the one connector start once
  EXPECT_EQ(1u, Count(daemon.Stderr(), "A new thread \"manager LED \"A\"\" has been STARTED"));
  EXPECT_NE(std::string::npos, daemon.Stderr().find("main - set-up done: 2 driver(s)"));

  std::vector<std::string> requests = server.Requests();
  ASSERT_EQ(2u, requests.size());
  EXPECT_EQ(kFirstRequest, requests[0]);
  // every identifier has a client of its own, numbering from 1
  EXPECT_EQ(R"({"id":1,"jsonrpc":"2.0","method":"get_config","params":{"heat_meter":"9"}})", requests[1]);

  std::string err = daemon.Stderr();
  EXPECT_NE(std::string::npos, err.find("Info: main - heat meter 7: meter 0 manufacturer = none\n")) << err;
  EXPECT_NE(std::string::npos, err.find("Info: main - heat meter 9: meter 0 period_current = 20\n")) << err;

  ASSERT_TRUE(daemon.Signal(SIGTERM));
  EXPECT_EQ(0, ExitStatus());
  err = daemon.Stderr();
  EXPECT_NE(std::string::npos, err.find("Crit: " + std::string(kRed) + kSeparator + kReset + "\n")) << err;
  EXPECT_NE(std::string::npos,
            err.find(std::string("Crit: ") + kRed + "System signal number 15 (Terminated) is received from process "))
      << err;
  EXPECT_EQ(2u, Count(err, kSeparator));
  EXPECT_EQ(std::string::npos, err.find("Immediate exit")) << err;
  EXPECT_NE(std::string::npos, daemon.Stdout().find(std::string("CJSONRPCConnector::ExecJSONRPCFunc query is ") +
                                                    kFirstRequest + "\n"));
}

// Sends sig and measures how long the daemon takes to end; -1 when it outlived 10 s.
double SecondsToExit(ChildProcess& daemon, int sig, int* status) {
  const auto begin = std::chrono::steady_clock::now();
  if (!daemon.Signal(sig)) return -1;
  if (!daemon.Wait(seconds(10), status)) return -1;
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

TEST_F(DaemonRun, EveryStopSignalEndsTheWaitForADownServer) {
  // Real time: the retry wait is 5 s, so an exit well before that was cut short.
  for (int sig : {SIGTERM, SIGINT, SIGQUIT}) {
    SCOPED_TRACE(sig);
    int port = mcdtest::FreeLoopbackPort();  // nobody listens: set-up never ends
    ASSERT_TRUE(StartDaemon({"-e", "-i", "7"}, port, {{"MCD_TIME_SCALE", "1"}}));
    ASSERT_TRUE(StderrHas("retry!!! wait 5 sec")) << daemon.Stderr();
    int status = -1;
    double took = SecondsToExit(daemon, sig, &status);
    EXPECT_GE(took, 0);
    EXPECT_LT(took, 4);
    EXPECT_EQ(0, status);
    EXPECT_EQ(1u, Count(daemon.Stderr(), "main - shutdown done.")) << daemon.Stderr();
    EXPECT_EQ(std::string::npos, daemon.Stderr().find("Immediate exit"));
  }
}

TEST_F(DaemonRun, SighupRebuildsTheDriversAndSigtermEndsTheirLongWait) {
  mcdtest::PtyPair line;
  ASSERT_TRUE(server.Start(R"({"meters": {"7": {"manufacturer": "none", "period_current": "5400",
      "port_params": {"name": ")" + line.slaveName() + R"("}}}})"));
  ASSERT_TRUE(StartDaemon({"-e", "-i", "7"}, server.port(), {{"MCD_TIME_SCALE", "1"}}));
  // A model without a driver is never ready: each driver says so once, after its first turn.
  ASSERT_TRUE(StderrHas("driver not ready")) << daemon.Stderr();
  ASSERT_EQ(1u, server.Requests().size());

  ASSERT_TRUE(daemon.Signal(SIGHUP));
  ASSERT_TRUE(StderrHas(kSetupDone, 2)) << daemon.Stderr();
  ASSERT_TRUE(StderrHas("driver not ready", 2)) << daemon.Stderr();
  // a new client asks again, from id 1; the old driver was stopped and a new one started
  EXPECT_EQ((std::vector<std::string>{kFirstRequest, kFirstRequest}), server.Requests());
  std::string err = daemon.Stderr();
  EXPECT_NE(std::string::npos, err.find("System signal number 1 (Hangup)")) << err;
  EXPECT_NE(std::string::npos, err.find("main - reload: stopping 1 driver(s)")) << err;
  EXPECT_EQ(2u, Count(err, "A new thread \"none\" has been STARTED")) << err;
  EXPECT_TRUE(daemon.Running());

  // the new driver waits out its 90-minute period: a stop ends that wait too
  std::this_thread::sleep_for(milliseconds(300));
  int status = -1;
  double took = SecondsToExit(daemon, SIGTERM, &status);
  EXPECT_GE(took, 0);
  EXPECT_LT(took, 4);
  EXPECT_EQ(0, status);
  EXPECT_NE(std::string::npos, daemon.Stderr().find("main - shutdown done.")) << daemon.Stderr();
}

TEST_F(DaemonRun, ASecondProcessOnTheSameLineExitsNamingTheHolder) {
  mcdtest::PtyPair line;
  ASSERT_TRUE(server.Start(R"({"meters": {"7": {"manufacturer": "none",
      "port_params": {"name": ")" + line.slaveName() + R"("}}}})"));
  ASSERT_TRUE(StartDaemon({"-e", "-i", "7"}, server.port()));
  ASSERT_TRUE(StderrHas(kSetupDone)) << daemon.Stderr();

  ChildProcess second;
  ASSERT_TRUE(second.Start({mcdtest::MainBinary(), "-e", "-i", "7"}, Env(server.port())));
  int status = -1;
  ASSERT_TRUE(second.Wait(seconds(30), &status));
  EXPECT_EQ(1, status);
  const std::string holder = "Device " + line.slaveName() + " is in use by pid " + std::to_string(daemon.pid()) +
                             " (mcd_main); one process serves every meter of a line.";
  EXPECT_NE(std::string::npos, second.Stderr().find("\nmain - " + holder + "\n")) << second.Stderr();
  EXPECT_EQ(0u, Count(second.Stderr(), kSetupDone));

  EXPECT_TRUE(daemon.Running());
  ASSERT_TRUE(daemon.Signal(SIGTERM));
  EXPECT_EQ(0, ExitStatus());
}

TEST_F(DaemonRun, SigsegvLogsABacktraceToTheFileAndAborts) {
  ASSERT_TRUE(server.Start(config));
  std::string log = root.tmp("mcd.log");
  ASSERT_TRUE(StartDaemon({"-l", log, "-i", "7"}, server.port()));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::ReadFile(log).find(kSetupDone) != std::string::npos; },
                               seconds(30)));
  ASSERT_TRUE(daemon.Signal(SIGSEGV));
  EXPECT_EQ(128 + SIGABRT, ExitStatus());

  std::string text = mcdtest::ReadFile(log);
  EXPECT_NE(std::string::npos, text.find(std::string("Crit: ") + kRed + "System signal number 11 (Segmentation fault)"))
      << text;
  EXPECT_NE(std::string::npos, text.find(std::string(kRed) + "Application done due to SIGSEGV." + kReset + "\n"));
  size_t bt = text.find(std::string(kRed) + "backtrace:" + kReset + "\n");
  ASSERT_NE(std::string::npos, bt) << text;
  // at least one frame names the daemon binary, and the separator closes the report
  EXPECT_NE(std::string::npos, text.find("mcd_main", bt)) << text.substr(bt);
  EXPECT_EQ(2u, Count(text, kSeparator));
}

// Finds the process whose command line is exactly argv.
pid_t FindProcess(const std::vector<std::string>& argv) {
  std::string wanted;
  for (const auto& a : argv) wanted += a + std::string(1, '\0');
  DIR* proc = opendir("/proc");
  pid_t found = -1;
  while (dirent* e = readdir(proc)) {
    pid_t pid = atoi(e->d_name);
    if (pid <= 0) continue;
    if (mcdtest::ReadFile("/proc/" + std::string(e->d_name) + "/cmdline") == wanted) found = pid;
  }
  closedir(proc);
  return found;
}

// Fields of /proc/<pid>/stat after the command name: state, ppid, pgrp, session.
bool ProcStat(pid_t pid, char& state, long& session) {
  std::string text = mcdtest::ReadFile("/proc/" + std::to_string(pid) + "/stat");
  size_t close = text.rfind(')');
  if (text.empty() || close == std::string::npos) return false;
  long ppid = 0, pgrp = 0;
  return sscanf(text.c_str() + close + 1, " %c %ld %ld %ld", &state, &ppid, &pgrp, &session) == 4;
}

TEST_F(DaemonRun, DaemonModeDetachesIntoANewSessionOnDevNull) {
  ASSERT_TRUE(server.Start(config));
  std::string log = root.tmp("daemon.log");
  std::vector<std::string> argv = {mcdtest::MainBinary(), "-d", "-l", log, "-i", "7"};
  ASSERT_TRUE(daemon.Start(argv, Env(server.port())));
  EXPECT_EQ(0, ExitStatus());  // the parent leaves at once

  pid_t pid = -1;
  ASSERT_TRUE(mcdtest::WaitFor([&] { return (pid = FindProcess(argv)) > 0; }, seconds(10)));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::ReadFile(log).find(kSetupDone) != std::string::npos; },
                               seconds(30)));
  char state = 0;
  long session = 0;
  ASSERT_TRUE(ProcStat(pid, state, session));
  EXPECT_EQ(pid, session);  // it leads a session of its own
  for (int fd = 0; fd <= 2; ++fd) {
    char target[256] = {0};
    std::string link = "/proc/" + std::to_string(pid) + "/fd/" + std::to_string(fd);
    ASSERT_GT(readlink(link.c_str(), target, sizeof target - 1), 0);
    EXPECT_STREQ("/dev/null", target) << fd;
  }
  // nothing reached our standard output or error
  EXPECT_EQ("", daemon.Stdout());
  EXPECT_EQ("", daemon.Stderr());

  ASSERT_EQ(0, kill(pid, SIGTERM));
  EXPECT_TRUE(mcdtest::WaitFor(
      [&] { return mcdtest::ReadFile(log).find("main - shutdown done.") != std::string::npos; }, seconds(30)));
  EXPECT_TRUE(mcdtest::WaitFor(
      [&] {
        char s = 0;
        long sid = 0;
        return !ProcStat(pid, s, sid) || s == 'Z';
      },
      seconds(10)));
}

}  // namespace
