// Two ESKO meters (an MTR-06 and a TM-3E) on one line through the real daemon: the
// configuration server is down when the daemon starts and then answers with text that
// is not JSON; during the backfill the line goes silent, carries wrong checksums and
// garbage, and answers every other request. The daemon keeps running and, once the
// faults are gone, every record of both meters is filed exactly once.
#include <gtest/gtest.h>

#include <chrono>

#include "fault_rig.h"

namespace {

using namespace std::chrono_literals;

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

struct Meter {
  const char* id;
  int addr;
  const char* manufacturer;
  const char* model;
  int hours, days;
};

const Meter kMeters[] = {{"201", 1, "esko-mtr-06", "mtr06", 30, 3}, {"202", 2, "esko-tm3", "tm3e", 26, 2}};

TEST(FaultInjection, EskoBackfillSurvivesServerAndLinkFaults) {
  e2e::FaultRig rig("esko.tty");
  std::vector<std::string> simOptions;
  std::string meters;
  for (const Meter& m : kMeters) {
    simOptions.push_back("--meter");
    simOptions.push_back(std::to_string(m.addr) + ":" + m.model + ":" + std::to_string(m.hours) + ":" +
                         std::to_string(m.days));
    if (!meters.empty()) meters += ",";
    meters += std::string("\"") + m.id + "\": {\"manufacturer\": \"" + m.manufacturer + "\", \"serial\": \"" +
              std::to_string(m.addr) + "\", \"period_current\": \"601\", \"port_params\": {\"name\": \"" +
              rig.link() + "\", \"speed\": \"19200\"}, \"systems\": {\"system_1\": \"1\", \"system_2\": \"1\"}}";
  }
  ASSERT_TRUE(rig.StartSimulator("esko_sim.py", simOptions));

  // The server is not there yet: the daemon waits for it, retrying.
  const int port = mcdtest::FreeLoopbackPort();
  const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/";
  ASSERT_TRUE(rig.StartDaemon(url, {"201", "202"}, "600"));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return Count(rig.DaemonLog(), "Error while sending data! retry") >= 2; }, 20s))
      << rig.DaemonLog();
  ASSERT_TRUE(rig.DaemonRunning());
  // Then it comes up, answering the first requests with text that is not JSON.
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start("{\"meters\": {" + meters + "}}", port, {"--garbage", "3"}));

  // records filed so far, and whether both meters are filed up to the last hour
  auto filed = [&] {
    return mcdtest::ReadLines(rig.root().storage("201/1/tc_archives/A11")).size() +
           mcdtest::ReadLines(rig.root().storage("202/1/tc_archives/A11")).size();
  };
  ASSERT_TRUE(mcdtest::WaitFor([&] { return filed() > 0; }, 30s)) << rig.DaemonLog();
  EXPECT_EQ(Count(rig.DaemonLog(), "Error while parsing data! retry"), 3u);

  const time_t start = time(nullptr);
  const time_t lastHour = mcdtest::LocalHourStart(start) - 3600;
  auto caughtUp = [&] {
    return e2e::ReadNumber(rig.root().storage("201/timestamp_max_hourly")) >= lastHour &&
           e2e::ReadNumber(rig.root().storage("202/timestamp_max_hourly")) >= lastHour;
  };
  e2e::Faults silent, badSum, garbage, everyOther, none;
  silent.silent = true;
  badSum.bad_checksum = true;
  garbage.garbage = true;
  everyOther.every_other = true;
  // A failed exchange is five sends.
  const std::pair<const char*, e2e::Faults> phases[] = {
      {"silent line", silent}, {"wrong checksums", badSum}, {"garbage", garbage}, {"every other answer", everyOther}};
  size_t phasesInBackfill = 0;
  for (const auto& p : phases) {
    if (!caughtUp()) ++phasesInBackfill;
    const long before = rig.Stats().requests;
    rig.SetFaults(p.second);
    EXPECT_TRUE(rig.WaitRequests(before, p.second.every_other ? 12 : 5, 40s)) << p.first;
    rig.SetFaults(none);
    ASSERT_TRUE(rig.DaemonRunning()) << p.first << "\n" << rig.DaemonLog();
    // the line faults come one after the other; then the walk must go on
    if (!p.second.garbage && !p.second.every_other) continue;
    const size_t lines = filed();
    EXPECT_TRUE(mcdtest::WaitFor([&] { return filed() > lines || caughtUp(); }, 30s))
        << p.first;
  }
  EXPECT_GE(phasesInBackfill, 3u);

  ASSERT_TRUE(mcdtest::WaitFor(
      [&] {
        const time_t now = time(nullptr);
        for (const Meter& m : kMeters) {
          if (e2e::ReadNumber(rig.root().storage(std::string(m.id) + "/timestamp_max_hourly")) !=
                  mcdtest::LocalHourStart(now) - 3600 ||
              e2e::ReadNumber(rig.root().storage(std::string(m.id) + "/timestamp_max_daily")) !=
                  mcdtest::LocalMidnight(mcdtest::LocalMidnight(now) - 43200))
            return false;
        }
        return true;
      },
      60s))
      << rig.DaemonLog();
  EXPECT_EQ(rig.StopDaemon(), 0);

  const time_t end = time(nullptr);
  const time_t hourNow = mcdtest::LocalHourStart(end);
  const time_t today = mcdtest::LocalMidnight(end);
  for (const Meter& m : kMeters) {
    // The newest hourly record closes the current hour's start; each line carries the
    // start of its interval. Daily records likewise, the newest one closing today.
    // (the oldest one as at the start: it was read then, even if the hour has turned since)
    const std::vector<time_t> hours = e2e::Hours(mcdtest::LocalHourStart(start) - m.hours * 3600, hourNow - 3600);
    time_t firstDay = mcdtest::LocalMidnight(start);
    for (int i = 0; i < m.days; ++i) firstDay = mcdtest::LocalMidnight(firstDay - 43200);
    const std::vector<time_t> days = e2e::Days(firstDay, mcdtest::LocalMidnight(today - 43200));
    for (int s = 1; s <= 2; ++s) {
      const std::string dir = rig.root().storage(std::string(m.id) + "/" + std::to_string(s) + "/tc_archives/");
      EXPECT_TRUE(e2e::ArchiveIsExactly(dir + "A11", hours));
      EXPECT_TRUE(e2e::ArchiveIsExactly(dir + "A28", hours));
      EXPECT_TRUE(e2e::ArchiveIsExactly(dir + "A39", days));
    }
  }
}

}  // namespace
