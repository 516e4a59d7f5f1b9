// Shared helpers for the tests: relocated file-system roots, child processes,
// the configuration server, pseudo-terminals and polling waits.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <ctime>

#include <chrono>
#include <functional>
#include <atomic>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "app/clock.h"

namespace mcdtest {

// The simulated clock of every test, the process clock while it lives. Sleep() moves
// the time on at once, records the duration, runs onSleep on the sleeping thread and
// pauses pauseMicros really (a cancellation point, so a waiting thread does not spin).
// The calendar clock is the monotonic one plus an offset that Step() moves.
class FakeClock : public mcd::Clock {
 public:
  explicit FakeClock(time_t start = 1700000000);
  ~FakeClock() override;
  FakeClock(const FakeClock&) = delete;
  FakeClock& operator=(const FakeClock&) = delete;

  time_t Now() override { return m_mono.load() + m_offset.load(); }
  time_t Monotonic() override { return m_mono.load(); }
  void Sleep(unsigned seconds) override;

  void Set(time_t t);               // both clocks to t, no step
  void Advance(time_t seconds);     // both clocks on, without a sleep
  void Step(time_t delta);          // the calendar clock only
  long sleeps() const { return m_sleeps.load(); }
  std::vector<unsigned> Slept();    // durations of the sleeps so far
  void ClearSlept();

  // Set only while no loop thread runs.
  std::function<void(time_t now)> onSleep;
  unsigned pauseMicros = 100;

 private:
  std::atomic<time_t> m_mono;
  std::atomic<time_t> m_offset{0};
  std::atomic<long> m_sleeps{0};
  std::mutex m_mutex;
  std::vector<unsigned> m_slept;
};

std::string SourcePath(const std::string& relative);  // e.g. "tools/config_server.py"
std::string MainBinary();

// A fresh tree <root>/tmp/, <root>/storage/, <root>/leds/ (with the two lamp files),
// set as MCD_TMP_DIR, MCD_STORAGE_DIR and MCD_LEDS_DIR for this process and its later
// children. Removed on destruction unless MCD_KEEP_TEST_ROOT is set.
class TempRoot {
 public:
  TempRoot();
  ~TempRoot();
  TempRoot(const TempRoot&) = delete;
  TempRoot& operator=(const TempRoot&) = delete;

  const std::string& root() const { return m_root; }
  std::string tmp(const std::string& rel = "") const { return m_root + "/tmp/" + rel; }
  std::string storage(const std::string& rel = "") const { return m_root + "/storage/" + rel; }
  std::string leds(const std::string& rel = "") const { return m_root + "/leds/" + rel; }
  std::map<std::string, std::string> env() const;

 private:
  std::string m_root;
};

bool FileExists(const std::string& path);
std::string ReadFile(const std::string& path);  // empty when missing
void WriteFile(const std::string& path, const std::string& text);
std::vector<std::string> ReadLines(const std::string& path);
std::vector<std::string> ListDir(const std::string& path);  // sorted names, no . and ..

// Occurrences of needle in text.
size_t Count(const std::string& text, const std::string& needle);

// Polls pred every 20 ms until it holds or the time-out passes; returns the last result.
bool WaitFor(const std::function<bool()>& pred, std::chrono::milliseconds timeout);

// Runs tools/archive_check.py over the meters ("ID=ADDRESS", or "ID" for a held-out file
// of one address) below storageRoot against a simulator's held-out file: every record
// held up to the last complete hour (day) before meterTime is filed once, with its value
// and quality, and nothing else.
::testing::AssertionResult ArchivesAsHeld(const std::string& heldOut, const std::string& storageRoot,
                                          const std::vector<std::string>& meters, time_t meterTime);

time_t LocalHourStart(time_t t);
time_t LocalMidnight(time_t t);

// The process logger writes into one file per test program (removed at exit unless
// MCD_KEEP_TEST_ROOT is set); a capture sets the level and sees the lines since it was made.
class LogCapture {
 public:
  explicit LogCapture(int level = 7 /* TL_DEBUG */);
  std::string Text() const;
  size_t Count(const std::string& needle) const;  // occurrences in Text()
  static const std::string& Path();

 private:
  size_t m_start = 0;
};

// A child process started with posix_spawn; stdout and stderr go to files.
class ChildProcess {
 public:
  ChildProcess() = default;
  ~ChildProcess();  // kills (SIGKILL) and reaps a child still running
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // extraEnv is added to (and overrides) this process's environment.
  bool Start(const std::vector<std::string>& argv, const std::map<std::string, std::string>& extraEnv = {});
  pid_t pid() const { return m_pid; }
  bool Signal(int sig);
  // True when it ended in time; status: exit code, or 128 + signal.
  bool Wait(std::chrono::milliseconds timeout, int* status);
  bool Running();
  std::string Stdout() const;
  std::string Stderr() const;

 private:
  pid_t m_pid = -1;
  int m_status = -1;
  std::string m_out, m_err;
};

// A free TCP port on 127.0.0.1, kept bound (nobody listens) until a ConfigServer takes it.
int FreeLoopbackPort();

// tools/config_server.py on a loopback port, config: {"meters": {"<id>": {<get_config
// result>}}, "get_config2": [...]}; option "--garbage N" answers N requests with non-JSON.
class ConfigServer {
 public:
  ConfigServer() = default;
  ~ConfigServer();
  bool Start(const std::string& configJson, int port = 0, const std::vector<std::string>& options = {});
  void Stop();
  std::string url() const;
  std::vector<std::string> Requests() const;

 private:
  ChildProcess m_process;
  int m_port = 0;
  std::string m_dir;
};

// A raw pseudo-terminal pair: the test plays the meter on the master side.
class PtyPair {
 public:
  PtyPair();
  ~PtyPair();
  int master() const { return m_master; }
  const std::string& slaveName() const { return m_name; }
  void Write(const std::vector<unsigned char>& bytes);
  // Up to n bytes, waiting at most timeout in total.
  std::vector<unsigned char> Read(size_t n, std::chrono::milliseconds timeout);

 private:
  int m_master = -1, m_slave = -1;
  std::string m_name;
};

}  // namespace mcdtest
