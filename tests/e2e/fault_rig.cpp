#include "fault_rig.h"

#include <fcntl.h>

#include <signal.h>
#include <stdio.h>
#include <unistd.h>

#include <cstdlib>

namespace e2e {

using namespace std::chrono_literals;

namespace {

long JsonNumber(const std::string& text, const std::string& key) {
  const std::string needle = "\"" + key + "\":";
  size_t at = text.find(needle);
  if (at == std::string::npos) return -1;
  return strtol(text.c_str() + at + needle.size(), nullptr, 10);
}

std::string Flag(bool on) { return on ? "true" : "false"; }

}  // namespace

std::string Faults::Json() const {
  return "{\"silent\": " + Flag(silent) + ", \"bad_checksum\": " + Flag(bad_checksum) +
         ", \"garbage\": " + Flag(garbage) + ", \"every_other\": " + Flag(every_other) + "}";
}

FaultRig::FaultRig(const std::string& tty)
    : m_link(m_root.root() + "/" + tty), m_control(m_root.root() + "/faults.json"), m_stats(m_root.root() + "/stats.json") {
  SetFaults(Faults());
}

FaultRig::~FaultRig() {
  int status;
  if (m_daemon.Running()) {
    m_daemon.Signal(SIGTERM);
    m_daemon.Wait(30s, &status);
  }
  // MCD_E2E_LOG=<file>: keep the daemon's log of the run for a look afterwards.
  const char* keep = getenv("MCD_E2E_LOG");
  if (keep && *keep) mcdtest::WriteFile(keep, m_daemon.Stderr());
  if (m_sim.Running()) {
    m_sim.Signal(SIGTERM);
    m_sim.Wait(10s, &status);
  }
}

bool FaultRig::StartSimulator(const std::string& script, const std::vector<std::string>& options) {
  std::vector<std::string> argv = {"/usr/bin/python3", mcdtest::SourcePath("tools/" + script), "--link", m_link,
                                   "--control", m_control, "--stats", m_stats};
  argv.insert(argv.end(), options.begin(), options.end());
  if (!m_sim.Start(argv)) return false;
  return mcdtest::WaitFor([&] { return mcdtest::FileExists(m_link) && Stats().requests >= 0; }, 10s);
}

void FaultRig::SetFaults(const Faults& faults) {
  const std::string tmp = m_control + ".new";
  mcdtest::WriteFile(tmp, faults.Json());
  rename(tmp.c_str(), m_control.c_str());
}

SimStats FaultRig::Stats() const {
  const std::string text = mcdtest::ReadFile(m_stats);
  SimStats s;
  s.requests = JsonNumber(text, "requests");
  s.answers = JsonNumber(text, "answers");
  return s;
}

bool FaultRig::WaitRequests(long since, long n, std::chrono::milliseconds timeout) const {
  return mcdtest::WaitFor([&] { return Stats().requests >= since + n; }, timeout);
}

bool FaultRig::StartDaemon(const std::string& url, const std::vector<std::string>& ids, const std::string& timeScale) {
  auto env = m_root.env();
  env["MCD_SERVER_URL"] = url;
  env["MCD_TIME_SCALE"] = timeScale;
  std::vector<std::string> argv = {mcdtest::MainBinary(), "-e", "-v", "6"};
  for (const std::string& id : ids) {
    argv.push_back("-i");
    argv.push_back(id);
  }
  return m_daemon.Start(argv, env);
}

int FaultRig::StopDaemon() {
  if (!m_daemon.Signal(SIGTERM)) return -1;
  int status = -1;
  if (!m_daemon.Wait(60s, &status)) return -1;
  return status;
}

namespace {

// Swaps two names in one step. The daemon makes its storage directories again whenever
// a write fails, so a directory can appear at the meter's path at any instant: every
// change of what stands there is one exchange, never a remove followed by a rename.
bool Exchange(const std::string& a, const std::string& b) {
  return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
}

}  // namespace

bool FaultRig::BlockStorage(const std::string& id) {
  const std::string dir = m_root.storage(id);
  mcdtest::WriteFile(dir + ".blocker", "in the way\n");
  if (!Exchange(dir + ".blocker", dir)) return false;
  return rename((dir + ".blocker").c_str(), (dir + ".aside").c_str()) == 0;
}

bool FaultRig::RestoreStorage(const std::string& id) {
  const std::string dir = m_root.storage(id);
  if (!Exchange(dir + ".aside", dir)) return false;
  return unlink((dir + ".aside").c_str()) == 0;
}

long Bound(const FaultRig& rig, const std::string& id, const char* kind) {
  return atol(mcdtest::ReadFile(rig.root().storage(id + "/timestamp_max_" + kind)).c_str());
}

bool CaughtUp(const FaultRig& rig, const std::vector<std::string>& ids) {
  const time_t now = time(nullptr);
  for (const std::string& id : ids)
    if (Bound(rig, id, "hourly") != mcdtest::LocalHourStart(now) - 3600 ||
        Bound(rig, id, "daily") != mcdtest::LocalMidnight(mcdtest::LocalMidnight(now) - 43200))
      return false;
  return true;
}

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

}  // namespace e2e
