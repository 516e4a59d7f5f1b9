#include "app/supervision.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <memory>
#include <vector>

#include "drivers/base/empty_driver.h"
#include "support/test_support.h"

namespace {


// A driver that is never started: the test plays its thread.
struct FakeDriver : CMcdEmptyDriver {
  FakeDriver(int sleeps, bool reserved = false, bool current = false) : sleepsPerTurn(sleeps) {
    reserved_port.store(reserved);
    archives_current.store(current);
  }
  ~FakeDriver() override { stop(); }
  int sleepsPerTurn, heldFor = 0;
};

class SupervisionTest : public ::testing::Test {
 protected:
  void TearDown() override {
    mcd::ClearStopRequest();
    mcd::ClearReloadRequest();
  }
  // On each supervisor sleep the driver holding the turn (at most one) takes its step;
  // it gives the turn back after its number of sleeps.
  std::vector<CMcdBaseDriver*> Play(std::vector<FakeDriver*> list) {
    drivers.clear();
    for (auto* d : list) drivers.emplace_back(d);
    holderPerSleep.clear();
    clock.onSleep = [this](time_t) {
      int holders = 0;
      for (auto& d : drivers) holders += d->GetTurn() ? 1 : 0;
      EXPECT_LE(holders, 1) << "two drivers hold the line at once";
      for (size_t i = 0; i < drivers.size(); ++i) {
        if (!drivers[i]->GetTurn()) continue;
        holderPerSleep.push_back(static_cast<int>(i));
        FakeDriver& d = *drivers[i];
        if (++d.heldFor < d.sleepsPerTurn) break;
        d.heldFor = 0;
        d.ClearTurn();
        break;
      }
      if (afterSleep) afterSleep();
    };
    return std::vector<CMcdBaseDriver*>(list.begin(), list.end());
  }

  mcdtest::TempRoot root;
  std::string pauseFile = root.tmp("extds_pause");
  mcdtest::FakeClock clock;
  std::vector<std::unique_ptr<FakeDriver>> drivers;
  std::vector<int> holderPerSleep;
  std::function<void()> afterSleep;
};

TEST_F(SupervisionTest, TurnPassesFromDriverToDriverInListOrderInFiveSecondSteps) {
  const auto list = Play({new FakeDriver(3), new FakeDriver(1)});
  mcd::SupervisionPass(list);
  EXPECT_EQ((std::vector<int>{0, 0, 0, 1}), holderPerSleep);
  EXPECT_EQ((std::vector<unsigned>{5, 5, 5, 5}), clock.Slept());
}

// A request during the first driver's turn, which it gives back at its next block
// boundary, ends the pass: the second driver gets no turn and "extds_pause" stays.
TEST_F(SupervisionTest, StopOrReloadEndsThePassAtOnce) {
  for (bool reload : {false, true}) {
    const auto list = Play({new FakeDriver(3), new FakeDriver(1)});
    mcdtest::WriteFile(pauseFile, "keep");
    afterSleep = [&] {
      reload ? mcd::RequestReload() : mcd::RequestStop();
      drivers[0]->ClearTurn();
    };
    EXPECT_EQ(reload ? mcd::SupervisionEnd::kReload : mcd::SupervisionEnd::kStop, mcd::RunSupervision(list));
    EXPECT_EQ(std::vector<int>{0}, holderPerSleep);
    EXPECT_FALSE(drivers[1]->GetTurn());
    EXPECT_EQ("keep", mcdtest::ReadFile(pauseFile));
    mcd::ClearStopRequest();
    mcd::ClearReloadRequest();
  }
}

// "extds_pause" says whether the archives of the pass lag: "7200" when one does (a
// driver on a reserved port counts as lagging), removed when all are current; the
// last driver's reserved port leaves it as it was.
TEST_F(SupervisionTest, ExtPauseFileFollowsTheArchivesOfThePass) {
  const struct {
    std::vector<std::pair<bool, bool>> drivers;  // (reserved port, archives current)
    const char* before;                          // null: absent
    const char* after;
  } cases[] = {{{}, "7200", nullptr},
               {{{false, true}, {false, true}}, "7200", nullptr},
               {{{false, true}, {false, false}}, nullptr, "7200"},
               {{{true, true}, {false, true}}, nullptr, "7200"},
               {{{false, false}, {true, true}}, "keep", "keep"}};
  for (const auto& c : cases) {
    std::vector<FakeDriver*> list;
    for (const auto& d : c.drivers) list.push_back(new FakeDriver(1, d.first, d.second));
    unlink(pauseFile.c_str());
    if (c.before) mcdtest::WriteFile(pauseFile, c.before);
    EXPECT_EQ(c.after == nullptr, mcd::SupervisionPass(Play(list)));
    EXPECT_EQ(c.after ? c.after : "", mcdtest::ReadFile(pauseFile));
    EXPECT_EQ(c.after != nullptr, mcdtest::FileExists(pauseFile));
  }
}

}  // namespace
