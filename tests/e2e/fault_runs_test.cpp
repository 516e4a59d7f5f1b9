// Backfills through the real daemon, the configuration server and one simulated meter
// line while the simulator plays faults (its control file, replaced in one rename) and
// the meter's storage directory cannot be written: the daemon keeps running and, once
// the faults are gone, every record the meter holds is filed exactly once, with its
// value and quality, and nothing else.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>

#include "support/test_support.h"

namespace {

using mcdtest::Count;
using namespace std::chrono_literals;

// Swaps two names in one step. The daemon makes its storage directories again whenever
// a write fails, so a directory can appear at the meter's path at any instant: every
// change of what stands there is one exchange, never a remove followed by a rename.
bool Exchange(const std::string& a, const std::string& b) {
  return renameat2(AT_FDCWD, a.c_str(), AT_FDCWD, b.c_str(), RENAME_EXCHANGE) == 0;
}

// One fault phase: the control keys, for this many requests; with storage set the
// meter's storage stays away until the daemon has tried to file one more block.
struct Phase {
  const char* name;
  std::string control;
  long requests;
  bool storage = false;
};

class Rig {
 public:
  explicit Rig(const std::string& meter) : id(meter), link(root.root() + "/" + meter + ".tty") {
    Control("");
  }
  ~Rig() {
    // MCD_E2E_LOG=<file>: keep the daemon's log of the run for a look afterwards.
    const char* keep = getenv("MCD_E2E_LOG");
    if (keep && *keep) mcdtest::WriteFile(keep, Log());
  }
  // Fault keys of the simulator (JSON members, "" for a healthy meter).
  void Control(const std::string& keys) {
    const std::string path = root.root() + "/faults.json";
    mcdtest::WriteFile(path + ".new", "{" + keys + "}");
    rename((path + ".new").c_str(), path.c_str());
  }
  long Requests() const {
    const std::string text = mcdtest::ReadFile(root.root() + "/stats.json");
    const size_t at = text.find("\"requests\":");
    return at == std::string::npos ? -1 : strtol(text.c_str() + at + 11, nullptr, 10);
  }
  bool StartSimulator(const std::string& script, std::vector<std::string> options) {
    options.insert(options.begin(), {"/usr/bin/python3", mcdtest::SourcePath("tools/" + script), "--link", link,
                                     "--control", root.root() + "/faults.json", "--stats", root.root() + "/stats.json",
                                     "--held-out", HeldOut()});
    return m_sim.Start(options) && mcdtest::WaitFor([&] { return mcdtest::FileExists(link) && Requests() >= 0; }, 10s);
  }
  bool StartDaemon(const std::string& url) {
    auto env = root.env();
    env["MCD_SERVER_URL"] = url;
    env["MCD_TIME_SCALE"] = "600";
    return m_daemon.Start({mcdtest::MainBinary(), "-e", "-v", "6", "-i", id}, env);
  }
  std::string Log() const { return m_daemon.Stderr(); }
  std::string HeldOut() const { return root.root() + "/held_out.json"; }
  // The daemon has filed up to the last complete hour and day before now.
  bool CaughtUp() const {
    const time_t now = time(nullptr);
    return atol(mcdtest::ReadFile(root.storage(id + "/timestamp_max_hourly")).c_str()) ==
               mcdtest::LocalHourStart(now) - 3600 &&
           atol(mcdtest::ReadFile(root.storage(id + "/timestamp_max_daily")).c_str()) ==
               mcdtest::LocalMidnight(mcdtest::LocalMidnight(now) - 43200);
  }
  // Storage moved aside with a plain file in its place (root ignores permissions), and back.
  bool BlockStorage() {
    mcdtest::WriteFile(root.storage(id + ".blocker"), "in the way\n");
    return Exchange(root.storage(id + ".blocker"), root.storage(id)) &&
           rename(root.storage(id + ".blocker").c_str(), root.storage(id + ".aside").c_str()) == 0;
  }
  bool RestoreStorage() {
    return Exchange(root.storage(id + ".aside"), root.storage(id)) && unlink(root.storage(id + ".aside").c_str()) == 0;
  }
  std::string Config(const std::string& manufacturer, const std::string& speed) const {
    return "{\"meters\": {\"" + id + "\": {\"manufacturer\": \"" + manufacturer +
           "\", \"serial\": \"1\", \"period_current\": \"601\", \"port_params\": {\"name\": \"" + link +
           "\", \"speed\": \"" + speed + "\"}, \"systems\": {\"system_1\": \"1\", \"system_2\": \"1\"}}}}";
  }

  // Plays the phases one after the other, most of them while records are still missing
  // (or the run proves little); then the daemon catches up and stops with status 0.
  void PlayPhasesAndCatchUp(const std::vector<Phase>& phases) {
    size_t inBackfill = 0;
    const std::string readAll = "readed all hourly values.";
    for (const Phase& p : phases) {
      if (!CaughtUp()) ++inBackfill;
      const long before = Requests();
      const size_t blocks = Count(Log(), readAll);
      if (p.storage) {
        ASSERT_TRUE(BlockStorage());
      }
      Control(p.control);
      EXPECT_TRUE(mcdtest::WaitFor([&] { return Requests() >= before + p.requests; }, 30s)) << p.name;
      if (p.storage) {
        EXPECT_TRUE(mcdtest::WaitFor([&] { return Count(Log(), readAll) > blocks; }, 30s));
        ASSERT_TRUE(RestoreStorage());
      }
      Control("");
      ASSERT_TRUE(m_daemon.Running()) << p.name << "\n" << Log();
    }
    EXPECT_GE(inBackfill, std::min<size_t>(3, phases.size()));
    ASSERT_TRUE(mcdtest::WaitFor([&] { return CaughtUp(); }, 60s)) << Log();
    int status = -1;
    EXPECT_TRUE(m_daemon.Signal(SIGTERM) && m_daemon.Wait(60s, &status));
    EXPECT_EQ(status, 0);
  }

  mcdtest::TempRoot root;
  const std::string id, link;

 private:
  mcdtest::ChildProcess m_sim, m_daemon;
};

// A failed VKT-7 exchange is three sends.
TEST(FaultInjection, Vkt7BackfillSurvivesLinkAndStorageFaults) {
  Rig rig("71");
  const time_t start = time(nullptr);
  ASSERT_TRUE(rig.StartSimulator(
      "vkt7_sim.py", {"--first-hour", std::to_string(mcdtest::LocalHourStart(start) - 24 * 3600), "--first-day",
                      std::to_string(mcdtest::LocalMidnight(mcdtest::LocalMidnight(start) - 3 * 86400 + 7200))}));
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start(rig.Config("vkt-7", "9600")));
  ASSERT_TRUE(rig.StartDaemon(server.url()));
  const std::string hourly = rig.root.storage("71/1/tc_archives/A20");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return !mcdtest::ReadLines(hourly).empty(); }, 30s)) << rig.Log();
  rig.PlayPhasesAndCatchUp({{"storage unwritable", "", 10, true},
                            {"silent meter", "\"silent\": true", 3},
                            {"wrong checksums", "\"bad_checksum\": true", 1},
                            {"garbage", "\"garbage\": true", 2},
                            {"every other answer", "\"every_other\": true", 4}});
  EXPECT_TRUE(mcdtest::ArchivesAsHeld(rig.HeldOut(), rig.root.storage(), {"71"}, time(nullptr)));
}

}  // namespace
