// A VKT-7 backfill through the real daemon while the meter falls silent, sends wrong
// checksums, sends garbage, answers every other request, and while the meter's storage
// directory cannot be written: the daemon keeps running and, once the faults are gone,
// every hourly and daily record the meter holds is filed exactly once.
#include <gtest/gtest.h>

#include <chrono>

#include "fault_rig.h"

namespace {

using namespace std::chrono_literals;

TEST(FaultInjection, Vkt7BackfillSurvivesLinkAndStorageFaults) {
  e2e::FaultRig rig("vkt7.tty");
  const std::string heldOut = rig.root().root() + "/held_out.json";
  const time_t start = time(nullptr);
  const time_t firstHour = mcdtest::LocalHourStart(start) - 24 * 3600;
  const time_t firstDay = mcdtest::LocalMidnight(mcdtest::LocalMidnight(start) - 3 * 86400 + 7200);
  ASSERT_TRUE(rig.StartSimulator("vkt7_sim.py", {"--first-hour", std::to_string(firstHour), "--first-day",
                                                  std::to_string(firstDay), "--held-out", heldOut}));
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start(R"({"meters": {"71": {"manufacturer": "vkt-7", "period_current": "601",
      "port_params": {"name": ")" + rig.link() + R"(", "speed": "9600"},
      "systems": {"system_1": "1", "system_2": "1"}}}})"));
  ASSERT_TRUE(rig.StartDaemon(server.url(), {"71"}, "600"));
  const std::string hourly = rig.root().storage("71/1/tc_archives/A20");
  auto filed = [&] { return mcdtest::ReadLines(hourly).size(); };
  ASSERT_TRUE(mcdtest::WaitFor([&] { return filed() > 0; }, 30s)) << rig.DaemonLog();

  // One fault at a time, for a number of requests (a failed exchange is three sends);
  // the storage stays away until the daemon has tried to file one more block.
  e2e::Faults silent, badSum, garbage, everyOther, none;
  silent.silent = true;
  badSum.bad_checksum = true;
  garbage.garbage = true;
  everyOther.every_other = true;
  const struct {
    const char* name;
    e2e::Faults faults;
    bool storage;
    long requests;
  } phases[] = {{"storage unwritable", none, true, 10}, {"silent meter", silent, false, 3},
                {"wrong checksums", badSum, false, 1},   {"garbage", garbage, false, 2},
                {"every other answer", everyOther, false, 4}};
  size_t phasesInBackfill = 0;
  const std::string readAll = "ReadHourlyArch readed all hourly values.";
  for (const auto& p : phases) {
    if (!e2e::CaughtUp(rig, {"71"})) ++phasesInBackfill;
    const long before = rig.Stats().requests;
    const size_t blocks = e2e::Count(rig.DaemonLog(), readAll);
    if (p.storage)
      ASSERT_TRUE(rig.BlockStorage("71"));
    else
      rig.SetFaults(p.faults);
    EXPECT_TRUE(rig.WaitRequests(before, p.requests, 30s)) << p.name;
    if (p.storage) {
      EXPECT_TRUE(mcdtest::WaitFor([&] { return e2e::Count(rig.DaemonLog(), readAll) > blocks; }, 30s));
      ASSERT_TRUE(rig.RestoreStorage("71"));
    }
    rig.SetFaults(none);
    ASSERT_TRUE(rig.DaemonRunning()) << p.name << "\n" << rig.DaemonLog();
  }
  // most faults must strike while records are still missing, or the run proves little
  EXPECT_GE(phasesInBackfill, 3u);
  ASSERT_TRUE(mcdtest::WaitFor([&] { return e2e::CaughtUp(rig, {"71"}); }, 60s)) << rig.DaemonLog();
  EXPECT_EQ(rig.StopDaemon(), 0);
  EXPECT_TRUE(mcdtest::ArchivesAsHeld(heldOut, rig.root().storage(), {"71"}, time(nullptr)));
}

}  // namespace
