// The shared polling loop, driven through simulated time by a scripted driver on a real
// client whose files live under a temporary root (zone UTC+3, no daylight saving).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "drivers/base/base_driver.h"
#include "drivers/base/calendar.h"
#include "server/jsonrpc_connector.h"
#include "support/test_support.h"
#include "tz_fixture.h"

namespace {

using namespace std::chrono_literals;

struct ArchCall {
  int type;
  time_t from, to;
};

// Answers from a script set before its thread starts and records what the loop asked.
class FakeDriver : public CMcdBaseDriver {
 public:
  ~FakeDriver() override { stop(); }
  using CMcdBaseDriver::ArchivesLag;
  using CMcdBaseDriver::ReadHourlyArch;
  using CMcdBaseDriver::WaitVKT7;

  Timestamps stamps;
  std::function<time_t()> meterClock;   // the meter's time when set, else stamps.meter_time
  bool fillArchives = false;            // one record per archive call, stamped `to`
  std::atomic<int> readyAfterInits{0};  // not ready until init() ran this often
  // A meter with an archive: an archive call walks the local hours (days) from..to; a
  // record the meter holds gives one value (id 6), one it does not hold is skipped as the
  // meter's "no record" answer, and one in failAt ends the call with 0 (once) as a link
  // failure would.
  std::function<bool(int type, time_t t)> holds;
  std::set<std::pair<int, time_t>> failAt;
  std::function<int(const ArchCall&, ParamValueList&)> answer;  // replaces the answer
  std::function<void(const ArchCall&)> onArch;  // called before each archive answer
  std::atomic<int> inits{0}, currents{0}, systems{0};

  static std::string ValueOf(int type, time_t t) { return std::to_string(type) + "." + std::to_string(t / 60); }
  std::vector<ArchCall> Calls(int type = -1) {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<ArchCall> out;
    for (const auto& call : m_calls)
      if (type < 0 || call.type == type) out.push_back(call);
    return out;
  }

  void SaveConnector(CConnector*) override {}
  void init() override { inits.fetch_add(1); }
  bool IsReady() const override { return inits.load() >= readyAfterInits.load(); }
  ParamValueList get_all_system_values() override {
    systems.fetch_add(1);
    return {ParamValue(34, 7, "SN-1001", "", 192, 0, 0, static_cast<int32_t>(MeterTime()))};
  }
  ParamValueList get_all_curtime_cur_integ_values() override {
    currents.fetch_add(1);
    return {ParamValue(6, 0, "55.5", "C", 192, 0, 0, static_cast<int32_t>(MeterTime()))};
  }
  int GetTimestamps(Timestamps& out) override {
    out = stamps;
    out.meter_time = static_cast<int32_t>(MeterTime());
    return 1;
  }
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_calls.push_back({type, from, to});
    }
    if (onArch) onArch({type, from, to});
    if (answer) return answer({type, from, to}, out);
    for (time_t t = from; holds && t <= to; t = type == ARCH_HOURLY ? mcd::cal::NextHour(t) : mcd::cal::NextDay(t)) {
      if (failAt.erase({type, t})) return 0;
      if (holds(type, t)) out.emplace_back(6, type, ValueOf(type, t), "", 192, 0, 0, static_cast<int32_t>(t));
    }
    // paramId 6 is A20 in the hourly and A48 in the daily archive.
    if (fillArchives) out.emplace_back(6, type, "1.5", "t", 192, 0, 0, static_cast<int32_t>(to));
    return 1;
  }

 private:
  time_t MeterTime() { return meterClock ? meterClock() : stamps.meter_time; }
  std::mutex m_mutex;
  std::vector<ArchCall> m_calls;
};

// The meter's clock stands at 2016-03-05 10:30:00 local.
constexpr time_t kMeterTime = 1457163000;
constexpr time_t kHourEnd = kMeterTime - 5400;  // 09:00, the last complete hour
constexpr time_t kDayEnd = 1457038800;          // 2016-03-04 00:00, start of yesterday
constexpr time_t kDay = 86400;
constexpr time_t kNextCheck = kMeterTime + 1860;  // a minute past the meter's next hour
constexpr time_t kRetry = kMeterTime + 10;

class PollingTest : public ::testing::Test {
 protected:
  void TearDown() override { driver.reset(); }  // cancels and joins the loop thread
  FakeDriver& Make(const ParamMap& config) {
    driver.reset(new FakeDriver());
    driver->stamps.meter_time = static_cast<int32_t>(kMeterTime);
    driver->SetJsonRpcConnector(&client);
    driver->SetConfiguration(config);
    return *driver;
  }
  // Hands the first turn over before the thread starts, as the supervision does.
  void Start(const std::string& manufacturer) {
    driver->SetTurn();
    driver->start(driver.get(), manufacturer);
  }
  bool NextCycle(bool give = true) {
    if (give) driver->SetTurn();
    return mcdtest::WaitFor([this] { return !driver->GetTurn(); }, 20s);
  }
  std::string Item(const std::string& name) const { return mcdtest::ReadFile(root.tmp("77/1/tc_items/" + name)); }
  std::vector<std::string> Archive(const char* name) const {
    return mcdtest::ReadLines(root.storage(std::string("77/1/tc_archives/") + name));
  }

  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  mcdtest::FakeClock clock{kMeterTime};
  CJSONRPCConnector client{"77", 0};
  std::unique_ptr<FakeDriver> driver;
};

TEST_F(PollingTest, CycleOrderLogTextsAndWhatIsFiled) {
  Make({{"period_current", "600"}});  // up to 600 s: first archives held back
  Start("tem-104");
  ASSERT_TRUE(NextCycle(false));
  EXPECT_EQ(driver->currents.load(), 1);
  EXPECT_TRUE(driver->Calls().empty());
  driver.reset();

  auto& d = Make({{"period_current", "601"}});
  d.fillArchives = true;
  d.stamps.first_day_arch = static_cast<int32_t>(kDayEnd);  // only yesterday is due
  Start("tem-104");
  ASSERT_TRUE(NextCycle(false));
  const std::string text = log.Text();
  size_t at = 0;
  for (const char* line : {"CMcdBaseDriver::functionThread begin all current values.",
                           "CMcdBaseDriver::functionThread end all current values.",
                           "CMcdBaseDriver::ReadHourlyArch readed all hourly values.",
                           "CMcdBaseDriver::ReadDailyArch readed all daily values."}) {
    at = text.find(line, at);
    ASSERT_NE(at, std::string::npos) << "missing or out of order: " << line << "\n" << text;
  }
  // ninety days back, one block per local day, each following the one before
  const auto hourly = d.Calls(ARCH_HOURLY);
  ASSERT_EQ(hourly.size(), 91u);
  EXPECT_EQ(hourly.front().from, kHourEnd - 90 * kDay);
  for (size_t i = 0; i < hourly.size(); ++i) {
    EXPECT_EQ(mcdtest::LocalMidnight(hourly[i].from), mcdtest::LocalMidnight(hourly[i].to)) << i;
    EXPECT_EQ(i + 1 < hourly.size() ? hourly[i + 1].from - 3600 : kHourEnd, hourly[i].to) << i;
  }
  EXPECT_EQ(Archive("A20").size(), 91u);
  EXPECT_EQ(Archive("A48"), std::vector<std::string>{"1457038800,192,1.5"});
  EXPECT_EQ(client.ReadMaxTimestamp(ARCH_HOURLY), kHourEnd);
  EXPECT_EQ(Item("T1"), "55.5\n");
  EXPECT_EQ(Item("Connected"), "1\n");
  EXPECT_TRUE(d.ArchivesCurrent());
  clock.Set(kMeterTime + 4000);  // nothing new to ask for
  ASSERT_TRUE(NextCycle());
  EXPECT_EQ(d.Calls().size(), 92u);
}

// The archives lag when the last complete hour (day) is more than two hours past the
// newest record on file.
TEST_F(PollingTest, ArchivesLagFromTwoHoursAndOneSecond) {
  auto& d = Make({});
  const struct {
    time_t hourly, daily;
    bool lag;
  } cases[] = {{kHourEnd - 7199, kDayEnd, false}, {kHourEnd - 7200, kDayEnd, false},
               {kHourEnd - 7201, kDayEnd, true},  {kHourEnd, kDayEnd - 7200, false},
               {kHourEnd, kDayEnd - 7201, true}};
  for (const auto& c : cases) {
    ASSERT_TRUE(client.WriteMaxTimestamp(ARCH_HOURLY, c.hourly));
    ASSERT_TRUE(client.WriteMaxTimestamp(ARCH_DAILY, c.daily));
    EXPECT_EQ(d.ArchivesLag(), c.lag) << kHourEnd - c.hourly << " " << kDayEnd - c.daily;
  }
}

// A VKT meter is held back until 90 minutes after the previous connection's start,
// unless its archives are three days behind.
TEST_F(PollingTest, VktHoldOffEndsNinetyMinutesAfterTheLastStart) {
  auto& d = Make({});
  client.WriteVKT7Timestamp();
  const time_t started = client.ReadVKT7Timestamp();
  ASSERT_TRUE(client.WriteMaxTimestamp(ARCH_HOURLY, started));
  for (time_t elapsed : {0, 5399, 5400, 5401}) {
    clock.Set(started + elapsed);
    ASSERT_TRUE(client.WriteMaxTimestamp(ARCH_DAILY, started));
    d.WaitVKT7();
    EXPECT_EQ(clock.Now(), started + elapsed);
  }
  EXPECT_EQ(log.Count("sleeping"), 1u) << log.Text();
  EXPECT_EQ(log.Count("CMcdBaseDriver::WaitVKT7 sleeping 1 seconds"), 1u);

  clock.Set(started + 100);
  ASSERT_TRUE(client.WriteMaxTimestamp(ARCH_DAILY, started + 100 - 259200));
  d.WaitVKT7();
  EXPECT_GE(clock.Now(), started + 5400);
  EXPECT_LE(clock.Now(), started + 5401);
  EXPECT_EQ(log.Count("CMcdBaseDriver::WaitVKT7 sleeping 5300 seconds"), 1u);
  clock.Set(started + 100);
  ASSERT_TRUE(client.WriteMaxTimestamp(ARCH_DAILY, started + 100 - 259201));
  d.WaitVKT7();
  EXPECT_EQ(clock.Now(), started + 100);
}

// The storage is away when the walk begins, so the bound reads 0 and the walk starts
// at the first record; it comes back before the first block is filed, with records up
// to 09:00 two days ago on file. Nothing up to and including that record is filed again.
TEST_F(PollingTest, StorageBackDuringTheWalkFilesNothingTwice) {
  auto& d = Make({});
  d.holds = [](int, time_t) { return true; };
  d.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd - 4 * kDay);
  const std::string dir = root.storage("77");
  ASSERT_EQ(rename(dir.c_str(), (dir + ".away").c_str()), 0);
  mcdtest::WriteFile(dir, "");
  const time_t filed = kHourEnd - 2 * kDay;
  d.onArch = [&](const ArchCall& call) {
    if (call.from != kHourEnd - 4 * kDay) return;
    unlink(dir.c_str());
    rename((dir + ".away").c_str(), dir.c_str());
    client.WriteMaxTimestamp(ARCH_HOURLY, filed);
  };
  EXPECT_EQ(d.ReadHourlyArch(), kNextCheck);
  const auto lines = Archive("A20");
  ASSERT_EQ(lines.size(), 48u);
  EXPECT_EQ(lines.front(), std::to_string(filed + 3600) + ",192," + FakeDriver::ValueOf(ARCH_HOURLY, filed + 3600));
  EXPECT_EQ(client.ReadMaxTimestamp(ARCH_HOURLY), kHourEnd);
}

// Europe/Berlin: on 2026-10-25 03:00 CEST becomes 02:00 CET.
constexpr time_t kBerlinMeterStart = 1793007000;  // 2026-10-26 10:30 CET
constexpr time_t kBerlinFirstHour = 1792706400;   // 2026-10-23 00:00 CEST
constexpr time_t kBerlinFirstDay = 1792447200;    // 2026-10-20 00:00 CEST
constexpr time_t kBerlinNoHour = 1792810800;      // 2026-10-24 05:00 CEST, not held
constexpr time_t kBerlinFailHour = 1792839600;    // 2026-10-24 13:00 CEST, fails once
constexpr time_t kBerlinNoDay = 1792620000;       // 2026-10-22, not held
constexpr time_t kBerlinFailDay = 1792706400;     // 2026-10-23, fails once

// Every record the meter holds is filed exactly once, in time order, with its value,
// across a walk that fails in the middle, a record the meter does not hold, a driver
// that is not ready for its first turns, controller clock steps back and forward (and
// one too far for the meter's clock to be used) and a daylight-saving change.
TEST_F(PollingTest, EveryHeldRecordIsFiledOnceWhateverHappens) {
  mcdtest::ZoneScope zone("Europe/Berlin");
  clock.Set(kBerlinMeterStart);
  auto& d = Make({{"period_current", "601"}});
  d.meterClock = [this] { return clock.Monotonic(); };  // the meter's clock never steps
  d.stamps.first_hour_arch = static_cast<int32_t>(kBerlinFirstHour);
  d.stamps.first_day_arch = static_cast<int32_t>(kBerlinFirstDay);
  d.holds = [](int type, time_t t) { return t != (type == ARCH_HOURLY ? kBerlinNoHour : kBerlinNoDay); };
  d.failAt = {{ARCH_HOURLY, kBerlinFailHour}, {ARCH_DAILY, kBerlinFailDay}};
  d.readyAfterInits = 3;  // init at start and again on the first turn: not yet
  std::atomic<int> askedBeforeReady{0};
  d.onArch = [&](const ArchCall&) { askedBeforeReady += driver->inits.load() < 3; };
  Start("tem-104");
  ASSERT_TRUE(NextCycle(false));
  EXPECT_EQ(Item("T1"), "");  // not ready: nothing published
  for (int cycle = 1; cycle <= 30; ++cycle) {
    if (cycle == 5) clock.Step(3 * 3600);
    if (cycle == 8) clock.Step(-10 * kDay);  // the meter's clock is now 10 days off
    if (cycle == 12) clock.Step(10 * kDay);
    if (cycle == 18) clock.Step(-kDay);  // and stays a day behind
    ASSERT_TRUE(NextCycle()) << cycle;
  }
  const time_t meterNow = clock.Monotonic();
  EXPECT_EQ(d.systems.load(), 1);
  driver->stop();
  EXPECT_TRUE(d.failAt.empty());  // both failures were met
  EXPECT_EQ(askedBeforeReady.load(), 0);
  EXPECT_EQ(log.Count("driver not ready"), 1u);
  EXPECT_EQ(log.Count("the driver is ready"), 1u);
  EXPECT_EQ(log.Count("is over 7 days from"), 1u);
  EXPECT_EQ(log.Count("walk stopped at a failure"), 2u);

  // What the meter holds from its first record up to the last complete hour (day)
  // before its clock, in the zone's own labels, against what is on file.
  auto expected = [&](int type, time_t first, time_t last) {
    std::vector<std::string> lines;
    for (time_t t = first; t <= last; t = type == ARCH_HOURLY ? mcd::cal::NextHour(t) : mcd::cal::NextDay(t))
      if (t != (type == ARCH_HOURLY ? kBerlinNoHour : kBerlinNoDay))
        lines.push_back(std::to_string(t) + ",192," + FakeDriver::ValueOf(type, t));
    return lines;
  };
  const time_t hourBound = client.ReadMaxTimestamp(ARCH_HOURLY);
  EXPECT_GE(hourBound, mcd::cal::PrevHour(meterNow) - 3600);
  const auto hourly = expected(ARCH_HOURLY, kBerlinFirstHour, hourBound);
  // 23, 24 and 25 October have 24 local hours each (the repeated 02:00 is one record),
  // then the hours of 26 October from 00:00 CET (23:00 UTC), less the one not held.
  EXPECT_EQ(hourly.size(), static_cast<size_t>(24 * 3 + (hourBound - 1792969200) / 3600));
  EXPECT_EQ(Archive("A20"), hourly);
  EXPECT_EQ(client.ReadMaxTimestamp(ARCH_DAILY), mcd::cal::PrevDay(meterNow));
  EXPECT_EQ(Archive("A48"), expected(ARCH_DAILY, kBerlinFirstDay, mcd::cal::PrevDay(meterNow)));
}

// Records out of order, repeated, off the hour or outside what was asked are not
// filed, and the walk ends there; the same times for two parameters are fine.
TEST_F(PollingTest, BlockThatBreaksTheRecordRulesIsNotFiled) {
  const std::vector<std::vector<std::pair<int, time_t>>> cases = {
      {{6, kHourEnd - 3600}, {6, kHourEnd - 1800}},
      {{6, kHourEnd - 3600}, {6, kHourEnd - 3600}},
      {{6, kHourEnd}, {6, kHourEnd - 3600}},
      {{6, kHourEnd + 3600}},
      {{6, kHourEnd - 3600}, {7, kHourEnd - 3600}},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    auto& d = Make({});
    d.answer = [&](const ArchCall&, ParamValueList& out) {
      for (auto r : cases[i]) out.emplace_back(r.first, ARCH_HOURLY, "1", "", 192, 0, 0, static_cast<int32_t>(r.second));
      return 1;
    };
    d.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd - 3600);
    EXPECT_EQ(d.ReadHourlyArch(), i < 4 ? kRetry : kNextCheck) << i;
  }
  EXPECT_EQ(log.Count("block not filed."), 4u);
  EXPECT_EQ(Archive("A20").size(), 1u);
  EXPECT_EQ(Archive("A21").size(), 1u);
}

}  // namespace
