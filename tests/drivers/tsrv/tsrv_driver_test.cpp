// The TSRV-024M driver against a scripted meter: the bytes of identification, totals
// and function-65 archive requests, and what is filed from the answers.
#include "drivers/tsrv/tsrv_driver.h"

#include <cstdlib>

#include "modbus_peer.h"

namespace {

using mbtest::Hex;
using mbtest::Step;

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
const char kRecordRequest[] = "01 41 00 00 00 01 01 00 00 0F 05 0A 18 39 25";
const char kNextRecordRequest[] = "01 41 00 00 00 01 01 00 00 10 05 0A 18 3E F1";

// The hourly record of 05.10.2024 15:00 (time 0x67015470), every other byte zero.
std::string Record(const std::string& crc, const std::string& time = "67 01 54 70") {
  std::vector<std::string> b(172, "00");
  auto put = [&](int at, const std::string& hex) {
    std::istringstream in(hex);
    for (std::string two; in >> two;) b[at++] = two;
  };
  put(0, time);
  put(4, "00 37 00 00 00 00 00 05");  // 55 min normal, 5 min stoppage
  put(80, "00 00 01 02 3F C0 00 00");  // flags 0x102, heat 1.5
  put(112, "41 28 00 00 41 A2 00 00 41 F1 00 00");  // masses 10.5 20.25 30.125
  put(128, "41 30 00 00 41 A8 00 00 41 F8 00 00");  // volumes 11 21 31
  put(152, "1B 71 0F AA FF 6A 00 00 02 64 01 8E");  // 70.25 40.10 -1.50 °C; 0.612 0.398 MPa
  put(168, "00 00 12 34");
  std::string text = "01 41 AC";
  for (const auto& two : b) text += " " + two;
  return text + " " + crc;
}

const char kZeroAnswerCrc[] = "A0 13";

std::string ZeroRecord() {
  std::string text = "01 41 AC";
  for (int i = 0; i < 172; ++i) text += " 00";
  return text + " " + kZeroAnswerCrc;
}

class TsrvDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    driver.SetConfiguration({{"serial", "1"}});
    driver.SaveConnector(meter.connector());
  }
  void Ready() {
    meter.Play({{kIdRequest, kIdAnswer}, {kTotalRequest, kTotalAnswer}});
    driver.init();
    meter.Join();
    ASSERT_TRUE(driver.IsReady());
  }
  std::string Value(const ParamValueList& out, int id) {
    for (const auto& v : out)
      if (v.paramId == id) return v.value;
    return "<none>";
  }
  mcdtest::TempRoot root;
  mcdtest::LogCapture log{6};
  mbtest::ScriptedMeter meter;
  CmcdTSRV driver;
};

TEST_F(TsrvDriverTest, FilesAnHourlyRecordUnderTheDictionaryIds) {
  Ready();
  meter.Play({{kRecordRequest, Record("15 08")}});
  ParamValueList out;
  EXPECT_NE(driver.get_arch_values(ARCH_HOURLY, kHour, kHour, out), 0);
  meter.Join();
  ASSERT_EQ(out.size(), 16u);
  for (const auto& v : out) {
    EXPECT_EQ(v.kind, ARCH_HOURLY);
    EXPECT_EQ(v.timestamp, kHour);
    EXPECT_EQ(v.quality, 192);
    EXPECT_EQ(v.error, 2);
  }
  const std::pair<int, const char*> expected[] = {
      {14, "258"},  {6, "70.25"}, {7, "40.10"}, {8, "-1.50"}, {9, "0.612"}, {10, "0.398"}, {11, "0.000"},
      {17, "1.5"},  {18, "55"},   {19, "11"},   {20, "21"},   {21, "31"},   {22, "10.5"},  {23, "20.25"},
      {24, "30.125"}, {29, "5"}};
  for (const auto& e : expected) EXPECT_EQ(Value(out, e.first), e.second) << e.first;
}

TEST_F(TsrvDriverTest, AZeroRecordIsSkippedAndAnExceptionEndsTheWalk) {
  Ready();
  // 15:00 is not held (all-zero record); 16:00 is answered with exception 4.
  meter.Play({{kRecordRequest, ZeroRecord()}, {kNextRecordRequest, "01 C1 04 70 53"}});
  ParamValueList out;
  EXPECT_EQ(driver.get_arch_values(ARCH_HOURLY, kHour, kHour + 3600, out), 0);
  meter.Join();
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(log.Count("holds no hourly record for 05.10.2024 15:00:00 of system 0: skipped"), 1u);
  EXPECT_EQ(log.Count("answered with exception 4"), 1u);
}

TEST_F(TsrvDriverTest, ARecordOfAnotherTimeIsNotFiled) {
  Ready();
  // The record of 14:00 (0x67014660) answers the question for 15:00.
  meter.Play({{kRecordRequest, Record("00 EC", "67 01 46 60")}});
  ParamValueList out;
  EXPECT_EQ(driver.get_arch_values(ARCH_HOURLY, kHour, kHour, out), 0);
  meter.Join();
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(log.Count("carries the time 67014660"), 1u);
}

TEST_F(TsrvDriverTest, WalksAskEachLocalHourOnceAcrossClockChanges) {
  Ready();
  // 25.10.2026 01:00 CEST to 03:00 CET: four hours of time, three local hours (02:00 once).
  meter.Play({{"01 41 00 00 00 01 01 00 00 01 19 0A 1A 7B CA", ZeroRecord()},
              {"01 41 00 00 00 01 01 00 00 02 19 0A 1A 7B 8E", ZeroRecord()},
              {"01 41 00 00 00 01 01 00 00 03 19 0A 1A 7A 72", ZeroRecord()}});
  ParamValueList out;
  EXPECT_NE(driver.get_arch_values(ARCH_HOURLY, 1792882800, 1792893600, out), 0);
  meter.Join();
  // 29.03.2026 01:00 CET to 03:00 CEST: 02:00 does not exist and is not asked.
  meter.Play({{"01 41 00 00 00 01 01 00 00 01 1D 03 1A 3C 5B", ZeroRecord()},
              {"01 41 00 00 00 01 01 00 00 03 1D 03 1A 3D E3", ZeroRecord()}});
  EXPECT_NE(driver.get_arch_values(ARCH_HOURLY, 1774742400, 1774746000, out), 0);
  meter.Join();
  EXPECT_EQ(log.Count("holds no hourly record for"), 5u);
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
    const auto bytes = Hex(c.bytes);
    EXPECT_EQ(mcd::tsrv::DecideTotals(bytes.data()), c.layout) << c.bytes;
    std::string text, why;
    if (c.layout != mcd::tsrv::kTotalsUnknown) {
      EXPECT_TRUE(mcd::tsrv::TotalText(bytes.data(), c.layout, text, why)) << why;
      EXPECT_EQ(text, c.text);
    }
  }
  // Once decided, a total that does not fit the layout is refused, not guessed.
  std::string text, why;
  EXPECT_FALSE(mcd::tsrv::TotalText(Hex("46 40 E6 00 00 00 00 01").data(), mcd::tsrv::kTotalsFloat, text, why));
  EXPECT_FALSE(mcd::tsrv::TotalText(Hex("00 00 30 39 BF 00 00 00").data(), mcd::tsrv::kTotalsIntFrac, text, why));
}

}  // namespace
