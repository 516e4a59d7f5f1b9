// A daemon, its configuration server and one simulated meter line, with the simulator's
// fault switches in reach: the pieces the fault-injection runs are made of.
#pragma once

#include <gtest/gtest.h>

#include <ctime>

#include <chrono>
#include <string>
#include <vector>

#include "support/test_support.h"

namespace e2e {

// The faults a simulator can play; all off is a healthy meter.
struct Faults {
  bool silent = false;
  bool bad_checksum = false;
  bool garbage = false;
  bool every_other = false;
  std::string Json() const;
};

// Request counters the simulator keeps in its statistics file.
struct SimStats {
  long requests = -1;
  long answers = -1;
};

class FaultRig {
 public:
  explicit FaultRig(const std::string& tty = "meter.tty");
  ~FaultRig();

  const mcdtest::TempRoot& root() const { return m_root; }
  const std::string& link() const { return m_link; }

  // Starts a simulator script of tools/ on the line, with its control and statistics
  // files; waits until the line exists.
  bool StartSimulator(const std::string& script, const std::vector<std::string>& options);
  // Switches the simulator's faults (the file is replaced in one rename).
  void SetFaults(const Faults& faults);
  SimStats Stats() const;
  // Waits until the simulator has seen n more requests than `since`.
  bool WaitRequests(long since, long n, std::chrono::milliseconds timeout) const;

  // Starts mcd_main for the identifiers against the given server URL.
  bool StartDaemon(const std::string& url, const std::vector<std::string>& ids, const std::string& timeScale);
  bool DaemonRunning() { return m_daemon.Running(); }
  // SIGTERM, then the exit status (-1 when it did not end in time).
  int StopDaemon();
  std::string DaemonLog() const { return m_daemon.Stderr(); }

  // Makes the meter's storage directory unwritable: it is moved aside and a plain file
  // takes its place, so nothing under it can be opened (root ignores permissions).
  bool BlockStorage(const std::string& id);
  bool RestoreStorage(const std::string& id);

 private:
  mcdtest::TempRoot m_root;
  std::string m_link, m_control, m_stats;
  mcdtest::ChildProcess m_sim, m_daemon;
};

// The bound on file of a meter: "hourly" or "daily"; 0 when missing.
long Bound(const FaultRig& rig, const std::string& id, const char* kind);

// The daemon has filed up to the last complete hour and day before now.
bool CaughtUp(const FaultRig& rig, const std::vector<std::string>& ids);

// How often needle occurs in text.
size_t Count(const std::string& text, const std::string& needle);

}  // namespace e2e
