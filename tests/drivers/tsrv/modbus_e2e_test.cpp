// The real daemon with the configuration server, a simulated TSRV-024M and a simulated
// MAGIKA gateway, each on a Modbus line of its own (one mcd_main per line). During the
// backfill each line goes silent, answers with exceptions and with wrong CRCs; each
// meter lacks one hourly record (the TSRV answers it with the all-zero record, the
// gateway's walk passes it by). Afterwards every record the simulators hold is filed
// exactly once, with the value and quality they say, and nothing else is filed.
#include <json/json.h>
#include <signal.h>

#include <algorithm>
#include <fstream>

#include <gtest/gtest.h>

#include "support/test_support.h"

namespace {

using namespace std::chrono_literals;

struct Line {
  const char* id;
  const char* manufacturer;
  const char* script;
  std::vector<std::string> options;
};

Json::Value ReadJson(const std::string& path) {
  Json::Value value;
  std::ifstream in(path);
  Json::CharReaderBuilder builder;
  std::string errors;
  if (!Json::parseFromStream(builder, in, &value, &errors)) return Json::Value();
  return value;
}

// The newest hourly and daily records the simulator holds are on file.
bool CaughtUp(const std::string& held, const std::string& storage) {
  long hour = 0, day = 0;
  const Json::Value meters = ReadJson(held);
  for (const auto& address : meters.getMemberNames()) {
    for (const auto& t : meters[address]["hourly"].getMemberNames()) hour = std::max(hour, atol(t.c_str()));
    for (const auto& t : meters[address]["daily"].getMemberNames()) day = std::max(day, atol(t.c_str()));
  }
  return atol(mcdtest::ReadFile(storage + "timestamp_max_hourly").c_str()) >= hour &&
         atol(mcdtest::ReadFile(storage + "timestamp_max_daily").c_str()) >= day;
}

TEST(ModbusMeters, EveryHeldRecordIsFiledOnceThroughFaults) {
  mcdtest::TempRoot root;
  const Line lines[] = {
      {"301", "tsrv-024m", "tools/tsrv_sim.py", {"--systems", "2", "--hours", "30", "--days", "3", "--missing-hours", "3"}},
      {"302", "magika-axxx", "tools/magika_sim.py", {"--hours", "30", "--days", "3", "--missing-hours", "5"}},
  };
  auto file = [&](int i, const char* ext) { return root.tmp(std::string(lines[i].id) + ext); };
  mcdtest::ChildProcess sims[2], daemons[2];
  std::string meters;
  for (int i = 0; i < 2; ++i) {
    std::vector<std::string> argv = {"python3", mcdtest::SourcePath(lines[i].script), "--link", file(i, ".tty"),
                                     "--control", file(i, ".control"), "--held-out", file(i, ".held"), "--stats",
                                     file(i, ".stats")};
    argv.insert(argv.end(), lines[i].options.begin(), lines[i].options.end());
    ASSERT_TRUE(sims[i].Start(argv));
    ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(file(i, ".tty")) && mcdtest::FileExists(file(i, ".held")); }, 20s));
    meters += std::string(i ? "," : "") + "\"" + lines[i].id + "\": {\"manufacturer\": \"" + lines[i].manufacturer +
              "\", \"serial\": \"1\", \"heat_systems\": \"2\", \"period_current\": \"601\", \"port_params\": "
              "{\"name\": \"" + file(i, ".tty") + "\", \"speed\": \"19200\", \"protocol\": \"modbus\"}, "
              "\"systems\": {\"system_1\": \"1\", \"system_2\": \"1\"}}";
  }
  // A model this version does not read, on the TSRV line.
  meters += ", \"303\": {\"manufacturer\": \"tem-104\", \"period_current\": \"601\", \"port_params\": {\"name\": \"" +
            file(0, ".tty") + "\", \"protocol\": \"modbus\"}}";
  mcdtest::ConfigServer server;
  ASSERT_TRUE(server.Start("{\"meters\": {" + meters + "}}"));
  auto env = root.env();
  env["MCD_SERVER_URL"] = server.url();
  env["MCD_TIME_SCALE"] = "600";
  // Faults inside the walks: a request for three held hourly records and one daily
  // record of each meter is answered with an exception, not at all, with a wrong CRC;
  // the walk breaks off there and must take up again at that record. The TSRV is asked
  // for each record once per walk; the gateway's first walk passes every line on its way
  // to the archive's end, so there the second read of the line is spoilt.
  std::string once[2];
  for (int i = 0; i < 2; ++i) {
    const Json::Value held = ReadJson(file(i, ".held"));
    const Json::Value& meter = held[held.getMemberNames().at(0)];
    const auto hours = meter["hourly"].getMemberNames(), days = meter["daily"].getMemberNames();
    ASSERT_GE(hours.size(), 20u);
    ASSERT_GE(days.size(), 2u);
    const std::string nth = i == 0 ? "" : "@2";
    once[i] = "\"fault_once\": {\"" + hours[4] + "\": \"exception" + nth + "\", \"" + hours[11] + "\": \"silent" + nth +
              "\", \"" + hours[19] + "\": \"bad_checksum" + nth + "\", \"" + days[1] + "\": \"exception" + nth + "\"}";
  }
  auto control = [&](const std::string& fault) {
    for (int i = 0; i < 2; ++i) {
      mcdtest::WriteFile(file(i, ".control.new"), "{" + fault + (fault.empty() ? "" : ", ") + once[i] + "}");
      rename(file(i, ".control.new").c_str(), file(i, ".control").c_str());
    }
  };
  control("");
  ASSERT_TRUE(daemons[0].Start({mcdtest::MainBinary(), "-e", "-v", "6", "-i", "301", "-i", "303"}, env));
  ASSERT_TRUE(daemons[1].Start({mcdtest::MainBinary(), "-e", "-v", "6", "-i", "302"}, env));
  // And whole-line faults once both meters are identified, each for two requests on
  // each line: silence, exceptions, wrong CRCs.
  ASSERT_TRUE(mcdtest::WaitFor([&] {
    return mcdtest::FileExists(root.tmp("301/1/tc_items/SerialNumber")) &&
           mcdtest::FileExists(root.tmp("302/1/tc_items/SerialNumber"));
  }, 60s)) << daemons[0].Stderr() << daemons[1].Stderr();
  auto requests = [&](int i) { return ReadJson(file(i, ".stats")).get("requests", 0).asInt(); };
  for (const char* fault : {"\"silent\": true", "", "\"exception\": 4", "", "\"bad_checksum\": true", ""}) {
    const int before[2] = {requests(0), requests(1)};
    control(fault);
    EXPECT_TRUE(mcdtest::WaitFor([&] { return requests(0) >= before[0] + 2 && requests(1) >= before[1] + 2; }, 30s))
        << fault;
  }
  ASSERT_TRUE(mcdtest::WaitFor([&] {
    return CaughtUp(file(0, ".held"), root.storage("301/")) && CaughtUp(file(1, ".held"), root.storage("302/"));
  }, 120s)) << daemons[0].Stderr() << daemons[1].Stderr();
  for (int i = 0; i < 2; ++i) {
    int status = -1;
    EXPECT_TRUE(daemons[i].Signal(SIGTERM) && daemons[i].Wait(60s, &status));
    EXPECT_EQ(status, 0);
    EXPECT_TRUE(mcdtest::ArchivesAsHeld(file(i, ".held"), root.storage(), {lines[i].id}, time(nullptr)))
        << lines[i].manufacturer;
  }
  const std::string tsrvLog = daemons[0].Stderr(), magikaLog = daemons[1].Stderr();
  // The faults were met, walks were broken off by them and taken up again, and the
  // missing records were skipped with their times.
  for (const std::string& log : {tsrvLog, magikaLog}) EXPECT_NE(log.find("answered with exception 4"), std::string::npos);
  EXPECT_NE(tsrvLog.find("CmcdTSRV::get_arch_values - hourly record"), std::string::npos);
  EXPECT_NE(magikaLog.find("transfer failed"), std::string::npos);
  EXPECT_NE(tsrvLog.find("holds no hourly record for"), std::string::npos);
  EXPECT_NE(magikaLog.find("holds no hourly line for"), std::string::npos);
  const size_t warning = tsrvLog.find("no driver for manufacturer tem-104: nothing is read");
  EXPECT_NE(warning, std::string::npos);
  EXPECT_EQ(tsrvLog.find("no driver for manufacturer tem-104", warning + 1), std::string::npos);
}

}  // namespace
