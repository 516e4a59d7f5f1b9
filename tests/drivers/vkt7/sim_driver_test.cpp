// The VKT-7 driver without the polling loop: against a scripted meter (golden frames)
// and against the meter simulator, whose --held-out file says independently what must
// be filed for every record it holds.
#include <gtest/gtest.h>
#include <json/json.h>

#include <cstdlib>
#include <fstream>
#include <memory>
#include <set>

#include "drivers/vkt7/vkt7_driver.h"
#include "server/param_names.h"
#include "support/test_support.h"
#include "transport/connector.h"
#include "vkt7_test_util.h"

using namespace vkt7test;

namespace {

// section ("hourly", "daily", "monthly") -> record time -> archive file -> "value,quality"
using Filing = std::map<std::string, std::map<long, std::map<std::string, std::string>>>;

// What the daemon files for the driver's records (names from the dictionary).
Filing AsFiled(const ParamValueList& list, size_t* duplicates) {
  Filing out;
  for (const auto& v : list) {
    const char* section = v.kind == 4 ? "hourly" : v.kind == 5 ? "daily" : v.kind == 2 ? "monthly" : nullptr;
    const std::string* name = FindParamName(v.kind, v.paramId);
    if (section == nullptr || name == nullptr) continue;
    const std::string path = std::to_string(v.sys + 1) + (v.kind == 2 ? "/tc_tmp_archives/" : "/tc_archives/") + *name;
    auto& cell = out[section][v.timestamp][path];
    if (!cell.empty()) ++*duplicates;
    cell = v.value + "," + std::to_string(v.quality);
  }
  return out;
}

// The simulator's held records of one section with times from..to.
std::map<long, std::map<std::string, std::string>> HeldOut(const std::string& path, const char* section, time_t from,
                                                           time_t to) {
  std::ifstream in(path);
  Json::Value root;
  in >> root;
  std::map<long, std::map<std::string, std::string>> out;
  const Json::Value& records = root["0"][section];
  for (const auto& key : records.getMemberNames()) {
    const long t = std::stol(key);
    if (t < from || t > to) continue;
    for (const auto& file : records[key].getMemberNames())
      out[t][file] = records[key][file][0].asString() + "," + std::to_string(records[key][file][1].asInt());
  }
  return out;
}

class Vkt7SimTest : public ::testing::Test {
 protected:
  void Start(const std::vector<std::string>& options) {
    link = root.root() + "/vkt7.tty";
    held = root.root() + "/held.json";
    std::vector<std::string> argv = {"/usr/bin/python3", mcdtest::SourcePath("tools/vkt7_sim.py"), "--link", link,
                                     "--held-out", held};
    argv.insert(argv.end(), options.begin(), options.end());
    ASSERT_TRUE(sim.Start(argv));
    ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(link) && mcdtest::FileExists(held); },
                                 std::chrono::seconds(10)));
    connector.reset(CConnector::CreateConnector({{"name", link}}));
    driver.reset(new Cmcd_VKT7());
    driver->SetConfiguration({{"manufacturer", "vkt-7"}});
    driver->SaveConnector(connector.get());
  }
  void TearDown() override {
    driver.reset();
    connector.reset();
  }
  // Walks the range and checks the records against the simulator's held-out file.
  void ExpectWalk(int type, time_t from, time_t to, int result, size_t records) {
    ParamValueList out;
    ASSERT_EQ(driver->get_arch_values(type, from, to, out), result);
    size_t duplicates = 0;
    Filing filed = AsFiled(out, &duplicates);
    const char* section = type == 4 ? "hourly" : "daily";
    EXPECT_EQ(duplicates, 0u);
    EXPECT_EQ(filed[section].size(), records);
    EXPECT_EQ(filed[section], HeldOut(held, section, from, result ? to : filed[section].rbegin()->first));
  }

  mcdtest::TempRoot root;
  std::string link, held;
  mcdtest::ChildProcess sim;
  std::unique_ptr<CConnector> connector;
  std::unique_ptr<Cmcd_VKT7> driver;
};

TEST_F(Vkt7SimTest, CurrentValuesWithTheMeterQualityAndAClockOutOfReach) {
  LogCapture log(logger::TL_WARNING);
  // the meter clock runs 8 days ahead of the controller's
  Start({"--clock-offset", std::to_string(8 * 86400)});
  driver->init();
  ASSERT_TRUE(driver->IsReady());
  ParamValueList system = driver->get_all_system_values();
  ASSERT_EQ(system.size(), 4u);
  EXPECT_EQ(std::next(system.begin(), 2)->value, "2.7.3");

  ParamValueList current = driver->get_all_curtime_cur_integ_values();
  std::map<std::string, std::string> got;
  for (const auto& v : current)
    got[std::to_string(v.kind) + "/" + std::to_string(v.paramId) + "/" + std::to_string(v.sys)] =
        v.value + "," + std::to_string(v.quality);
  EXPECT_EQ(got["0/6/0"], "51.23,192");   // T1
  EXPECT_EQ(got["0/8/1"], "12.34,192");   // heat input 1's t3, copied (scheme 1)
  EXPECT_EQ(got["0/55/0"], "0,192");      // F1C: no abnormal situation
  EXPECT_EQ(got["1/56/1"], "0,192");      // F2I
  EXPECT_EQ(got.count("0/10/0"), 0u);     // P2 is outside the measuring scheme (0x04)
  EXPECT_EQ(got["1/19/0"], mcd::StreamText(1234567 / 1000.0) + ",192");

  // the clock is not used for archive dates, the current values were read all the same
  Timestamps stamps;
  EXPECT_EQ(driver->GetTimestamps(stamps), 0);
  EXPECT_EQ(log.Count("s away from the controller's, not used for archive dates"), 1u);
}

TEST_F(Vkt7SimTest, AWalkSkipsAHoleAndEndsAtAFailureToResumeThere) {
  LogCapture log(logger::TL_WARNING);
  const std::string control = root.root() + "/control.json";
  const time_t first = mcdtest::LocalHourStart(time(nullptr)) - 8 * 3600;
  // no record at first + 1 h; the fourth record read is answered with error code 2,
  // the ninth date written with error code 5
  Start({"--control", control, "--first-hour", std::to_string(first), "--holes", std::to_string(first + 3600),
         "--error2-reads", "4", "--date-errors", "9:5"});
  mcdtest::WriteFile(control, "{\"bad_checksum\": true}");
  driver->init();
  EXPECT_FALSE(driver->IsReady());
  mcdtest::WriteFile(control, "{}");
  driver->init();
  ASSERT_TRUE(driver->IsReady());

  // the two hours before the first record and the hole are skipped with a Warning;
  // error code 2 at first + 4 h ends the walk with the records before it
  ExpectWalk(4, first - 2 * 3600, first + 6 * 3600, 0, 3);
  EXPECT_EQ(log.Count("Cmcd_VKT7::SendDataForArch3 - No data in arch to "), 3u);
  const time_t hole = first + 3600;
  struct tm parts;
  localtime_r(&hole, &parts);
  char text[32];
  asctime_r(&parts, text);
  EXPECT_EQ(log.Count("No data in arch to " + std::string(text, 24)), 1u);

  // nothing more until the clock was read again; then the walk resumes at first + 4 h
  ParamValueList out;
  EXPECT_EQ(driver->get_arch_values(4, first + 4 * 3600, first + 6 * 3600, out), 0);
  EXPECT_TRUE(out.empty());
  Timestamps stamps;
  ASSERT_NE(driver->GetTimestamps(stamps), 0);
  EXPECT_EQ(stamps.first_hour_arch, first);
  // the date of first + 5 h is answered with code 5: the walk ends there again
  ExpectWalk(4, first + 4 * 3600, first + 6 * 3600, 0, 1);
  ASSERT_NE(driver->GetTimestamps(stamps), 0);
  ExpectWalk(4, first + 5 * 3600, first + 6 * 3600, 1, 2);

  // a link failure ends the walk as well
  mcdtest::WriteFile(control, "{\"bad_checksum\": true}");
  EXPECT_EQ(driver->get_arch_values(4, first + 6 * 3600, first + 7 * 3600, out), 0);
  EXPECT_TRUE(out.empty());
}

class Vkt7MaskTest : public Vkt7SimTest, public ::testing::WithParamInterface<const char*> {};

TEST_P(Vkt7MaskTest, AMaskChangeIsReadAgainAfterTheListIsSynchronised) {
  LogCapture log(logger::TL_WARNING);
  const time_t first = mcdtest::LocalHourStart(time(nullptr)) - 6 * 3600;
  Start({"--first-hour", std::to_string(first), "--mask-change-after", "2", "--mask-mode", GetParam()});
  driver->init();
  ParamValueList out;
  ASSERT_EQ(driver->get_arch_values(4, first, first + 3 * 3600, out), 1);
  std::map<long, size_t> t1, stop;
  for (const auto& v : out) {
    if (v.paramId == 6 && v.sys == 0) ++t1[v.timestamp];
    if (v.paramId == 29 && v.sys == 0) ++stop[v.timestamp];
  }
  EXPECT_EQ(t1, (std::map<long, size_t>{{first, 1}, {first + 3600, 1}, {first + 7200, 1}, {first + 10800, 1}}));
  // element 18 (parameter 29) left the list after the second record
  EXPECT_EQ(stop, (std::map<long, size_t>{{first, 1}, {first + 3600, 1}}));
  EXPECT_EQ(log.Count("activity mask is changed, need to reread"), std::string(GetParam()) == "byte5" ? 2u : 1u);
}

INSTANTIATE_TEST_SUITE_P(Modes, Vkt7MaskTest, ::testing::Values("code5", "byte5"));

TEST_P(Vkt7MaskTest, ASecondChangeOnTheReReadEndsTheWalkThere) {
  const time_t first = mcdtest::LocalHourStart(time(nullptr)) - 6 * 3600;
  Start({"--first-hour", std::to_string(first), "--mask-change-after", "2", "--mask-change-twice", "--mask-mode",
         GetParam()});
  driver->init();
  ExpectWalk(4, first, first + 3 * 3600, 0, 2);
  Timestamps stamps;
  ASSERT_NE(driver->GetTimestamps(stamps), 0);
  ParamValueList out;
  ASSERT_EQ(driver->get_arch_values(4, first + 2 * 3600, first + 3 * 3600, out), 1);
  std::set<long> times;
  for (const auto& v : out) times.insert(v.timestamp);
  EXPECT_EQ(times, (std::set<long>{first + 2 * 3600, first + 3 * 3600}));
}

TEST_F(Vkt7SimTest, DailyRecordsWithTheMonthlyRecordOfTheReportingDay) {
  const time_t today = mcdtest::LocalMidnight(time(nullptr));
  const time_t firstDay = mcdtest::LocalMidnight(today - 3 * 86400 + 7200);
  const time_t monthly = mcdtest::LocalMidnight(today - 2 * 86400 + 7200);
  struct tm parts;
  localtime_r(&monthly, &parts);
  Start({"--first-day", std::to_string(firstDay), "--report-day", std::to_string(parts.tm_mday)});
  driver->init();
  driver->get_all_system_values();
  ParamValueList out;
  ASSERT_EQ(driver->get_arch_values(5, firstDay, today, out), 1);  // today has no record yet
  size_t duplicates = 0;
  Filing filed = AsFiled(out, &duplicates);
  EXPECT_EQ(duplicates, 0u);
  EXPECT_EQ(filed["daily"].size(), 3u);
  EXPECT_EQ(filed["daily"], HeldOut(held, "daily", firstDay, today));
  EXPECT_EQ(filed["monthly"].size(), 1u);
  EXPECT_EQ(filed["monthly"], HeldOut(held, "monthly", firstDay, today));
  EXPECT_NE(mcdtest::ReadFile(root.storage("vkt7log.log")).find("TimeOfWork\n"), std::string::npos);
}

TEST_F(Vkt7SimTest, OldMeterSizedUnitsAndNoClockRead) {
  LogCapture log(logger::TL_INFO);
  Start({"--old-meter", "--base-type", "1"});
  driver->init();
  EXPECT_EQ(driver->Units().at(53), "Gcal");
  driver->get_all_system_values();
  Timestamps stamps;
  ASSERT_NE(driver->GetTimestamps(stamps), 0);
  EXPECT_EQ(log.Count("current time heat meter"), 0u);
}

// Walks over a zone's clock change (or none), on the meter's local labels.
struct ZoneCase {
  const char* tz;
  int year, month, day;  // the hourly walk starts at 00:00 of this day and lasts 5 hours
  size_t hours;          // local hours in those 5 hours
};

void PrintTo(const ZoneCase& c, std::ostream* os) {
  *os << c.tz << " " << c.year << "-" << c.month << "-" << c.day;
}

class Vkt7CalendarTest : public Vkt7SimTest, public ::testing::WithParamInterface<ZoneCase> {
 protected:
  void SetUp() override {
    const char* tz = getenv("TZ");
    if (tz) savedTz = tz;
    hadTz = tz != nullptr;
    setenv("TZ", GetParam().tz, 1);
    tzset();
  }
  void TearDown() override {
    Vkt7SimTest::TearDown();
    if (hadTz)
      setenv("TZ", savedTz.c_str(), 1);
    else
      unsetenv("TZ");
    tzset();
  }
  static time_t Local(int year, int month, int day, int hour) {
    struct tm parts = {};
    parts.tm_year = year - 1900;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_isdst = -1;
    return mktime(&parts);
  }
  std::string savedTz;
  bool hadTz = false;
};

TEST_P(Vkt7CalendarTest, HoursAndDaysAcrossTheChange) {
  const ZoneCase& c = GetParam();
  const time_t from = Local(c.year, c.month, c.day, 0);
  const time_t dayBefore = Local(c.year, c.month, c.day - 1, 0);
  const time_t meterNow = Local(c.year, c.month, c.day + 3, 12);
  Start({"--clock-offset", std::to_string(meterNow - time(nullptr)), "--first-hour",
         std::to_string(from - 2 * 86400), "--first-day", std::to_string(dayBefore - 86400)});
  driver->init();
  ASSERT_TRUE(driver->IsReady());
  ExpectWalk(4, from, from + 5 * 3600, 1, c.hours);
  // three days, each stamped at its local start, however long it is
  ExpectWalk(5, dayBefore, Local(c.year, c.month, c.day + 1, 12), 1, 3);
}

INSTANTIATE_TEST_SUITE_P(
    Zones, Vkt7CalendarTest,
    ::testing::Values(ZoneCase{"UTC", 2026, 10, 25, 6}, ZoneCase{"Europe/Moscow", 2026, 10, 25, 6},
                      ZoneCase{"Asia/Kolkata", 2026, 10, 25, 6}, ZoneCase{"Europe/Berlin", 2026, 10, 25, 5},
                      ZoneCase{"Europe/Berlin", 2026, 3, 29, 6}, ZoneCase{"America/New_York", 2026, 11, 1, 5},
                      ZoneCase{"Australia/Sydney", 2026, 4, 5, 5}, ZoneCase{"Australia/Sydney", 2026, 10, 4, 6}));

// init fails on a broken properties answer and is retried; lists written to the meter
// carry the 0x40000000 flag in every record.
TEST(Vkt7ScriptedMeter, InitRetriedUntilThePropertiesAreReadAndListsCarryTheFlag) {
  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  std::unique_ptr<CConnector> connector(CConnector::CreateConnector({{"name", pty.slaveName()}}));
  Bytes props = Hex("00 03 B1");
  Bytes data(177, 0);
  data[0] = 'C';   // unit of t
  data[117] = 2;   // fraction digits of t
  props.insert(props.end(), data.begin(), data.end());
  const Bytes goodProps = [&] { Bytes b = props; b.push_back(0x4E); b.push_back(0x39); return b; }();
  const Bytes badProps = [&] { Bytes b = props; b.push_back(0x4E); b.push_back(0x38); return b; }();
  Bytes init2 = Hex("00 03 3E");
  init2.resize(65, 0);
  init2.push_back(0xD1);
  init2.push_back(0x6E);

  int selected = -1;
  int propsReads = 0;
  Peer peer(pty.master(), [&](size_t, const Bytes& r) -> std::vector<Bytes> {
    const int reg = r[4] << 8 | r[5];
    if (r[3] == 0x10 && reg == 0x3FFD) {
      selected = r[9];
      return {Hex("00 10 3F FD 00 00 5C 3C")};
    }
    if (r[3] == 0x10) {
      if (r[8] == 0xCC) selected = -1;
      return {Hex("00 10 3F FF 00 00 FD FC")};
    }
    if (reg == 0x3FFC) return {Hex("00 03 0C 00 00 00 00 02 00 4D 00 00 40 01 00 DC 30")};
    if (selected == -1) return {init2};
    if (selected == 6) return {++propsReads == 1 ? badProps : goodProps};
    return {Hex("00 03 07 1F 14 C0 00 2A C0 00 B9 1D")};  // t1 5151, element 77 '*'
  });
  Cmcd_VKT7 driver;
  driver.SetConfiguration({{"manufacturer", "vkt-7"}});
  driver.SaveConnector(connector.get());

  driver.init();
  ASSERT_FALSE(driver.IsReady());
  const size_t asked = peer.Requests().size();
  EXPECT_TRUE(driver.get_all_curtime_cur_integ_values().empty());
  ParamValueList out;
  EXPECT_EQ(driver.get_arch_values(4, 0, 3600, out), 0);
  EXPECT_EQ(peer.Requests().size(), asked);  // nothing asked before the driver is ready

  driver.init();
  ASSERT_TRUE(driver.IsReady());
  Bytes propsList = Hex("FF FF 00 10 3F FF 00 00 C6");
  for (int e = 44; e <= 76; ++e) {
    const Bytes record = {static_cast<unsigned char>(e), 0x00, 0x00, 0x40, static_cast<unsigned char>(e <= 56 ? 7 : 1),
                          0x00};
    propsList.insert(propsList.end(), record.begin(), record.end());
  }
  propsList.push_back(0x4E);
  propsList.push_back(0x87);
  const std::vector<Bytes> sent = peer.Requests();
  EXPECT_EQ(std::count(sent.begin(), sent.end(), propsList), 2);
  // the meter's list lacked the flag on element 0: it is written with it
  EXPECT_EQ(sent.back(), Hex("FF FF 00 10 3F FF 00 00 0C 00 00 00 40 02 00 4D 00 00 40 01 00 AE E2"));

  ParamValueList current = driver.get_all_curtime_cur_integ_values();
  ASSERT_EQ(current.size(), 8u);  // t1, F1C and the two masks, current and integral
  EXPECT_EQ(current.front().value, "51.51");
  EXPECT_EQ(current.front().dim, "C");
  EXPECT_EQ(current.front().quality, 192);
  EXPECT_EQ(std::next(current.begin())->paramId, 55);
  EXPECT_EQ(std::next(current.begin())->value, "1");
}

}  // namespace
