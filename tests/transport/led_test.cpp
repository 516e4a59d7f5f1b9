// The traffic lamps: flashes carried out by the lamp's own thread into its file.
#include "transport/led.h"

#include <sys/resource.h>

#include <chrono>
#include <memory>
#include <thread>
#include <gtest/gtest.h>

#include "support/test_support.h"
#include "transport_helpers.h"

using namespace std::chrono;
using mcdtest::ReadFile;
using mcdtest::WaitFor;

namespace {

constexpr unsigned kFlashMicros = 150000;  // what the serial connector asks for
// Watches the lamp file every 0.2 ms until it reads `text`; returns that time.
steady_clock::time_point SeenAt(const std::string& path, const std::string& text, milliseconds timeout) {
  const auto deadline = steady_clock::now() + timeout;
  while (ReadFile(path) != text && steady_clock::now() < deadline) std::this_thread::sleep_for(microseconds(200));
  return steady_clock::now();
}

double Ms(steady_clock::duration d) { return duration<double, std::milli>(d).count(); }
long VoluntarySwitches() {
  rusage usage{};
  return getrusage(RUSAGE_SELF, &usage) == 0 ? usage.ru_nvcsw : -1;
}

class LedTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
  transporttest::LogCapture log{root.tmp("mcd.log")};
  std::string path = root.leds("kr_red");
};

TEST_F(LedTest, AFlashStartsAtOnceAndLastsItsTime) {
  CLed led(path, kFlashMicros);
  led.start(&led, "lamp");
  std::this_thread::sleep_for(milliseconds(30));  // the thread is waiting
  int prompt = 0;
  std::string expected = "0";
  for (int flash = 0; flash < 3; ++flash) {
    const auto asked = steady_clock::now();
    led.SwichLED(true);
    const auto lit = SeenAt(path, expected + "1", seconds(2));
    const auto dark = SeenAt(path, expected + "10", seconds(2));
    expected += "10";
    ASSERT_EQ(expected, ReadFile(path));
    prompt += Ms(lit - asked) < 10.0;
    EXPECT_GE(Ms(dark - asked), 150.0);
    EXPECT_LT(Ms(dark - lit), 250.0);
    std::this_thread::sleep_for(milliseconds(20));
  }
  // on a busy machine one start may come late, not two of three
  EXPECT_GE(prompt, 2);
  EXPECT_EQ(3, log.Count("CLed::SwichLED - Lamp, whose name is a " + path + ", shines.\n"));
}

TEST_F(LedTest, IdleLampsNeitherWriteNorWakeUp) {
  const std::string other = root.leds("lan");
  CLed a(path, kFlashMicros), b(other, kFlashMicros);
  a.start(&a, "A");
  b.start(&b, "B");
  std::this_thread::sleep_for(milliseconds(50));  // both are waiting
  const long before = VoluntarySwitches();
  std::this_thread::sleep_for(milliseconds(500));
  // a lamp waking every 10 ms would add about 50 switches each
  EXPECT_LT(VoluntarySwitches() - before, 10);
  EXPECT_EQ("0", ReadFile(path));
  EXPECT_EQ("0", ReadFile(other));
}

TEST_F(LedTest, RequestsCoalesceAndSwitchingOffCancelsOnlyAPendingOne) {
  const std::string off = "CLed::SwichLED - Lamp, whose name is a " + path + ", off.\n";
  CLed led(path, 200000);
  led.SwichLED(false);  // nothing pending: nothing happens
  led.SwichLED(true);
  led.SwichLED(false);  // pending: written off at once, no flash later
  EXPECT_EQ("00", ReadFile(path));
  EXPECT_EQ(1, log.Count(off));
  led.SwichLED(true);
  led.SwichLED(true);  // before the thread runs: one flash for both
  led.start(&led, "lamp");
  ASSERT_TRUE(WaitFor([&] { return ReadFile(path) == "001"; }, seconds(2)));
  led.SwichLED(false);  // the request was taken when the flash began: nothing happens
  led.SwichLED(true);
  led.SwichLED(true);  // during the flash: one more after it
  EXPECT_TRUE(WaitFor([&] { return ReadFile(path) == "001010"; }, seconds(2)));
  std::this_thread::sleep_for(milliseconds(60));
  EXPECT_EQ("001010", ReadFile(path));
}

TEST_F(LedTest, DeletingDuringALongFlashStopsAtOnceAndLeavesTheLampOff) {
  auto led = std::make_unique<CLed>(path, 30000000);
  led->start(led.get(), "lamp");
  led->SwichLED(true);
  ASSERT_TRUE(WaitFor([&] { return ReadFile(path) == "01"; }, seconds(2)));
  const auto start = steady_clock::now();
  led.reset();  // cancels the 30 s flash
  EXPECT_LT(Ms(steady_clock::now() - start), 2000.0);
  EXPECT_EQ("010", ReadFile(path));
}

TEST_F(LedTest, AnUnopenableLampIsIgnored) {
  const std::string missing = root.leds("no/such/lamp");
  {
    CLed led(missing, 1000);
    led.start(&led, "lamp");
    led.SwichLED(true);
    EXPECT_TRUE(WaitFor([&] { return !led.RequestPending(); }, seconds(2)));
  }  // the loop went on past the writes that went nowhere and was stopped
  EXPECT_FALSE(mcdtest::FileExists(missing));
  EXPECT_EQ(1, log.Count("CLed::SwichLED - Lamp, whose name is a " + missing + ", shines.\n"));
}

}  // namespace
