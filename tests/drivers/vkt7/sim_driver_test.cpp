// The VKT-7 driver against the meter simulator on a pseudo-terminal, without the
// polling loop: each driver operation is called directly.
#include <gtest/gtest.h>

#include <memory>
#include <set>

#include "drivers/base/value_text.h"
#include "drivers/vkt7/vkt7_driver.h"
#include "support/test_support.h"
#include "transport/connector.h"
#include "vkt7_test_util.h"

using namespace vkt7test;

namespace {

std::vector<const ParamValue*> All(const ParamValueList& list, int param, int kind, int sys) {
  std::vector<const ParamValue*> out;
  for (const auto& v : list)
    if (v.paramId == param && v.kind == kind && v.sys == sys) out.push_back(&v);
  return out;
}

class Vkt7SimTest : public ::testing::Test {
 protected:
  void Start(const std::vector<std::string>& options) {
    link = root.root() + "/vkt7.tty";
    std::vector<std::string> argv = {"/usr/bin/python3", mcdtest::SourcePath("tools/vkt7_sim.py"), "--link", link};
    argv.insert(argv.end(), options.begin(), options.end());
    ASSERT_TRUE(sim.Start(argv));
    ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(link); }, std::chrono::seconds(10)));
    connector.reset(CConnector::CreateConnector({{"name", link}}));
    driver.reset(new Cmcd_VKT7());
    driver->SetConfiguration({{"manufacturer", "vkt-7"}});
    driver->SaveConnector(connector.get());
  }
  void TearDown() override {
    driver.reset();
    connector.reset();
  }

  mcdtest::TempRoot root;
  std::string link;
  mcdtest::ChildProcess sim;
  std::unique_ptr<CConnector> connector;
  std::unique_ptr<Cmcd_VKT7> driver;
};

TEST_F(Vkt7SimTest, SessionSystemAndCurrentValues) {
  const time_t firstHour = mcdtest::LocalHourStart(time(nullptr)) - 5 * 3600;
  Start({"--first-hour", std::to_string(firstHour), "--report-day", "25"});
  driver->init();
  EXPECT_EQ(driver->BaseType(), 0);
  EXPECT_EQ(driver->Units().at(48), "kgf/cm2");
  EXPECT_EQ(driver->FractionDigits().at(66), 4);
  EXPECT_EQ(driver->ActiveList().size(), 22u);
  EXPECT_EQ(driver->Scheme(), 1);

  ParamValueList system = driver->get_all_system_values();
  ASSERT_EQ(system.size(), 4u);
  std::vector<std::string> texts;
  for (const auto& v : system) {
    EXPECT_EQ(v.kind, 7);
    EXPECT_EQ(v.quality, 0xC0);
    EXPECT_EQ(v.timestamp, system.front().timestamp);
    texts.push_back(std::to_string(v.paramId) + "=" + v.value);
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"31=ООО \"Теплоком\"", "32=ВКТ-7", "33=2.7.3", "38=0x12"}));
  EXPECT_EQ(driver->ReportingDay(), 25);

  ParamValueList current = driver->get_all_curtime_cur_integ_values();
  ASSERT_EQ(All(current, 6, 0, 0).size(), 1u);
  EXPECT_EQ(All(current, 6, 0, 0)[0]->value, "51.23");
  EXPECT_EQ(All(current, 6, 0, 0)[0]->dim, "C");
  EXPECT_EQ(All(current, 6, 0, 1)[0]->value, "52.23");
  EXPECT_EQ(All(current, 9, 0, 0)[0]->value, "6.12");
  EXPECT_EQ(All(current, 0, 0, 0)[0]->value, "12.5");
  // scheme 1: system 0's t3 is filed for system 1 as well
  ASSERT_EQ(All(current, 8, 0, 1).size(), 1u);
  EXPECT_EQ(All(current, 8, 0, 1)[0]->value, "12.34");
  EXPECT_EQ(All(current, 55, 0, 0)[0]->value, "42");
  EXPECT_EQ(All(current, 19, 1, 0)[0]->value, mcd::StreamText(1234567 / 1000.0));
  EXPECT_EQ(All(current, 17, 1, 1)[0]->value, mcd::StreamText(988657 / 10000.0));
  EXPECT_EQ(All(current, 14, 0, 0).size(), 1u);
  EXPECT_EQ(All(current, 14, 1, 1).size(), 1u);
  int32_t stamp = current.front().timestamp;
  for (const auto& v : current) EXPECT_EQ(v.timestamp, stamp);

  Timestamps ts;
  ASSERT_NE(driver->GetTimestamps(ts), 0);
  EXPECT_EQ(ts.first_hour_arch, firstHour);
  EXPECT_EQ(ts.first_day_arch, mcdtest::LocalMidnight(mcdtest::LocalMidnight(time(nullptr)) - 3 * 86400 + 7200));
  EXPECT_LE(std::abs(ts.meter_time - static_cast<int32_t>(time(nullptr))), 3);
}

// Hourly records around the first record, with the activity mask changing in the
// middle: the records before the first one are skipped, the others come once each.
class Vkt7HourlyTest : public Vkt7SimTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(Vkt7HourlyTest, BackfillWithAMaskChange) {
  LogCapture log(logger::TL_WARNING);
  const time_t firstHour = mcdtest::LocalHourStart(time(nullptr)) - 6 * 3600;
  Start({"--first-hour", std::to_string(firstHour), "--mask-change-after", "2", "--mask-mode", GetParam()});
  driver->init();
  ParamValueList out;
  ASSERT_EQ(driver->get_arch_values(4, firstHour - 2 * 3600, firstHour + 3 * 3600, out), 0);

  std::vector<const ParamValue*> t1 = All(out, 6, 4, 0);
  ASSERT_EQ(t1.size(), 4u);
  for (int i = 0; i < 4; ++i) {
    const time_t t = firstHour + i * 3600;
    EXPECT_EQ(t1[i]->timestamp, t);
    EXPECT_EQ(t1[i]->value, vkt7test::SimValue(5123, t / 3600, 2));
  }
  // element 18 (stop time, parameter 29) left the list after the second record
  std::vector<const ParamValue*> stop = All(out, 29, 4, 0);
  ASSERT_EQ(stop.size(), 2u);
  EXPECT_EQ(stop[1]->timestamp, firstHour + 3600);
  EXPECT_EQ(All(out, 14, 4, 0).size(), 4u);
  EXPECT_EQ(All(out, 14, 4, 1).size(), 4u);
  EXPECT_EQ(log.Count("activity mask is changed, need to reread"), std::string(GetParam()) == "byte5" ? 2u : 1u);
  EXPECT_EQ(driver->get_arch_values(7, 0, 0, out), 2);
}

INSTANTIATE_TEST_SUITE_P(Modes, Vkt7HourlyTest, ::testing::Values("code5", "byte5"));

TEST_F(Vkt7SimTest, DailyRecordsWithTheMonthlyArchiveOnTheReportingDay) {
  const time_t today = mcdtest::LocalMidnight(time(nullptr));
  const time_t firstDay = mcdtest::LocalMidnight(today - 3 * 86400 + 7200);
  const time_t yesterday = mcdtest::LocalMidnight(today - 43200);
  const time_t monthly = mcdtest::LocalMidnight(today - 2 * 86400 + 7200);
  struct tm tmv;
  localtime_r(&monthly, &tmv);
  Start({"--first-day", std::to_string(firstDay), "--report-day", std::to_string(tmv.tm_mday)});
  driver->init();
  ParamValueList system = driver->get_all_system_values();
  ASSERT_EQ(driver->ReportingDay(), tmv.tm_mday);

  ParamValueList out;
  ASSERT_EQ(driver->get_arch_values(5, firstDay, today, out), 0);
  std::vector<const ParamValue*> t1 = All(out, 6, 5, 0);
  ASSERT_EQ(t1.size(), 3u);  // today has no record yet
  EXPECT_EQ(t1[0]->timestamp, firstDay);
  EXPECT_EQ(t1[2]->timestamp, yesterday);
  EXPECT_EQ(t1[1]->value, vkt7test::SimValue(5123, t1[1]->timestamp / 86400, 2));

  // one monthly record, of kind 2, with the time of work read most significant byte first
  std::vector<const ParamValue*> work = All(out, 18, 2, 0);
  ASSERT_EQ(work.size(), 1u);
  EXPECT_EQ(work[0]->timestamp, monthly);
  EXPECT_EQ(work[0]->value, vkt7test::SimValue(7200, (tmv.tm_year + 1900) * 12 + tmv.tm_mon, 0));
  EXPECT_NE(mcdtest::ReadFile(root.storage("vkt7log.log")).find("TimeOfWork\n"), std::string::npos);
  EXPECT_NE(mcdtest::ReadFile(root.storage("vkt7log.log")).find("SyncActiveParameters41\n"), std::string::npos);
}

TEST_F(Vkt7SimTest, OldMeterSizedUnitsAndNoClockRead) {
  LogCapture log(logger::TL_INFO);
  Start({"--old-meter", "--base-type", "1", "--report-day", "31"});
  driver->init();
  EXPECT_EQ(driver->BaseType(), 1);
  EXPECT_EQ(driver->Units().at(53), "Gcal");
  ParamValueList system = driver->get_all_system_values();
  ASSERT_EQ(system.size(), 4u);
  EXPECT_EQ(std::next(system.begin(), 2)->value, "<1.5");
  EXPECT_EQ(driver->ReportingDay(), 31);
  Timestamps ts;
  ASSERT_NE(driver->GetTimestamps(ts), 0);
  EXPECT_EQ(log.Count("current time heat meter"), 0u);
  EXPECT_EQ(log.Count("Cur_date - "), 1u);
}

TEST_F(Vkt7SimTest, BrokenAnswersGiveEmptyResults) {
  // (a silent meter is covered by the link tests; a broken checksum fails at once)
  LogCapture log(logger::TL_ERR);
  const std::string control = root.root() + "/control.json";
  mcdtest::WriteFile(control, "{\"bad_checksum\": true}");
  Start({"--control", control});
  Timestamps ts;
  EXPECT_EQ(driver->GetTimestamps(ts), 0);
  EXPECT_EQ(log.Count("Cmcd_VKT7::GetTimestamps - exchange failed"), 1u);
  EXPECT_TRUE(driver->get_all_system_values().empty());
  EXPECT_TRUE(driver->get_all_curtime_cur_integ_values().empty());
  ParamValueList out;
  EXPECT_EQ(driver->get_arch_values(4, 0, 3600, out), -1);
  EXPECT_TRUE(out.empty());
  // the meter recovers: the next reading works again
  mcdtest::WriteFile(control, "{}");
  EXPECT_NE(driver->GetTimestamps(ts), 0);
}

TEST_F(Vkt7SimTest, AfterAFailedArchiveBlockNoLaterBlockIsReadUntilTheClockIsReadAgain) {
  // A later block filed after a failed one would move the bound past the failed
  // block's records, and they would never be asked for again.
  LogCapture log(logger::TL_ERR);
  const std::string control = root.root() + "/control.json";
  const time_t firstHour = mcdtest::LocalHourStart(time(nullptr)) - 8 * 3600;
  Start({"--control", control, "--first-hour", std::to_string(firstHour)});
  driver->init();
  mcdtest::WriteFile(control, "{\"bad_checksum\": true}");
  ParamValueList out;
  EXPECT_EQ(driver->get_arch_values(4, firstHour, firstHour + 3600, out), -1);
  mcdtest::WriteFile(control, "{}");
  EXPECT_EQ(driver->get_arch_values(4, firstHour + 7200, firstHour + 3 * 3600, out), -1);
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(log.Count("Cmcd_VKT7::get_arch_values - link failed earlier in this reading, HOURLY records left"), 1u);

  Timestamps ts;
  ASSERT_NE(driver->GetTimestamps(ts), 0);
  EXPECT_EQ(driver->get_arch_values(4, firstHour, firstHour + 3600, out), 0);
  EXPECT_EQ(All(out, 6, 4, 0).size(), 2u);
}

}  // namespace
