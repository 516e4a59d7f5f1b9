// Two ESKO meters (an MTR-06 and a TM-3E) on one line through the real daemon: the
// configuration server is down when the daemon starts and then answers with text that
// is not JSON; the meter clocks first read 00.00.2000 00:00:00; the MTR-06 holds far
// fewer records than its "record rest" claims and lacks one record in the middle;
// during the backfill the line goes silent, carries wrong checksums and garbage,
// answers every other request, and the meters answer finds with error codes. The
// daemon keeps running and, once the faults are gone, every record the meters hold is
// filed exactly once, as the simulator lists them.
#include <gtest/gtest.h>

#include <cstdio>
#include <chrono>
#include <map>

#include <json/json.h>

#include "fault_rig.h"

namespace {

using namespace std::chrono_literals;

size_t Count(const std::string& text, const std::string& needle) {
  size_t n = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++n;
  return n;
}

// Line faults plus the ESKO simulator's own keys, written to the rig's control file.
void SetControl(const e2e::FaultRig& rig, const e2e::Faults& line, const std::string& esko) {
  std::string json = line.Json();
  json.pop_back();
  const std::string path = rig.root().root() + "/faults.json";
  mcdtest::WriteFile(path + ".new", json + ", " + esko + "}");
  rename((path + ".new").c_str(), path.c_str());
}

// Every archive file of the meter holds exactly the held-out lines, in time order.
// With `aged`, the meter has dropped its oldest records while the test ran: lines older
// than its oldest record are not compared.
void ExpectArchivesAsHeldOut(const std::string& storage, const Json::Value& meter, bool aged) {
  size_t files = 0;
  for (const char* kind : {"hourly", "daily"}) {
    std::map<std::string, std::map<long, std::string>> want;  // file -> time -> line
    for (auto r = meter[kind].begin(); r != meter[kind].end(); ++r)
      for (auto f = r->begin(); f != r->end(); ++f)
        want[f.name()][atol(r.name().c_str())] = r.name() + "," + std::to_string((*f)[1].asInt()) + "," +
                                                 (*f)[0].asString();
    for (const auto& file : want) {
      std::vector<std::string> lines, got;
      for (const auto& line : file.second) lines.push_back(line.second);
      for (const std::string& line : mcdtest::ReadLines(storage + file.first))
        if (!aged || atol(line.c_str()) >= file.second.begin()->first) got.push_back(line);
      EXPECT_EQ(got, lines) << storage + file.first;
      ++files;
    }
  }
  EXPECT_EQ(files, 2u * 3u * 16u) << storage;
}

struct Meter {
  const char* id;
  int addr;
  const char* manufacturer;
  const char* sim;
};

const Meter kMeters[] = {{"201", 1, "esko-mtr-06", "mtr06:30:3:overclaim=1000"}, {"202", 2, "esko-tm3", "tm3e:26:2"}};

// In a zone with a half-hour offset (simulator and daemon inherit TZ).
TEST(FaultInjection, EskoBackfillSurvivesServerAndLinkFaults) {
  setenv("TZ", "Asia/Kolkata", 1);
  tzset();
  e2e::FaultRig rig("esko.tty");
  const std::string heldOut = rig.root().root() + "/held_out.json";
  std::vector<std::string> simOptions = {"--held-out", heldOut};
  // the record of the interval 11 hours before this one is missing
  const std::string gap = "\"no_record\": [" + std::to_string(mcdtest::LocalHourStart(time(nullptr)) - 11 * 3600) + "]";
  SetControl(rig, e2e::Faults(), gap + ", \"clock\": \"nonsense\"");
  std::string meters;
  for (const Meter& m : kMeters) {
    simOptions.push_back("--meter");
    simOptions.push_back(std::to_string(m.addr) + ":" + m.sim);
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
  // A meter clock that is no date: current values, but no archive.
  ASSERT_TRUE(mcdtest::WaitFor([&] { return Count(rig.DaemonLog(), "00.00.2000 00:00:00 is not a valid date") >= 2; },
                               30s))
      << rig.DaemonLog();
  const long clockPhase = rig.Stats().requests;
  ASSERT_TRUE(rig.WaitRequests(clockPhase, 150, 40s));
  EXPECT_EQ(Count(rig.DaemonLog(), "is not a valid date"), 2u);  // once per meter
  EXPECT_EQ(filed(), 0u);
  SetControl(rig, e2e::Faults(), gap);
  ASSERT_TRUE(mcdtest::WaitFor([&] { return filed() > 0; }, 60s)) << rig.DaemonLog();
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
  const std::pair<const char*, e2e::Faults> phases[] = {{"silent line", silent},
                                                       {"wrong checksums", badSum},
                                                       {"meter error answers", none},
                                                       {"garbage", garbage},
                                                       {"every other answer", everyOther}};
  size_t phasesInBackfill = 0;
  for (const auto& p : phases) {
    if (!caughtUp()) ++phasesInBackfill;
    const long before = rig.Stats().requests;
    const bool meterErrors = std::string(p.first) == "meter error answers";
    SetControl(rig, p.second, gap + (meterErrors ? ", \"error_code\": 5, \"error_every\": 3" : ""));
    EXPECT_TRUE(rig.WaitRequests(before, p.second.every_other || meterErrors ? 12 : 5, 40s)) << p.first;
    SetControl(rig, none, gap);
    ASSERT_TRUE(rig.DaemonRunning()) << p.first << "\n" << rig.DaemonLog();
    // the line faults come one after the other; then the walk must go on
    if (!p.second.garbage && !p.second.every_other && !meterErrors) continue;
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
      120s))
      << rig.DaemonLog();
  EXPECT_EQ(rig.StopDaemon(), 0);

  Json::Value held;
  ASSERT_TRUE(Json::Reader().parse(mcdtest::ReadFile(heldOut), held));
  for (const Meter& m : kMeters)
    ExpectArchivesAsHeldOut(rig.root().storage(std::string(m.id) + "/"), held[std::to_string(m.addr)],
                            mcdtest::LocalHourStart(time(nullptr)) != mcdtest::LocalHourStart(start));
  EXPECT_GE(Count(rig.DaemonLog(), "the meter holds no HOURLY record"), 2u);  // the gap, on both meters
  unsetenv("TZ");
  tzset();
}

}  // namespace
