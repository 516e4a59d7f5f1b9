// A VKT-7 backfill through the real daemon while the meter falls silent, sends wrong
// checksums, sends garbage, answers every other request, and while the meter's storage
// directory cannot be written: the daemon keeps running and, once the faults are gone,
// every hourly and daily record the meter holds is filed exactly once.
#include <gtest/gtest.h>

#include <chrono>

#include "drivers/base/value_text.h"
#include "fault_rig.h"

namespace {

using namespace std::chrono_literals;

// One fault phase: switch it on, let the daemon meet it for a number of requests,
// switch it off. Storage faults block the meter's directory instead.
struct Phase {
  const char* name;
  e2e::Faults faults;
  bool storage;
  long requests;
  bool thenProgress;  // wait until the walk files more records before the next phase
};

// The simulator's value of an integer element: base + n % 100, with the digits.
std::string SimValue(int base, long n, int digits) {
  double raw = base + n % 100;
  for (int i = 0; i < digits; ++i) raw /= 10;
  return mcd::StreamText(raw);
}

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

TEST(FaultInjection, Vkt7BackfillSurvivesLinkAndStorageFaults) {
  e2e::FaultRig rig("vkt7.tty");
  const time_t start = time(nullptr);
  const time_t firstHour = mcdtest::LocalHourStart(start) - 100 * 3600;
  const time_t firstDay = mcdtest::LocalMidnight(mcdtest::LocalMidnight(start) - 5 * 86400 + 7200);
  ASSERT_TRUE(rig.StartSimulator("vkt7_sim.py", {"--first-hour", std::to_string(firstHour), "--first-day",
                                                  std::to_string(firstDay), }));

  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start(R"({"meters": {"71": {"manufacturer": "vkt-7", "period_current": "601",
      "port_params": {"name": ")" + rig.link() + R"(", "speed": "9600"},
      "systems": {"system_1": "1", "system_2": "1"}}}})"));
  ASSERT_TRUE(rig.StartDaemon(server.url(), {"71"}, "600"));

  const std::string hourly = rig.root().storage("71/1/tc_archives/A20");
  const std::string bound = rig.root().storage("71/timestamp_max_hourly");
  auto filed = [&] { return mcdtest::ReadLines(hourly).size(); };
  ASSERT_TRUE(mcdtest::WaitFor([&] { return filed() > 0; }, 30s)) << rig.DaemonLog();

  e2e::Faults silent, badSum, garbage, everyOther, none;
  silent.silent = true;
  badSum.bad_checksum = true;
  garbage.garbage = true;
  everyOther.every_other = true;
  // A failed exchange is three sends; every other answer costs a resend per request;
  // the storage stays away for about one block of records.
  const Phase phases[] = {{"storage unwritable", none, true, 30, true},
                          {"silent meter", silent, false, 3, false},
                          {"wrong checksums", badSum, false, 1, false},
                          {"garbage", garbage, false, 2, true},
                          {"every other answer", everyOther, false, 12, true}};
  size_t phasesInBackfill = 0;
  const time_t lastHour = mcdtest::LocalHourStart(start) - 3600;
  for (const Phase& p : phases) {
    if (e2e::ReadNumber(bound) < lastHour) ++phasesInBackfill;
    const long before = rig.Stats().requests;
    if (p.storage)
      ASSERT_TRUE(rig.BlockStorage("71")) << p.name;
    else
      rig.SetFaults(p.faults);
    EXPECT_TRUE(rig.WaitRequests(before, p.requests, 30s)) << p.name;
    if (p.storage) {
      // keep it away until the daemon has tried to file one more block
      const size_t blocks = Count(rig.DaemonLog(), "ReadHourlyArch readed all hourly values.");
      EXPECT_TRUE(mcdtest::WaitFor(
          [&] { return Count(rig.DaemonLog(), "ReadHourlyArch readed all hourly values.") > blocks; }, 30s));
    }
    if (p.storage)
      ASSERT_TRUE(rig.RestoreStorage("71")) << p.name;
    else
      rig.SetFaults(none);
    ASSERT_TRUE(rig.DaemonRunning()) << p.name << "\n" << rig.DaemonLog();
    if (!p.thenProgress) continue;
    // The walk goes on with a healthy meter and files more records (or has caught up)
    // before the next fault.
    const size_t lines = filed();
    EXPECT_TRUE(mcdtest::WaitFor([&] { return filed() > lines || e2e::ReadNumber(bound) >= lastHour; }, 30s))
        << p.name;
  }
  // Most faults must have struck while records were still missing, or the run proves little.
  EXPECT_GE(phasesInBackfill, 3u);

  // Once the faults are gone the daemon catches up with the meter.
  ASSERT_TRUE(mcdtest::WaitFor(
      [&] {
        const time_t now = time(nullptr);
        return e2e::ReadNumber(rig.root().storage("71/timestamp_max_hourly")) == mcdtest::LocalHourStart(now) - 3600 &&
               e2e::ReadNumber(rig.root().storage("71/timestamp_max_daily")) ==
                   mcdtest::LocalMidnight(mcdtest::LocalMidnight(now) - 43200);
      },
      60s))
      << rig.DaemonLog();
  EXPECT_EQ(rig.StopDaemon(), 0);

  const time_t end = time(nullptr);
  const std::vector<time_t> hours = e2e::Hours(firstHour, mcdtest::LocalHourStart(end) - 3600);
  const std::vector<time_t> days = e2e::Days(firstDay, mcdtest::LocalMidnight(mcdtest::LocalMidnight(end) - 43200));
  std::map<time_t, std::string> t1a, t1b, t1d;
  for (time_t t : hours) {
    t1a[t] = SimValue(5123, t / 3600, 2);
    t1b[t] = SimValue(5223, t / 3600, 2);
  }
  for (time_t t : days) t1d[t] = SimValue(5123, t / 86400, 2);
  const std::string dir1 = rig.root().storage("71/1/tc_archives/");
  const std::string dir2 = rig.root().storage("71/2/tc_archives/");
  EXPECT_TRUE(e2e::ArchiveIsExactly(dir1 + "A20", hours, t1a));
  EXPECT_TRUE(e2e::ArchiveIsExactly(dir2 + "A20", hours, t1b));
  EXPECT_TRUE(e2e::ArchiveIsExactly(dir1 + "A28", hours));
  EXPECT_TRUE(e2e::ArchiveIsExactly(dir1 + "A48", days, t1d));
  EXPECT_TRUE(e2e::ArchiveIsExactly(dir2 + "A48", days));
}

}  // namespace
