#include "app/supervision.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include "app/clock.h"
#include "drivers/base/empty_driver.h"
#include "support/test_support.h"

namespace {

using mcdtest::FileExists;
using mcdtest::ReadFile;
using mcdtest::WriteFile;

// A driver that is never started: the test plays its thread by clearing the turn.
class FakeDriver : public CMcdEmptyDriver {
 public:
  explicit FakeDriver(int sleepsPerTurn = 1) : m_sleepsPerTurn(sleepsPerTurn) {}
  ~FakeDriver() override { stop(); }

  void SetReserved(bool on) { reserved_port.store(on); }
  void SetCurrent(bool on) { archives_current.store(on); }

  // Called on each supervisor sleep while it holds the turn; gives it back after its sleeps.
  void OnSleep() {
    if (++m_heldFor >= m_sleepsPerTurn) {
      m_heldFor = 0;
      ++turnsTaken;
      ClearTurn();
    }
  }
  int turnsTaken = 0;

 private:
  int m_sleepsPerTurn;
  int m_heldFor = 0;
};

class SupervisionTest : public ::testing::Test {
 protected:
  void TearDown() override {
    mcd::ClearStopRequest();
    mcd::ClearReloadRequest();
  }

  // The driver holding the turn takes its step; at most one may hold it.
  void PlayDrivers() {
    clock.onSleep = [this](time_t) {
      int holders = 0;
      for (auto& d : drivers) holders += d->GetTurn() ? 1 : 0;
      EXPECT_LE(holders, 1) << "two drivers hold the line at once";
      for (size_t i = 0; i < drivers.size(); ++i) {
        if (drivers[i]->GetTurn()) {
          holderPerSleep.push_back(static_cast<int>(i));
          drivers[i]->OnSleep();
          break;
        }
      }
      if (afterSleep) afterSleep();
    };
  }

  std::vector<CMcdBaseDriver*> List() {
    std::vector<CMcdBaseDriver*> list;
    for (auto& d : drivers) list.push_back(d.get());
    return list;
  }

  mcdtest::TempRoot root;
  std::string pauseFile = root.tmp("extds_pause");
  mcdtest::FakeClock clock;
  std::vector<std::unique_ptr<FakeDriver>> drivers;
  std::vector<int> holderPerSleep;
  std::function<void()> afterSleep;
};

TEST_F(SupervisionTest, TurnPassesFromDriverToDriverInListOrder) {
  drivers.emplace_back(new FakeDriver(3));
  drivers.emplace_back(new FakeDriver(1));
  PlayDrivers();
  mcd::SupervisionPass(List());
  // the first driver holds the line for three 5-second steps, then the second for one
  EXPECT_EQ((std::vector<int>{0, 0, 0, 1}), holderPerSleep);
  EXPECT_EQ((std::vector<unsigned>{5, 5, 5, 5}), clock.Slept());
  EXPECT_EQ(1, drivers[0]->turnsTaken);
  EXPECT_EQ(1, drivers[1]->turnsTaken);
  EXPECT_FALSE(drivers[0]->GetTurn());
  EXPECT_FALSE(drivers[1]->GetTurn());
}

TEST_F(SupervisionTest, StopOrReloadEndsThePassAtOnce) {
  for (bool reload : {false, true}) {
    drivers.clear();
    holderPerSleep.clear();
    drivers.emplace_back(new FakeDriver(3));
    drivers.emplace_back(new FakeDriver(1));
    PlayDrivers();
    WriteFile(pauseFile, "keep");
    // The request comes during the first driver's turn, which it gives back at its next
    // block boundary; the second driver gets no turn.
    afterSleep = [&] {
      if (reload)
        mcd::RequestReload();
      else
        mcd::RequestStop();
      drivers[0]->ClearTurn();
    };
    EXPECT_EQ(reload ? mcd::SupervisionEnd::kReload : mcd::SupervisionEnd::kStop, mcd::RunSupervision(List()));
    EXPECT_EQ(std::vector<int>{0}, holderPerSleep);
    EXPECT_FALSE(drivers[1]->GetTurn());
    // a pass cut short says nothing about the archives
    EXPECT_EQ("keep", ReadFile(pauseFile));
    mcd::ClearStopRequest();
    mcd::ClearReloadRequest();
  }
}

TEST_F(SupervisionTest, PassesRepeatUntilAStopAndNoneStartsAfterIt) {
  drivers.emplace_back(new FakeDriver(1));
  drivers.emplace_back(new FakeDriver(2));
  PlayDrivers();
  afterSleep = [this] {
    if (drivers[1]->turnsTaken == 3) mcd::RequestStop();
  };
  EXPECT_EQ(mcd::SupervisionEnd::kStop, mcd::RunSupervision(List()));
  EXPECT_EQ(3, drivers[0]->turnsTaken);
  EXPECT_EQ(3, drivers[1]->turnsTaken);
  EXPECT_EQ((std::vector<int>{0, 1, 1, 0, 1, 1, 0, 1, 1}), holderPerSleep);

  clock.ClearSlept();
  EXPECT_EQ(mcd::SupervisionEnd::kStop, mcd::RunSupervision(List()));
  EXPECT_TRUE(clock.Slept().empty());
  EXPECT_FALSE(drivers[0]->GetTurn());
}

TEST_F(SupervisionTest, WithoutDriversEachPassSleepsOneStep) {
  WriteFile(pauseFile, "7200");
  int passes = 0;
  clock.onSleep = [&](time_t) {
    if (++passes == 4) mcd::RequestStop();
  };
  mcd::RunSupervision({});
  EXPECT_EQ((std::vector<unsigned>{5, 5, 5, 5}), clock.Slept());
  EXPECT_FALSE(FileExists(pauseFile));  // nothing lags
}

// "extds_pause" says whether the archives of the pass lag: "7200" when one does (a
// driver on a reserved port counts as lagging), removed when all are current; the
// last driver's reserved port leaves it as it was.
TEST_F(SupervisionTest, ExtPauseFileFollowsTheArchivesOfThePass) {
  const struct {
    std::vector<std::pair<bool, bool>> drivers;  // (reserved port, archives current)
    const char* before;                          // null: absent
    const char* after;
  } cases[] = {{{{false, true}, {false, true}}, "7200", nullptr},
               {{{false, true}, {false, false}}, nullptr, "7200"},
               {{{true, true}, {false, true}}, nullptr, "7200"},
               {{{false, false}, {true, true}}, "keep", "keep"}};
  for (const auto& c : cases) {
    drivers.clear();
    for (const auto& d : c.drivers) {
      drivers.emplace_back(new FakeDriver(1));
      drivers.back()->SetReserved(d.first);
      drivers.back()->SetCurrent(d.second);
    }
    PlayDrivers();
    unlink(pauseFile.c_str());
    if (c.before) WriteFile(pauseFile, c.before);
    EXPECT_EQ(c.after == nullptr, mcd::SupervisionPass(List()));
    EXPECT_EQ(c.after ? c.after : "", ReadFile(pauseFile));
    EXPECT_EQ(c.after != nullptr, FileExists(pauseFile));
  }
}

// The hand-off across real threads: each fake driver's thread waits for its turn, works
// and clears it, while main sleeps in (simulated, but really short) 5-second steps.
TEST(SupervisionThreads, DriverThreadsPollOneAtATime) {
  mcdtest::TempRoot root;
  mcdtest::FakeClock clock;
  clock.pauseMicros = 1000;
  FakeDriver a, b;
  std::atomic<bool> supervisorDone{false};
  std::atomic<int> inside{0}, overlaps{0}, cyclesA{0}, cyclesB{0};
  auto play = [&](FakeDriver& d, std::atomic<int>& cycles) {
    // a driver keeps polling until main is gone: the pass under way still needs it
    while (!supervisorDone.load()) {
      if (!d.GetTurn()) {
        std::this_thread::sleep_for(std::chrono::microseconds(200));
        continue;
      }
      if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
      inside.fetch_sub(1);
      ++cycles;
      d.ClearTurn();
    }
  };
  std::thread ta(play, std::ref(a), std::ref(cyclesA));
  std::thread tb(play, std::ref(b), std::ref(cyclesB));
  std::thread stopper([&] {
    mcdtest::WaitFor([&] { return cyclesB.load() >= 5; }, std::chrono::seconds(20));
    mcd::RequestStop();
  });
  mcd::RunSupervision({&a, &b});
  supervisorDone.store(true);
  stopper.join();
  ta.join();
  tb.join();
  mcd::ClearStopRequest();
  EXPECT_EQ(0, overlaps.load());
  EXPECT_GE(cyclesB.load(), 5);
  // strict alternation: every pass gives each driver exactly one cycle; the stop may
  // end the last pass after the first driver's turn
  EXPECT_LE(cyclesA.load() - cyclesB.load(), 1);
  EXPECT_GE(cyclesA.load(), cyclesB.load());
  EXPECT_FALSE(FileExists(root.tmp("extds_pause")));
}

}  // namespace
