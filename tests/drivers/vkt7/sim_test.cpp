// The VKT-7 driver against the meter simulator on a line paced at 9600 baud: three daily
// records and the monthly record of the reporting day (its time of work comes most
// significant byte first), as filed, against the simulator's independent list of what
// must be filed; answers arriving at the line's pace are read whole, not in pieces.
#include <gtest/gtest.h>
#include <json/json.h>

#include <fstream>
#include <memory>

#include "drivers/vkt7/vkt7_driver.h"
#include "server/param_names.h"
#include "support/test_support.h"
#include "transport/connector.h"

namespace {

using Filing = std::map<std::string, std::string>;  // "section time file" -> "value,quality"

TEST(Vkt7Simulator, DailyRecordsWithTheMonthlyRecordOfTheReportingDay) {
  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  const time_t today = mcdtest::LocalMidnight(time(nullptr));
  const time_t firstDay = mcdtest::LocalMidnight(today - 3 * 86400 + 7200);
  const time_t monthly = mcdtest::LocalMidnight(today - 2 * 86400 + 7200);
  struct tm parts;
  localtime_r(&monthly, &parts);
  const std::string line = root.root() + "/vkt7.tty", held = root.root() + "/held.json";
  mcdtest::ChildProcess sim;
  ASSERT_TRUE(sim.Start({"python3", mcdtest::SourcePath("tools/vkt7_sim.py"), "--link", line, "--held-out", held,
                         "--baud", "9600", "--first-day", std::to_string(firstDay), "--report-day", std::to_string(parts.tm_mday)}));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(line) && mcdtest::FileExists(held); },
                               std::chrono::seconds(10)));
  std::unique_ptr<CConnector> connector(CConnector::CreateConnector({{"name", line}}));
  Cmcd_VKT7 driver;
  driver.SetConfiguration({{"manufacturer", "vkt-7"}});
  driver.SaveConnector(connector.get());
  driver.init();
  driver.get_all_system_values();  // the reporting day
  ParamValueList out;
  ASSERT_EQ(driver.get_arch_values(5, firstDay, today, out), 1);  // today has no record yet

  Filing filed, expected;
  for (const ParamValue& v : out) {
    const std::string* name = FindParamName(v.kind, v.paramId);
    if ((v.kind != 5 && v.kind != 2) || name == nullptr) continue;
    const std::string key = std::string(v.kind == 5 ? "daily " : "monthly ") + std::to_string(v.timestamp) + " " +
                            std::to_string(v.sys + 1) + (v.kind == 2 ? "/tc_tmp_archives/" : "/tc_archives/") + *name;
    EXPECT_TRUE(filed.emplace(key, v.value + "," + std::to_string(v.quality)).second) << "twice: " << key;
  }
  std::ifstream in(held);
  Json::Value json;
  in >> json;
  for (const char* section : {"daily", "monthly"}) {
    const Json::Value& records = json["0"][section];
    for (const std::string& t : records.getMemberNames()) {
      if (std::stol(t) < firstDay || std::stol(t) > today) continue;
      for (const std::string& file : records[t].getMemberNames())
        expected[std::string(section) + " " + t + " " + file] =
            records[t][file][0].asString() + "," + std::to_string(records[t][file][1].asInt());
    }
  }
  EXPECT_EQ(filed, expected);
  EXPECT_GT(filed.size(), 40u);
  EXPECT_EQ(0u, log.Count("Readed not full string"));
}

}  // namespace
