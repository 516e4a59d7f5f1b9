// The shared polling loop, driven through virtual time by a scripted driver on a real
// client whose files live under a temporary root.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <chrono>
#include <memory>
#include <string>

#include "fake_driver.h"
#include "log/logger.h"
#include "server/jsonrpc_connector.h"
#include "server/paths.h"
#include "support/test_support.h"
#include "tz_fixture.h"

namespace {

using mcdtest::ArchCall;
using mcdtest::FakeDriver;
using namespace std::chrono_literals;

// The meter's clock stands at 2016-03-05 10:30:00 (UTC+3).
constexpr time_t kMeterTime = 1457163000;
constexpr time_t kHourEnd = kMeterTime - 1800 - 3600;  // 09:00:00, the last complete hour
constexpr time_t kDayEnd = 1457038800;                  // 2016-03-04 00:00:00, start of yesterday
constexpr time_t kDay = 86400;
constexpr time_t kNinetyDays = 7776000;
constexpr time_t kSixtyDays = 5184000;

class PollingTest : public ::testing::Test {
 protected:
  void SetUp() override {
    m_logPath = root.root() + "/mcd.log";
    logger::getInstance(m_logPath.c_str(), false)->setLevel(logger::TL_DEBUG);
    mcd::SetClock(&clock);
    client.reset(new CJSONRPCConnector("77", 0));
  }
  void TearDown() override {
    driver.reset();  // cancels and joins the loop thread
    mcd::SetClock(nullptr);
    client.reset();
    delete logger::get();
  }

  FakeDriver& Make(const ParamMap& config) {
    driver.reset(new FakeDriver());
    driver->stamps.meter_time = static_cast<int32_t>(kMeterTime);
    driver->SetJsonRpcConnector(client.get());
    driver->SetConfiguration(config);
    return *driver;
  }
  // Hands the first turn over before the thread starts, like the supervision does,
  // so the first cycle runs at the clock's start time.
  void Start(const std::string& manufacturer) {
    driver->SetTurn();
    driver->start(driver.get(), manufacturer);
  }
  bool CycleDone() {
    return mcdtest::WaitFor([this] { return !driver->GetTurn(); }, 20s);
  }
  bool NextCycle() {
    driver->SetTurn();
    return CycleDone();
  }

  std::string Log() const { return mcdtest::ReadFile(m_logPath); }
  size_t Count(const std::string& text) const {
    const std::string log = Log();
    size_t n = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + 1)) ++n;
    return n;
  }
  std::string Item(const std::string& name) const { return mcdtest::ReadFile(root.tmp("77/1/tc_items/" + name)); }

  mcdtest::TempRoot root;
  mcdtest::FakeClock clock{kMeterTime};
  std::unique_ptr<CJSONRPCConnector> client;
  std::unique_ptr<FakeDriver> driver;

 private:
  std::string m_logPath;
};

// The hourly walk asks one local day at a time: each block lies inside one day, the
// blocks follow each other without a gap, the first starts at from and the last ends at end.
void ExpectHourlyBlocks(const std::vector<ArchCall>& calls, time_t from, time_t end) {
  ASSERT_FALSE(calls.empty());
  EXPECT_EQ(calls.front().from, from);
  EXPECT_EQ(calls.back().to, end);
  for (size_t i = 0; i < calls.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(calls[i].type, ARCH_HOURLY);
    EXPECT_LE(calls[i].from, calls[i].to);
    EXPECT_EQ(mcdtest::LocalMidnight(calls[i].from), mcdtest::LocalMidnight(calls[i].to));
    if (i + 1 < calls.size()) {
      EXPECT_EQ(calls[i + 1].from, calls[i].to + 3600);
      EXPECT_NE(mcdtest::LocalMidnight(calls[i + 1].from), mcdtest::LocalMidnight(calls[i].to));
    }
  }
}

TEST_F(PollingTest, ShortPeriodHoldsFirstArchivesBackLongerPeriodReadsAtOnce) {
  Make({{"period_current", "600"}});
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  EXPECT_EQ(driver->currents.load(), 1);
  EXPECT_TRUE(driver->Calls().empty());
  driver.reset();

  clock.Set(kMeterTime);
  Make({{"period_current", "601"}});
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  EXPECT_EQ(driver->Calls(ARCH_HOURLY).size(), 91u);
  EXPECT_EQ(driver->Calls(ARCH_DAILY).size(), 1u);
}

TEST_F(PollingTest, ArchiveWindowStartsAtTheLatestOfDepthFirstRecordAndBound) {
  auto& d = Make({});
  // The local clock runs 100 s ahead of the meter: the next check is one minute past
  // the meter's next full hour, 1860 s on.
  clock.Set(kMeterTime + 100);
  EXPECT_EQ(d.ReadHourlyArch(), kMeterTime + 100 + 1860);
  EXPECT_EQ(d.ReadDailyArch(), kMeterTime + 100 + 1860);
  auto hourly = d.Calls(ARCH_HOURLY);
  EXPECT_EQ(hourly.size(), 91u);
  ExpectHourlyBlocks(hourly, kHourEnd - kNinetyDays, kHourEnd);  // 09:00 ninety days back .. 09:00
  ASSERT_EQ(d.Calls(ARCH_DAILY).size(), 1u);
  EXPECT_EQ(d.Calls(ARCH_DAILY)[0].from, kDayEnd - kNinetyDays);
  EXPECT_EQ(d.Calls(ARCH_DAILY)[0].to, kDayEnd);

  // The meter's first records, when later; one that is not an hour (day) start is
  // rounded up to the next.
  auto& e = Make({});
  e.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd - 5 * kDay + 3600 + 60);
  e.stamps.first_day_arch = static_cast<int32_t>(kDayEnd - 10 * kDay);
  e.ReadHourlyArch();
  e.ReadDailyArch();
  ExpectHourlyBlocks(e.Calls(ARCH_HOURLY), kHourEnd - 5 * kDay + 7200, kHourEnd);
  EXPECT_EQ(e.Calls(ARCH_HOURLY).size(), 6u);
  EXPECT_EQ(e.Calls(ARCH_DAILY).at(0).from, kDayEnd - 10 * kDay);

  // Filed up to 06:00 and two days ago: only what is newer is asked for.
  auto& f = Make({});
  ASSERT_TRUE(client->WriteMaxTimestamp(ARCH_HOURLY, kHourEnd - 3 * 3600));
  ASSERT_TRUE(client->WriteMaxTimestamp(ARCH_DAILY, kDayEnd - 2 * kDay));
  f.ReadHourlyArch();
  f.ReadDailyArch();
  auto calls = f.Calls();
  ASSERT_EQ(calls.size(), 2u);
  EXPECT_EQ(calls[0].from, kHourEnd - 2 * 3600);
  EXPECT_EQ(calls[0].to, kHourEnd);
  EXPECT_EQ(calls[1].from, kDayEnd - kDay);
  EXPECT_EQ(calls[1].to, kDayEnd);

  // Everything filed: nothing is asked, the next check is still scheduled.
  auto& g = Make({});
  ASSERT_TRUE(client->WriteMaxTimestamp(ARCH_HOURLY, kHourEnd));
  ASSERT_TRUE(client->WriteMaxTimestamp(ARCH_DAILY, kDayEnd));
  EXPECT_EQ(g.ReadHourlyArch(), kMeterTime + 100 + 1860);
  EXPECT_EQ(g.ReadDailyArch(), kMeterTime + 100 + 1860);
  EXPECT_TRUE(g.Calls().empty());
  EXPECT_FALSE(g.ArchivesLag());
  driver.reset();

  // OMEGA-TR meters are read sixty days back.
  unlink(root.storage("77/timestamp_max_hourly").c_str());
  unlink(root.storage("77/timestamp_max_daily").c_str());
  clock.Set(kMeterTime);
  Make({{"period_current", "601"}});
  Start("omega-tr");
  ASSERT_TRUE(CycleDone());
  ExpectHourlyBlocks(driver->Calls(ARCH_HOURLY), kHourEnd - kSixtyDays, kHourEnd);
  EXPECT_EQ(driver->Calls(ARCH_DAILY).at(0).from, kDayEnd - kSixtyDays);
}

TEST_F(PollingTest, CycleRunsStepsInOrderAndLogsEmptyResults) {
  Make({{"period_current", "601"}});
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  const std::string log = Log();
  const char* order[] = {
      "CMcdBaseDriver::functionThread begin execute thread.",
      "CMcdBaseDriver::functionThread - the original state of the connection controller.",
      "CMcdBaseDriver::functionThread system info is absent.",
      "CMcdBaseDriver::functionThread - connecting to controller registered.",
      "CMcdBaseDriver::functionThread begin all current values.",
      "CMcdBaseDriver::functionThread end all current values.",
      "CMcdBaseDriver::ReadHourlyArch archieve hourly info is absent.",
      "CMcdBaseDriver::ReadDailyArch archieve daily info is absent.",
  };
  size_t at = 0;
  for (const char* text : order) {
    size_t found = log.find(text, at);
    ASSERT_NE(found, std::string::npos) << "missing or out of order: " << text << "\n" << log;
    at = found;
  }
  // An empty block does not stop the walk; nothing is filed for empty blocks.
  EXPECT_EQ(Count("archieve hourly info is absent."), 91u);
  EXPECT_EQ(Count("readed all"), 0u);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_HOURLY), 0);
  EXPECT_TRUE(mcdtest::ListDir(root.storage("77/1/tc_archives")).empty());
  // Current values are filed, the link is recorded as up, and the archives lag.
  EXPECT_EQ(Item("T1"), "55.5\n");
  EXPECT_EQ(Item("Connected"), "1\n");
  EXPECT_EQ(driver->inits.load(), 1);
  EXPECT_FALSE(driver->ArchivesCurrent());
}

TEST_F(PollingTest, ReadValuesAreFiledAndArchivesCountAsCurrent) {
  auto& d = Make({{"period_current", "601"}});
  d.fillArchives = true;
  d.systemValues = true;
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  EXPECT_EQ(Count("CMcdBaseDriver::ReadHourlyArch readed all hourly values."), 91u);
  EXPECT_EQ(Count("CMcdBaseDriver::ReadDailyArch readed all daily values."), 1u);
  EXPECT_EQ(Count("is absent."), 0u);
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A20")).size(), 91u);
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A48")).size(), 1u);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_HOURLY), kHourEnd);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_DAILY), kDayEnd);
  EXPECT_EQ(Item("SerialNumber"), "SN-1001\n");
  EXPECT_TRUE(driver->ArchivesCurrent());

  // The next cycle finds nothing new to ask for.
  clock.Set(kMeterTime + 4000);
  ASSERT_TRUE(NextCycle());
  EXPECT_EQ(driver->Calls().size(), 92u);
  EXPECT_EQ(driver->currents.load(), 2);
  EXPECT_EQ(driver->inits.load(), 1);
}

TEST_F(PollingTest, PauseAtStartHoldsTheTurnBeforeInit) {
  Make({});
  mcdtest::WriteFile(root.tmp("pause_qmd"), "");
  Start("tem-104");
  const long sleeps = clock.sleeps();
  ASSERT_TRUE(mcdtest::WaitFor([&] { return clock.sleeps() > sleeps + 50; }, 10s));
  EXPECT_EQ(driver->inits.load(), 0);
  EXPECT_TRUE(driver->GetTurn());
  EXPECT_EQ(Item("Connected"), "0\n");  // link state 0 is recorded before the pause
  unlink(root.tmp("pause_qmd").c_str());
  ASSERT_TRUE(CycleDone());
  EXPECT_EQ(driver->inits.load(), 1);
  EXPECT_EQ(Item("Connected"), "1\n");
}

TEST_F(PollingTest, PauseStartedMidCycleSkipsOnlyTheRemainingSteps) {
  const std::string pause = root.tmp("pause_qmd");
  auto& d = Make({{"period_current", "601"}});
  d.onCurrent = [pause] { mcdtest::WriteFile(pause, ""); };
  Start("tem-104");
  ASSERT_TRUE(CycleDone());  // the turn is still given back
  EXPECT_EQ(driver->currents.load(), 1);
  EXPECT_TRUE(driver->Calls().empty());
  // The next cycle skips the current values as well.
  ASSERT_TRUE(NextCycle());
  EXPECT_EQ(driver->currents.load(), 1);
  EXPECT_TRUE(driver->Calls().empty());
  driver.reset();
  unlink(pause.c_str());

  // A driver on a reserved port ignores "pause_qmd".
  clock.Set(kMeterTime);
  auto& r = Make({{"period_current", "601"}, {"port_alias", "serial485.4"}});
  r.onCurrent = [pause] { mcdtest::WriteFile(pause, ""); };
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  EXPECT_EQ(driver->Calls().size(), 92u);
}

TEST_F(PollingTest, PauseAllStopsReservedPortsToo) {
  const std::string pauseAll = root.tmp("pause_qmd_all");
  auto& d = Make({{"period_current", "601"}, {"port_alias", "serial232.0"}});
  d.onSystem = [pauseAll] { mcdtest::WriteFile(pauseAll, ""); };
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  EXPECT_EQ(driver->currents.load(), 0);
  EXPECT_TRUE(driver->Calls().empty());
  EXPECT_FALSE(driver->MayPoll());
  unlink(pauseAll.c_str());
  EXPECT_TRUE(driver->MayPoll());
}

TEST_F(PollingTest, ForceUpdateEndsTheWaitAndIsConsumed) {
  auto& d = Make({});
  const std::string flag = client->GetForceUpdateFile();
  time_t created = 0;
  clock.onSleep = [&](time_t now) {
    if (!created && now >= kMeterTime + 21) {
      mcdtest::WriteFile(flag, "");
      created = now;
    }
  };
  d.Wait(600, false);
  ASSERT_NE(created, 0);
  EXPECT_GE(clock.Now(), created);
  EXPECT_LE(clock.Now(), created + 2);
  EXPECT_FALSE(mcdtest::FileExists(flag));

  // Without the flag the wait lasts its full time in 2-second steps.
  clock.onSleep = nullptr;
  clock.Set(kMeterTime);
  const long before = clock.sleeps();
  d.Wait(600, true);
  EXPECT_EQ(clock.Now(), kMeterTime + 600);
  EXPECT_EQ(clock.sleeps() - before, 300);

  // A second or less does not wait at all.
  d.Wait(1, false);
  d.Wait(0, false);
  d.Wait(-5, false);
  EXPECT_EQ(clock.sleeps() - before, 300);
}

TEST_F(PollingTest, FailedTimestampsRetryInTenSecondsAndReportNoLag) {
  auto& d = Make({});
  d.failTimestamps = 3;
  clock.Set(kMeterTime + 7);
  EXPECT_EQ(d.ReadHourlyArch(), kMeterTime + 17);
  EXPECT_EQ(d.ReadDailyArch(), kMeterTime + 17);
  EXPECT_FALSE(d.ArchivesLag());  // nothing filed, but no answer means no lag
  EXPECT_TRUE(d.Calls().empty());
  EXPECT_TRUE(d.ArchivesLag());

  // In the loop: the first cycle's four time requests fail, the next cycle reads.
  clock.Set(kMeterTime);
  auto& e = Make({{"period_current", "601"}});
  e.failTimestamps = 4;
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  EXPECT_TRUE(driver->Calls().empty());
  EXPECT_TRUE(driver->ArchivesCurrent());
  ASSERT_TRUE(NextCycle());
  EXPECT_EQ(driver->Calls().size(), 92u);
  EXPECT_FALSE(driver->ArchivesCurrent());
}

TEST_F(PollingTest, Vkt7HoldOffAfterRecentConnection) {
  auto& d = Make({});
  client->WriteVKT7Timestamp();
  const time_t started = client->ReadVKT7Timestamp();
  ASSERT_GT(started, 0);
  ASSERT_TRUE(client->WriteMaxTimestamp(ARCH_HOURLY, started));
  ASSERT_TRUE(client->WriteMaxTimestamp(ARCH_DAILY, started));
  clock.Set(started + 100);
  d.WaitVKT7();
  EXPECT_GE(clock.Now(), started + 5400);
  EXPECT_LE(clock.Now(), started + 5402);
  EXPECT_EQ(Count("CMcdBaseDriver::WaitVKT7 sleeping 5300 seconds"), 1u);

  // No VKT-9 connection was recorded: no hold-off.
  clock.Set(started + 100);
  d.WaitVKT9();
  EXPECT_EQ(clock.Now(), started + 100);

  // Archives three days behind: no hold-off.
  ASSERT_TRUE(client->WriteMaxTimestamp(ARCH_DAILY, started + 100 - 259201));
  d.WaitVKT7();
  EXPECT_EQ(clock.Now(), started + 100);
}

TEST_F(PollingTest, Vkt7ThreadRecordsItsConnectionStart) {
  Make({{"period_current", "600"}});
  ASSERT_EQ(client->ReadVKT7Timestamp(), 0);
  Start("vkt-7");
  ASSERT_TRUE(CycleDone());
  EXPECT_GT(client->ReadVKT7Timestamp(), 0);
  EXPECT_EQ(client->ReadVKT9Timestamp(), 0);
}


// Drivers share one line: while one is in the middle of a step, no other driver talks to
// its meter, even when its own turn is set at the same moment.
TEST_F(PollingTest, DriversNeverTalkOverEachOther) {
  FakeDriver& a = Make({{"period_current", "700"}});
  std::atomic<bool> aBusy{false}, release{false}, overlapped{false};
  a.onCurrent = [&] {
    aBusy.store(true);
    while (!release.load()) usleep(1000);
    aBusy.store(false);
  };
  Start("other");
  ASSERT_TRUE(mcdtest::WaitFor([&] { return aBusy.load(); }, 20s));

  FakeDriver b;
  b.stamps.meter_time = static_cast<int32_t>(kMeterTime);
  b.SetJsonRpcConnector(client.get());
  b.SetConfiguration({{"period_current", "700"}});
  b.onSystem = [&] { overlapped.store(overlapped.load() || aBusy.load()); };
  b.SetTurn();
  b.start(&b, "other");

  usleep(300000);  // b is ready to go and must still be waiting for the line
  EXPECT_EQ(b.systems.load(), 0);
  release.store(true);
  EXPECT_TRUE(CycleDone());
  EXPECT_TRUE(mcdtest::WaitFor([&] { return !b.GetTurn(); }, 20s));
  EXPECT_EQ(b.systems.load(), 1);
  EXPECT_FALSE(overlapped.load());
  b.stop();
}

TEST_F(PollingTest, ArchiveBlockThatCannotBeFiledEndsTheWalkUntilTheNextCycle) {
  auto& d = Make({});
  d.fillArchives = true;
  d.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd - 4 * kDay);
  d.stamps.first_day_arch = static_cast<int32_t>(kDayEnd - 3 * kDay);
  // system 1's archive directory cannot be made: a plain file is in its place
  mcdtest::WriteFile(root.storage("77/1"), "");
  EXPECT_EQ(d.ReadHourlyArch(), kMeterTime + 10);
  EXPECT_EQ(d.ReadDailyArch(), kMeterTime + 10);
  EXPECT_EQ(d.Calls(ARCH_HOURLY).size(), 1u);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_HOURLY), 0);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_DAILY), 0);
  for (const char* name : {"A20", "A48"})
    EXPECT_EQ(Count("cannot write " + root.storage("77/1/tc_archives/") + name + ": Not a directory"), 1u);

  // The obstacle goes: the directory is made again without a restart, and the walk
  // starts over from the first record and files every block.
  unlink(root.storage("77/1").c_str());
  EXPECT_EQ(d.ReadHourlyArch(), kMeterTime + 1860);
  EXPECT_EQ(d.ReadDailyArch(), kMeterTime + 1860);
  auto hourly = d.Calls(ARCH_HOURLY);
  ASSERT_EQ(hourly.size(), 6u);
  ExpectHourlyBlocks(std::vector<ArchCall>(hourly.begin() + 1, hourly.end()), kHourEnd - 4 * kDay, kHourEnd);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_HOURLY), kHourEnd);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_DAILY), kDayEnd);
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A20")).size(), 5u);
}

TEST_F(PollingTest, StorageBackDuringTheWalkFilesNothingTwice) {
  // The storage is away when the walk begins, so the bound reads 0 and the walk starts
  // at the first record; it is back (bound two days old) before the first block is filed.
  auto& d = Make({});
  d.fillArchives = true;
  d.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd - 4 * kDay);
  const std::string dir = root.storage("77");
  ASSERT_EQ(rename(dir.c_str(), (dir + ".away").c_str()), 0);
  mcdtest::WriteFile(dir, "");
  const time_t filed = kHourEnd - 2 * kDay;
  d.onArch = [&](const ArchCall& call) {
    if (call.from != kHourEnd - 4 * kDay) return;
    unlink(dir.c_str());
    rename((dir + ".away").c_str(), dir.c_str());
    client->WriteMaxTimestamp(ARCH_HOURLY, filed);
  };
  EXPECT_EQ(d.ReadHourlyArch(), kMeterTime + 1860);
  EXPECT_EQ(d.Calls(ARCH_HOURLY).size(), 5u);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_HOURLY), kHourEnd);
  // only the records after the bound were filed (one per block, stamped at its end):
  // the first two blocks end before it, the other three after
  const std::vector<std::string> lines = mcdtest::ReadLines(root.storage("77/1/tc_archives/A20"));
  ASSERT_EQ(lines.size(), 3u);
  for (const std::string& line : lines) EXPECT_GT(atol(line.c_str()), filed) << line;
}

// Local times in Europe/Berlin for the invariant run (the autumn change is on
// 2026-10-25: 03:00 CEST becomes 02:00 CET).
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
  ASSERT_TRUE(CycleDone());
  EXPECT_EQ(driver->inits.load(), 2);
  EXPECT_EQ(driver->systems.load(), 0);
  EXPECT_EQ(Item("T1"), "");  // not ready: nothing published
  EXPECT_EQ(Item("Connected"), "0\n");
  for (int cycle = 1; cycle <= 30; ++cycle) {
    if (cycle == 5) clock.Step(3 * 3600);
    if (cycle == 8) clock.Step(-10 * kDay);  // the meter's clock is now 10 days off
    if (cycle == 12) clock.Step(10 * kDay);
    if (cycle == 18) clock.Step(-kDay);  // and stays a day behind
    ASSERT_TRUE(NextCycle()) << cycle;
  }
  const time_t meterNow = clock.Monotonic();
  EXPECT_EQ(driver->inits.load(), 3);
  EXPECT_EQ(driver->systems.load(), 1);
  EXPECT_EQ(Item("Connected"), "1\n");
  driver->stop();
  EXPECT_TRUE(d.failAt.empty());  // both failures were met
  driver.reset();

  EXPECT_EQ(askedBeforeReady.load(), 0);
  EXPECT_EQ(Count("driver not ready"), 1u);
  EXPECT_EQ(Count("the driver is ready"), 1u);
  EXPECT_EQ(Count("is over 7 days from"), 1u);
  EXPECT_EQ(Count("walk stopped at a failure"), 2u);

  // What the meter holds from its first record up to the last complete hour (day)
  // before its clock, in the zone's own labels, against what is on file.
  auto expected = [&](int type, time_t first, time_t last) {
    std::vector<std::string> lines;
    for (time_t t = first; t <= last;
         t = type == ARCH_HOURLY ? mcd::cal::NextHour(t) : mcd::cal::NextDay(t))
      if (t != (type == ARCH_HOURLY ? kBerlinNoHour : kBerlinNoDay))
        lines.push_back(std::to_string(t) + ",192," + FakeDriver::ValueOf(type, t));
    return lines;
  };
  const time_t hourBound = client->ReadMaxTimestamp(ARCH_HOURLY);
  EXPECT_GE(hourBound, mcd::cal::PrevHour(meterNow) - 3600);
  const auto hourly = expected(ARCH_HOURLY, kBerlinFirstHour, hourBound);
  // 23, 24 and 25 October have 24 local hours each (the repeated 02:00 is one record),
  // then the hours of 26 October from 00:00 CET (23:00 UTC), less the one not held.
  EXPECT_EQ(hourly.size(), static_cast<size_t>(24 * 3 + (hourBound - 1792969200) / 3600 + 1 - 1));
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A20")), hourly);
  EXPECT_EQ(client->ReadMaxTimestamp(ARCH_DAILY), mcd::cal::PrevDay(meterNow));
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A48")),
            expected(ARCH_DAILY, kBerlinFirstDay, mcd::cal::PrevDay(meterNow)));
}

TEST_F(PollingTest, MeterClockFarAwayStopsArchivesAndConnectedFollowsTheAnswers) {
  auto& d = Make({{"period_current", "601"}});
  d.fillArchives = true;
  d.silent = true;
  std::atomic<time_t> ahead{7 * kDay + 1};
  d.meterClock = [&] { return clock.Now() + ahead.load(); };
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  EXPECT_TRUE(driver->Calls().empty());
  EXPECT_EQ(driver->currents.load(), 1);
  EXPECT_EQ(Item("Connected"), "0\n");  // no current values: the meter did not answer
  ASSERT_TRUE(NextCycle());
  EXPECT_TRUE(driver->Calls().empty());
  EXPECT_EQ(Count("is over 7 days from"), 1u);  // once per change of state

  // Seven days exactly is still usable; the meter answers again.
  ahead = 7 * kDay;
  driver->silent = false;
  ASSERT_TRUE(NextCycle());
  EXPECT_FALSE(driver->Calls().empty());
  EXPECT_EQ(Item("Connected"), "1\n");
  EXPECT_EQ(Count("agrees with the controller clock again"), 1u);
  driver->silent = true;
  ASSERT_TRUE(NextCycle());
  EXPECT_EQ(Item("Connected"), "0\n");
  driver.reset();
}

// A reload request ends the walk at the next block boundary, after the block in hand
// is filed, and the driver gives the turn back without waiting out its period.
TEST_F(PollingTest, ReloadEndsTheWalkAtABlockBoundaryAndTheWaitAtOnce) {
  auto& d = Make({{"period_current", "601"}});
  d.fillArchives = true;
  d.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd - 4 * kDay);
  d.onArch = [&](const ArchCall&) {
    if (driver->Calls().size() == 3) mcd::RequestReload();
  };
  Start("tem-104");
  ASSERT_TRUE(CycleDone());
  const long sleeps = clock.sleeps();
  usleep(200000);
  EXPECT_EQ(clock.sleeps(), sleeps);  // no period wait, no turn wait on the clock
  EXPECT_EQ(clock.Monotonic(), kMeterTime);
  EXPECT_EQ(driver->Calls().size(), 3u);
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A20")).size(), 3u);
  mcd::ClearReloadRequest();

  ASSERT_TRUE(NextCycle());  // the walk goes on where it stopped
  auto hourly = driver->Calls(ARCH_HOURLY);
  ASSERT_EQ(hourly.size(), 5u);
  ExpectHourlyBlocks(hourly, kHourEnd - 4 * kDay, kHourEnd);
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A20")).size(), 5u);
}

// A block whose records are out of order, repeated, off the hour or outside what was
// asked is not filed, and the walk ends there.
TEST_F(PollingTest, BlockThatBreaksTheRecordRulesIsNotFiled) {
  const struct {
    const char* what;
    std::vector<time_t> times;
  } cases[] = {
      {"off the hour", {kHourEnd - 3600, kHourEnd - 1800}},
      {"repeated", {kHourEnd - 3600, kHourEnd - 3600}},
      {"backwards", {kHourEnd, kHourEnd - 3600}},
      {"outside the range", {kHourEnd + 3600}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    auto& d = Make({});
    d.answer = [&c](const ArchCall&, ParamValueList& out) {
      for (time_t t : c.times) out.emplace_back(6, ARCH_HOURLY, "1", "", 192, 0, 0, static_cast<int32_t>(t));
      return 1;
    };
    d.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd - 2 * kDay);
    EXPECT_EQ(d.ReadHourlyArch(), kMeterTime + 10);
    EXPECT_EQ(d.Calls().size(), 1u);
    EXPECT_FALSE(mcdtest::FileExists(root.storage("77/1/tc_archives/A20")));
  }
  EXPECT_EQ(Count("block not filed."), 4u) << Log();
  // The same times for two parameters, each in order, are fine.
  auto& e = Make({});
  e.answer = [](const ArchCall& call, ParamValueList& out) {
    for (int id : {6, 7}) out.emplace_back(id, ARCH_HOURLY, "1", "", 192, 0, 0, static_cast<int32_t>(call.from));
    return 1;
  };
  e.stamps.first_hour_arch = static_cast<int32_t>(kHourEnd);
  EXPECT_EQ(e.ReadHourlyArch(), kMeterTime + 1860);
  EXPECT_EQ(mcdtest::ReadLines(root.storage("77/1/tc_archives/A21")).size(), 1u);
}

}  // namespace
