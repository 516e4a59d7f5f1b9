// The TSRV-024M driver against a scripted meter on a pseudo-terminal: the bytes of
// identification, totals and function-65 archive requests, and what is filed from the
// answers.
#include "drivers/tsrv/tsrv_driver.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <thread>

#include "support/scripted_meter.h"
#include "support/test_support.h"
#include "transport/modbus_connector.h"

namespace {

using mcdtest::HexText;
using mcdtest::ParseHex;
using Step = std::pair<std::string, std::string>;  // request, answer ("" for silence)

// The program runs in Europe/Berlin, set before any thread starts (the simulators and
// daemons of the end-to-end test inherit it).
struct Berlin {
  Berlin() {
    setenv("TZ", "Europe/Berlin", 1);
    tzset();
  }
} const kBerlin;

// 05.10.2024 15:00 CEST.
const time_t kHour = 1728133200;

const char kIdRequest[] = "01 11 C0 2C";
const char kIdAnswer[] =
    "01 11 32 56 7A 6C 6A 6F 74 20 54 53 52 56 2D 30 32 34 4D 20 30 31 2E 30 32 2E 30 33 2E 30 34 00 00 00 00 00 "
    "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 7D 50 55";
const char kTotalRequest[] = "01 04 C0 BE 00 04 AD ED";
// 12345 + 0.5: the integer part and a float fraction.
const char kTotalAnswer[] = "01 04 08 00 00 30 39 3F 00 00 00 B1 EC";
// Hourly records of 05.10.2024 15:00, 16:00 and 17:00.
const char* const kRecordRequests[] = {"01 41 00 00 00 01 01 00 00 0F 05 0A 18 39 25",
                                       "01 41 00 00 00 01 01 00 00 10 05 0A 18 3E F1",
                                       "01 41 00 00 00 01 01 00 00 11 05 0A 18 3F 0D"};

// The hourly record of 05.10.2024 15:00 (time 0x67015470) and its CRC.
std::string Record(const std::string& crc, const std::string& time = "67 01 54 70") {
  return "01 41 AC " + time +
         " 00 37 00 00 00 00 00 05"                // 55 min normal, 5 min stoppage
         " 00*68 00 00 01 02 3F C0 00 00"           // at 80: flags 0x102, heat 1.5
         " 00*24 41 28 00 00 41 A2 00 00 41 F1 00 00"  // at 112: masses 10.5 20.25 30.125
         " 00*4 41 30 00 00 41 A8 00 00 41 F8 00 00"   // at 128: volumes 11 21 31
         " 00*12 1B 71 0F AA FF 6A 00 00 02 64 01 8E"  // at 152: 70.25 40.10 -1.50 °C; 0.612 0.398 MPa
         " 00*4 00 00 12 34 " + crc;
}

const char kZeroRecord[] = "01 41 AC 00*172 A0 13";

class TsrvDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    connector.reset(CConnector::CreateConnector({{"protocol", "modbus"}, {"name", pty.slaveName()}, {"speed", "19200"}}));
    driver.SetConfiguration({{"serial", "1"}});
    driver.SaveConnector(connector.get());
  }
  void TearDown() override { Join(); }
  // Plays the steps on the master side in a thread of its own, checking each request as it comes.
  void Play(std::vector<Step> steps) {
    Join();
    player = std::thread([this, steps] {
      for (const Step& step : steps) {
        const auto want = ParseHex(step.first);
        const auto got = pty.Read(want.size(), std::chrono::seconds(5));
        ASSERT_EQ(HexText(got), HexText(want)) << "answered with " << step.second;
        if (!step.second.empty()) pty.Write(ParseHex(step.second));
      }
    });
  }
  void Join() {
    if (player.joinable()) player.join();
  }
  void Ready() {
    Play({{kIdRequest, kIdAnswer}, {kTotalRequest, kTotalAnswer}});
    driver.init();
    Join();
    ASSERT_TRUE(driver.IsReady());
  }
  mcdtest::TempRoot root;
  mcdtest::LogCapture log{6};
  mcdtest::PtyPair pty;
  std::unique_ptr<CConnector> connector;
  std::thread player;
  CmcdTSRV driver;
};

// 15:00 is filed under the dictionary ids; 16:00 is not held (the all-zero record); the
// answer for 17:00 carries 14:00's time (0x67014660): the walk ends there, unfiled.
TEST_F(TsrvDriverTest, FilesHeldRecordsAndSkipsZeroAndMisdatedOnes) {
  Ready();
  Play({{kRecordRequests[0], Record("15 08")}, {kRecordRequests[1], kZeroRecord},
        {kRecordRequests[2], Record("00 EC", "67 01 46 60")}});
  ParamValueList out;
  EXPECT_EQ(driver.get_arch_values(ARCH_HOURLY, kHour, kHour + 7200, out), 0);
  Join();
  std::map<int, std::string> values;
  for (const auto& v : out) {
    EXPECT_EQ(v.kind, ARCH_HOURLY);
    EXPECT_EQ(v.timestamp, kHour);
    EXPECT_EQ(v.quality, 192);
    EXPECT_EQ(v.error, 2);
    values[v.paramId] = v.value;
  }
  EXPECT_EQ(values, (std::map<int, std::string>{
                        {14, "258"}, {6, "70.25"}, {7, "40.10"}, {8, "-1.50"}, {9, "0.612"}, {10, "0.398"},
                        {11, "0.000"}, {17, "1.5"}, {18, "55"}, {19, "11"}, {20, "21"}, {21, "31"},
                        {22, "10.5"}, {23, "20.25"}, {24, "30.125"}, {29, "5"}}));
  EXPECT_EQ(log.Count("holds no hourly record for 05.10.2024 16:00:00 of system 0: skipped"), 1u);
  EXPECT_EQ(log.Count("carries the time 67014660"), 1u);
}

TEST_F(TsrvDriverTest, WalksAskEachLocalHourOnceAcrossClockChanges) {
  Ready();
  // 25.10.2026 01:00 CEST to 03:00 CET: four hours of time, three local hours (02:00 once).
  Play({{"01 41 00 00 00 01 01 00 00 01 19 0A 1A 7B CA", kZeroRecord},
        {"01 41 00 00 00 01 01 00 00 02 19 0A 1A 7B 8E", kZeroRecord},
        {"01 41 00 00 00 01 01 00 00 03 19 0A 1A 7A 72", kZeroRecord}});
  ParamValueList out;
  EXPECT_NE(driver.get_arch_values(ARCH_HOURLY, 1792882800, 1792893600, out), 0);
  Join();
  // 29.03.2026 01:00 CET to 03:00 CEST: 02:00 does not exist and is not asked.
  Play({{"01 41 00 00 00 01 01 00 00 01 1D 03 1A 3C 5B", kZeroRecord},
        {"01 41 00 00 00 01 01 00 00 03 1D 03 1A 3D E3", kZeroRecord}});
  EXPECT_NE(driver.get_arch_values(ARCH_HOURLY, 1774742400, 1774746000, out), 0);
  Join();
  // One warning for each run of hours the meter does not hold.
  EXPECT_EQ(log.Count("holds no hourly record"), 2u);
  EXPECT_EQ(log.Count("system 0 holds no hourly records from 25.10.2026 01:00:00 to 25.10.2026 03:00:00 (3): skipped"),
            1u);
  EXPECT_EQ(log.Count("system 0 holds no hourly records from 29.03.2026 01:00:00 to 29.03.2026 03:00:00 (2): skipped"),
            1u);
}

TEST(TsrvTotals, LayoutIsDecidedFromTheBytes) {
  struct Case {
    const char* bytes;
    mcd::tsrv::TotalsLayout layout;
    const char* text;
  } cases[] = {
      {"00 00 30 39 3F 00 00 00", mcd::tsrv::kTotalsIntFrac, "12345.5"},  // 12345 + 0.5
      {"46 40 E6 00 00 00 00 00", mcd::tsrv::kTotalsFloat, "12345.5"},    // float 12345.5, zero tail
      {"00 00 00 00 00 00 00 00", mcd::tsrv::kTotalsIntFrac, "0"},
      {"00 00 30 39 3F 80 00 00", mcd::tsrv::kTotalsUnknown, ""},  // a fraction of 1.0
      {"00 00 30 39 7F C0 00 00", mcd::tsrv::kTotalsUnknown, ""},  // NaN
  };
  for (const auto& c : cases) {
    const auto bytes = ParseHex(c.bytes);
    EXPECT_EQ(mcd::tsrv::DecideTotals(bytes.data()), c.layout) << c.bytes;
    std::string text, why;
    if (c.layout != mcd::tsrv::kTotalsUnknown) {
      EXPECT_TRUE(mcd::tsrv::TotalText(bytes.data(), c.layout, text, why)) << why;
      EXPECT_EQ(text, c.text);
    }
  }
  // Once decided, a total that does not fit the layout is refused, not guessed.
  std::string text, why;
  EXPECT_FALSE(mcd::tsrv::TotalText(ParseHex("46 40 E6 00 00 00 00 01").data(), mcd::tsrv::kTotalsFloat, text, why));
  EXPECT_FALSE(mcd::tsrv::TotalText(ParseHex("00 00 30 39 BF 00 00 00").data(), mcd::tsrv::kTotalsIntFrac, text, why));
}

}  // namespace
