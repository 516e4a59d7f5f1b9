// The traffic lamps: flashes carried out by the lamp's own thread into its file.
#include "transport/led.h"

#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "transport_helpers.h"

using namespace std::chrono;
using mcdtest::ReadFile;
using mcdtest::WaitFor;
using transporttest::LogCapture;

namespace {

class LedTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
  LogCapture log{root.tmp("mcd.log")};
  std::string path = root.leds("kr_red");

  std::string Shines() const { return "CLed::SwichLED - Lamp, whose name is a " + path + ", shines.\n"; }
  std::string Off() const { return "CLed::SwichLED - Lamp, whose name is a " + path + ", off.\n"; }
};

TEST_F(LedTest, RequestsBetweenTwoChecksGiveOneFlash) {
  mcdtest::WriteFile(path, "1111");
  auto led = std::make_unique<CLed>(path, 20000);
  EXPECT_EQ("0", ReadFile(path));  // built switched off, thread not yet started
  EXPECT_FALSE(led->isRunning());
  led->SwichLED(true);
  led->SwichLED(true);
  led->SwichLED(true);
  EXPECT_EQ("0", ReadFile(path));  // the transfer itself writes nothing
  EXPECT_TRUE(led->RequestPending());
  led->start(led.get(), "lamp");
  ASSERT_TRUE(WaitFor([&] { return ReadFile(path) == "010"; }, seconds(2)));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_EQ("010", ReadFile(path));
  EXPECT_FALSE(led->RequestPending());
  led.reset();
  EXPECT_EQ(1, log.Count(Shines()));
  EXPECT_EQ(1, log.Count(Off()));
}

TEST_F(LedTest, RequestDuringAFlashGivesOneMoreFlash) {
  CLed led(path, 200000);
  led.start(&led, "lamp");
  led.SwichLED(true);
  ASSERT_TRUE(WaitFor([&] { return ReadFile(path) == "01"; }, seconds(2)));
  led.SwichLED(true);
  led.SwichLED(true);
  EXPECT_TRUE(WaitFor([&] { return ReadFile(path) == "01010"; }, seconds(2)));
  std::this_thread::sleep_for(milliseconds(60));
  EXPECT_EQ("01010", ReadFile(path));
}

TEST_F(LedTest, SwitchingOffDuringAFlashDoesNotCutItShort) {
  CLed led(path, 300000);
  led.start(&led, "lamp");
  led.SwichLED(true);
  ASSERT_TRUE(WaitFor([&] { return ReadFile(path) == "01"; }, seconds(2)));
  auto lit = steady_clock::now();
  led.SwichLED(false);  // the request was already taken: nothing happens
  EXPECT_EQ("01", ReadFile(path));
  ASSERT_TRUE(WaitFor([&] { return ReadFile(path) == "010"; }, seconds(2)));
  EXPECT_GE(duration<double>(steady_clock::now() - lit).count(), 0.2);
}

TEST_F(LedTest, SwitchingOffAPendingRequestWritesZeroAndLogs) {
  CLed led(path, 1000);
  led.SwichLED(false);  // nothing pending
  EXPECT_EQ("0", ReadFile(path));
  EXPECT_EQ(0, log.Count(Off()));

  led.SwichLED(true);
  led.SwichLED(false);
  EXPECT_FALSE(led.RequestPending());
  EXPECT_EQ("00", ReadFile(path));
  EXPECT_EQ(1, log.Count(Off()));

  // the cancelled request gives no flash once the thread runs
  led.start(&led, "lamp");
  std::this_thread::sleep_for(milliseconds(60));
  EXPECT_EQ("00", ReadFile(path));
}

TEST_F(LedTest, DeletingDuringALongFlashStopsAtOnceAndLeavesTheLampOff) {
  auto led = std::make_unique<CLed>(path, 30000000);
  led->start(led.get(), "lamp");
  led->SwichLED(true);
  ASSERT_TRUE(WaitFor([&] { return ReadFile(path) == "01"; }, seconds(2)));
  auto start = steady_clock::now();
  led.reset();
  EXPECT_LT(duration<double>(steady_clock::now() - start).count(), 2.0);
  EXPECT_EQ("010", ReadFile(path));
}

TEST_F(LedTest, AnUnopenableLampIsIgnored) {
  std::string missing = root.leds("no/such/lamp");
  {
    CLed led(missing, 1000);
    led.start(&led, "lamp");
    led.SwichLED(true);
    EXPECT_TRUE(WaitFor([&] { return !led.RequestPending(); }, seconds(2)));
    led.SwichLED(true);
    led.SwichLED(false);
    // the loop goes on after writes that went nowhere
    led.SwichLED(true);
    EXPECT_TRUE(WaitFor([&] { return !led.RequestPending(); }, seconds(2)));
    EXPECT_TRUE(led.isRunning());
  }
  EXPECT_FALSE(mcdtest::FileExists(missing));
  EXPECT_EQ(2, log.Count("CLed::SwichLED - Lamp, whose name is a " + missing + ", shines.\n"));
}

}  // namespace
