// The MAGIKA driver against a scripted gateway: the archive transfer with and without
// the search mode, both forms of the buffer's byte count, and lines that do not check.
#include "drivers/magika/magika_driver.h"

#include <cstdlib>

#include "../tsrv/modbus_peer.h"

namespace {

using mbtest::Step;

// The program runs in UTC, set before any thread starts.
struct Utc {
  Utc() {
    setenv("TZ", "UTC", 1);
    tzset();
  }
} const kUtc;

// 15.05.2024 10:00 in UTC.
const time_t kHour = 1715767200;

const Step kIdentify = {"01 04 00 00 00 05 30 09", "01 04 0A 4D 47 30 30 31 32 30 31 02 13 45 30"};
// Start of the hourly transfer and its template "DATE HOUR Q1 T1 T2 TNORM1 ERRORCODE1".
const Step kStart[] = {
    {"01 06 03 E8 00 05 C9 B9", "01 06 03 E8 00 05 C9 B9"},
    {"01 04 03 E9 00 01 E0 7A", "01 04 02 00 24 B9 2B"},
    {"01 04 03 EA 00 12 51 B7",
     "01 04 00 24 44 41 54 45 20 48 4F 55 52 20 51 31 20 54 31 20 54 32 20 54 4E 4F 52 4D 31 20 45 52 52 4F 52 43 "
     "4F 44 45 31 FD 7D"},
};
const Step kSearch = {"01 06 03 E8 00 0B 48 7D", "01 06 03 E8 00 0B 48 7D"};
const Step kNext = {"01 06 03 E8 00 06 89 B8", "01 06 03 E8 00 06 89 B8"};
const Step kLength18 = {"01 04 03 E9 00 01 E0 7A", "01 04 02 00 12 39 3D"};
const Step kEnd = {"01 06 03 E8 00 08 08 7C", "01 06 03 E8 00 08 08 7C"};

class MagikaDriverTest : public ::testing::Test {
 protected:
  void SetUp() override {
    driver.SetConfiguration({{"serial", "1"}, {"heat_systems", "1"}});
    driver.SaveConnector(meter.connector());
    meter.Play({kIdentify});
    driver.init();
    meter.Join();
    ASSERT_TRUE(driver.IsReady());
  }
  mcdtest::TempRoot root;
  mcdtest::LogCapture log{6};
  mbtest::ScriptedMeter meter;
  CmcdMAGIKAAXXX driver;
};

TEST_F(MagikaDriverTest, SearchesTheHourAfterAndFilesTheLineAskedFor) {
  std::vector<Step> steps(std::begin(kStart), std::end(kStart));
  steps.insert(steps.end(), {
      kSearch,
      {"01 10 03 EA 00 02 04 15 05 24 11 A6 69", "01 10 03 EA 00 02 60 78"},  // key 15.05.24 11h
      {"01 04 03 E9 00 01 E0 7A", "01 04 02 00 02 38 F1"},                    // found
      kNext, kLength18,
      // 15.05.24 10h: Q1 1.5, T1 70.25, T2 40.5, TNORM1 58, ERRORCODE1 0x80 (one-byte count)
      {"01 04 03 EA 00 09 11 BC", "01 04 12 15 05 24 10 3F C0 00 00 42 8C 80 00 42 22 00 00 3A 80 0E D8"},
      kNext, kLength18,
      // 09h, older than asked: the walk ends here (two-byte count 00 12)
      {"01 04 03 EA 00 09 11 BC", "01 04 00 12 15 05 24 09 3F C0 00 00 42 8C 80 00 42 22 00 00 3A 80 E3 DF"},
      kEnd});
  meter.Play(steps);
  ParamValueList out;
  EXPECT_NE(driver.get_arch_values(ARCH_HOURLY, kHour, kHour, out), 0);
  meter.Join();
  std::map<int, std::string> got;
  for (const auto& v : out) {
    EXPECT_EQ(v.timestamp, kHour);
    EXPECT_EQ(v.kind, ARCH_HOURLY);
    EXPECT_EQ(v.error, 0x80);
    got[v.paramId] = v.value;
  }
  const std::map<int, std::string> want{{14, "128"}, {17, "1.5"}, {18, "58"}, {6, "70.25"}, {7, "40.5"}};
  EXPECT_EQ(got, want);
}

TEST_F(MagikaDriverTest, WithoutSearchItWalksFromTheNewestAndRefusesALineOfTheWrongLength) {
  std::vector<Step> steps(std::begin(kStart), std::end(kStart));
  steps.push_back({"01 06 03 E8 00 0B 48 7D", "01 86 03 02 61"});  // no search mode: exception 3
  steps.insert(steps.end(), std::begin(kStart), std::end(kStart));  // the transfer starts again
  steps.insert(steps.end(), {kNext, {"01 04 03 E9 00 01 E0 7A", "01 04 02 00 11 79 3C"}, kEnd});  // 17 bytes
  meter.Play(steps);
  ParamValueList out;
  EXPECT_EQ(driver.get_arch_values(ARCH_HOURLY, kHour, kHour, out), 0);
  meter.Join();
  EXPECT_TRUE(out.empty());
  EXPECT_EQ(log.Count("line of 17 bytes does not match its template's 18"), 1u);
}

TEST(MagikaLines, TemplatesAndDatesThatDoNotCheckAreRefused) {
  std::vector<CmcdMAGIKAAXXX::Field> fields;
  std::string why;
  EXPECT_TRUE(CmcdMAGIKAAXXX::ParseTemplate("DATE TNORM1 TMIN1 ERRORCODE1", ARCH_DAILY, fields, why));
  ASSERT_EQ(fields.size(), 4u);
  EXPECT_EQ(fields[1].size, 2);  // daily time counters are two bytes, hourly ones one
  EXPECT_FALSE(CmcdMAGIKAAXXX::ParseTemplate("DATE HOUR X9", ARCH_HOURLY, fields, why));
  EXPECT_FALSE(CmcdMAGIKAAXXX::ParseTemplate("DATE Q1", ARCH_HOURLY, fields, why));  // no HOUR
  const uint8_t good[] = {0x15, 0x05, 0x24, 0x23}, badBcd[] = {0x1A, 0x05, 0x24, 0x10}, badHour[] = {0x15, 0x05, 0x24, 0x24};
  EXPECT_EQ(CmcdMAGIKAAXXX::LineTime(fields, good, ARCH_HOURLY), kHour + 13 * 3600);
  EXPECT_EQ(CmcdMAGIKAAXXX::LineTime(fields, good, ARCH_DAILY), kHour - 10 * 3600);
  EXPECT_EQ(CmcdMAGIKAAXXX::LineTime(fields, badBcd, ARCH_HOURLY), -1);
  EXPECT_EQ(CmcdMAGIKAAXXX::LineTime(fields, badHour, ARCH_HOURLY), -1);
}

}  // namespace
