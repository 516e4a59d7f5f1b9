// ESKO meters through the real daemon, in a zone with a half-hour offset: once the
// faults are gone, every record the meter holds is filed exactly once, whatever came
// before. One run starts without the configuration server (then it answers with text
// that is not JSON) and with the MTR-06's clock reading 00.00.2000 00:00:00; the other
// plays line faults and meter error answers on a TM-3E during its backfill. Both meters
// lack one record in the middle.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "fault_rig.h"

namespace {

using namespace std::chrono_literals;
using e2e::Count;

class EskoRun {
 public:
  EskoRun(const char* manufacturer, const std::string& meterSpec, const std::string& control)
      : m_manufacturer(manufacturer) {
    setenv("TZ", "Asia/Kolkata", 1);  // the simulator and the daemon inherit it
    tzset();
    m_gap = "\"no_record\": [" + std::to_string(mcdtest::LocalHourStart(time(nullptr)) - 5 * 3600) + "]";
    Control(e2e::Faults(), control);
    started = rig.StartSimulator("esko_sim.py", {"--held-out", HeldOut(), "--meter", meterSpec});
  }
  ~EskoRun() {
    unsetenv("TZ");
    tzset();
  }
  // Line faults plus the simulator's own keys (the gap always), written to the control file.
  void Control(const e2e::Faults& line, const std::string& esko = "") {
    std::string json = line.Json();
    json.pop_back();
    const std::string path = rig.root().root() + "/faults.json";
    mcdtest::WriteFile(path + ".new", json + ", " + m_gap + esko + "}");
    rename((path + ".new").c_str(), path.c_str());
  }
  std::string Config() const {
    return std::string("{\"meters\": {\"201\": {\"manufacturer\": \"") + m_manufacturer +
           "\", \"serial\": \"1\", \"period_current\": \"601\", \"port_params\": {\"name\": \"" + rig.link() +
           "\", \"speed\": \"19200\"}, \"systems\": {\"system_1\": \"1\", \"system_2\": \"1\"}}}}";
  }
  size_t Filed() const { return mcdtest::ReadLines(rig.root().storage("201/1/tc_archives/A11")).size(); }
  std::string HeldOut() const { return rig.root().root() + "/held_out.json"; }
  // Catches up, stops cleanly and has filed every record held, the gap said once.
  void ExpectAllFiled() {
    ASSERT_TRUE(mcdtest::WaitFor([&] { return e2e::CaughtUp(rig, {"201"}); }, 60s)) << rig.DaemonLog();
    EXPECT_EQ(rig.StopDaemon(), 0);
    EXPECT_TRUE(mcdtest::ArchivesAsHeld(HeldOut(), rig.root().storage(), {"201=1"}, time(nullptr)));
    EXPECT_EQ(Count(rig.DaemonLog(), "the meter holds no HOURLY record"), 1u);
  }

  e2e::FaultRig rig{"esko.tty"};
  bool started = false;

 private:
  const char* m_manufacturer;
  std::string m_gap;
};

TEST(FaultInjection, EskoStartsWithoutServerAndWithAMeterClockThatIsNoDate) {
  EskoRun run("esko-mtr-06", "1:mtr06:8:2", ", \"clock\": \"nonsense\"");
  ASSERT_TRUE(run.started);
  const int port = mcdtest::FreeLoopbackPort();
  ASSERT_TRUE(run.rig.StartDaemon("http://127.0.0.1:" + std::to_string(port) + "/", {"201"}, "600"));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return Count(run.rig.DaemonLog(), "Error while sending data! retry") >= 2; }, 20s))
      << run.rig.DaemonLog();
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start(run.Config(), port, {"--garbage", "3"}));
  // current values, but no archive; said once while the clock is read again and again
  ASSERT_TRUE(mcdtest::WaitFor([&] { return Count(run.rig.DaemonLog(), "current time heat meter - 00.00.2000") >= 3; },
                               30s))
      << run.rig.DaemonLog();
  EXPECT_EQ(Count(run.rig.DaemonLog(), "00.00.2000 00:00:00 is not a valid date"), 1u);
  EXPECT_EQ(run.Filed(), 0u);
  run.Control(e2e::Faults());
  run.ExpectAllFiled();
  EXPECT_EQ(Count(run.rig.DaemonLog(), "Error while parsing data! retry"), 3u);
}

TEST(FaultInjection, EskoBackfillSurvivesLineFaultsAndMeterErrors) {
  EskoRun run("esko-tm3", "1:tm3e:8:2", "");
  ASSERT_TRUE(run.started);
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start(run.Config()));
  ASSERT_TRUE(run.rig.StartDaemon(server.url(), {"201"}, "600"));
  // the faults begin as the walk does
  ASSERT_TRUE(mcdtest::WaitFor([&] { return Count(run.rig.DaemonLog(), "min hour arch") > 0; }, 30s))
      << run.rig.DaemonLog();
  e2e::Faults silent, badSum, garbage, everyOther, none;
  silent.silent = true;
  badSum.bad_checksum = true;
  garbage.garbage = true;
  everyOther.every_other = true;
  // A failed exchange is five sends.
  const struct {
    const char* name;
    e2e::Faults faults;
    const char* meter;
    long requests;
  } phases[] = {{"silent line", silent, "", 1},
                {"wrong checksums", badSum, "", 3},
                {"meter error answers", none, ", \"error_code\": 5, \"error_every\": 3", 4},
                {"garbage", garbage, "", 2},
                {"every other answer", everyOther, "", 2}};
  size_t phasesInBackfill = 0;
  for (const auto& p : phases) {
    if (!e2e::CaughtUp(run.rig, {"201"})) ++phasesInBackfill;
    const long before = run.rig.Stats().requests;
    run.Control(p.faults, p.meter);
    EXPECT_TRUE(run.rig.WaitRequests(before, p.requests, 30s)) << p.name;
    run.Control(none);
    ASSERT_TRUE(run.rig.DaemonRunning()) << p.name << "\n" << run.rig.DaemonLog();
  }
  EXPECT_GE(phasesInBackfill, 3u);  // most strike while records are still missing
  run.ExpectAllFiled();
}

}  // namespace
