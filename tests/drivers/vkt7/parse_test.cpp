// The VKT-7 driver's answer parsing, fed with answer images written out in hex (data
// bytes after the 3-byte header; a value is followed by its quality and NS bytes).
#include <gtest/gtest.h>

#include <vector>

#include "drivers/base/value_text.h"
#include "drivers/vkt7/vkt7_driver.h"
#include "support/test_support.h"
#include "vkt7_test_util.h"

using namespace vkt7test;

namespace {

// 6-byte records of the active element list, flagged as the meter sends them.
Bytes ActiveList(const std::vector<std::pair<int, int>>& elements) {
  Bytes out;
  for (const auto& e : elements) {
    const Bytes record = {static_cast<unsigned char>(e.first), 0, 0, 0x40, static_cast<unsigned char>(e.second), 0};
    out.insert(out.end(), record.begin(), record.end());
  }
  return out;
}

std::vector<const ParamValue*> Find(const ParamValueList& list, int param, int sys) {
  std::vector<const ParamValue*> out;
  for (const auto& v : list)
    if (v.paramId == param && v.sys == sys) out.push_back(&v);
  return out;
}

class Vkt7ParseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Fixed-width properties: units of 44..56 (7 bytes and 2), fraction digits of
    // 57..76 (1 byte and 2). 44 "C", 46 "m3"; 57 (t) 2 digits, 59 (V) 3, 61 (P) 2.
    Bytes props(13 * 9 + 20 * 3, 0);
    props[0] = 'C';
    props[2 * 9] = 'm';
    props[2 * 9 + 1] = '3';
    props[13 * 9 + 0 * 3] = 2;
    props[13 * 9 + 2 * 3] = 3;
    props[13 * 9 + 4 * 3] = 2;
    driver.ParseProperties(Image(props).View());
  }
  void Activate(const std::vector<std::pair<int, int>>& elements) {
    driver.ParseActiveList(Image(ActiveList(elements)).View());
  }
  ParamValueList Parse(const std::string& hex, int kind = 4, int expect = 0) {
    ParamValueList out;
    EXPECT_EQ(driver.parce45inWork(Image(Hex(hex)).View(), out, kind, 1000), expect);
    return out;
  }
  mcdtest::TempRoot root;
  Cmcd_VKT7 driver;
};

TEST_F(Vkt7ParseTest, QualityCodesAreFiledAsTheMeterSendsThem) {
  Activate({{0, 2}, {3, 4}, {9, 2}, {1, 2}});
  // t1 12345 good; V1 123456 with an abnormal situation (0x50, NS 1); P1 outside the
  // measuring scheme (0x04, bytes meaningless); t2 out of range (0x0C)
  ParamValueList out = Parse("39 30 C0 FF  40 E2 01 00 50 01  EE EE 04 00  10 27 0C 00");
  ASSERT_EQ(out.size(), 4u);  // t1, V1 and the two activity masks
  const ParamValue& t1 = out.front();
  EXPECT_EQ(t1.paramId, 6);
  EXPECT_EQ(t1.value, "123.45");
  EXPECT_EQ(t1.dim, "C");
  EXPECT_EQ(t1.quality, 192);
  EXPECT_EQ(t1.error, 0);  // NS 0xFF: the situation is another element's
  EXPECT_EQ(t1.timestamp, 1000);
  const ParamValue& v1 = *std::next(out.begin());
  EXPECT_EQ(v1.paramId, 19);
  EXPECT_EQ(v1.value, "123.456");
  EXPECT_EQ(v1.dim, "m3");
  EXPECT_EQ(v1.quality, 80);
  EXPECT_EQ(v1.error, 1);
  // NS 1 on V1 sets bit 0x4 of heat input 1's activity mask
  EXPECT_EQ(Find(out, 14, 0)[0]->value, "4");
  EXPECT_EQ(Find(out, 14, 0)[0]->quality, 192);
  EXPECT_EQ(Find(out, 14, 1)[0]->value, "0");
}

TEST_F(Vkt7ParseTest, AbnormalSituationFlagsAndUnknownElements) {
  LogCapture log;
  // 77/78 flags, 79 durations (10 bytes) and 81 DI are read over, 50 (a property)
  // and 90 are unknown in a value answer, t1 follows them all
  Activate({{77, 1}, {78, 1}, {79, 10}, {81, 4}, {50, 2}, {90, 2}, {0, 2}});
  ParamValueList out = Parse(
      "2A C0 00  20 C0 FF  01 00 02 00 03 00 04 00 05 00 C0 00  00 00 80 3F C0 00  09 09 C0 00  09 09 C0 00  "
      "64 00 C0 00",
      5);
  ASSERT_EQ(Find(out, 55, 0).size(), 1u);
  EXPECT_EQ(Find(out, 55, 0)[0]->value, "1");
  EXPECT_EQ(Find(out, 55, 0)[0]->kind, 5);
  EXPECT_EQ(Find(out, 55, 0)[0]->quality, 192);
  ASSERT_EQ(Find(out, 56, 1).size(), 1u);
  EXPECT_EQ(Find(out, 56, 1)[0]->value, "0");
  EXPECT_EQ(Find(out, 6, 0)[0]->value, "1");
  EXPECT_EQ(out.size(), 5u);
  EXPECT_EQ(log.Count("WRONG INDEX"), 1u);
  EXPECT_EQ(log.Count("Cmcd_VKT7::parce45inWorkEXTERNAL - WRONG INDEX - 50 (2 unknown elements in this read)"), 1u);
  // elements 45/46 are unit properties: never filed as values
  Activate({{45, 2}, {46, 2}});
  out = Parse("2A 00 C0 00  11 00 C0 00");
  EXPECT_EQ(out.size(), 2u);
}

TEST_F(Vkt7ParseTest, NsByteFiveIsAMaskChangeUnlessTheElementHasAnAbnormalSituation) {
  LogCapture log(logger::TL_WARNING);
  Activate({{0, 2}, {1, 2}});
  Parse("01 00 C0 00  01 00 C0 05", 4, -1);
  EXPECT_EQ(log.Count("Cmcd_VKT7::parce45inWork - activity mask is changed, need to reread"), 1u);
  ParamValueList out = Parse("01 00 C0 00  01 00 50 05");
  EXPECT_EQ(Find(out, 7, 0)[0]->quality, 80);
  EXPECT_EQ(Find(out, 7, 0)[0]->error, 5);
}

TEST_F(Vkt7ParseTest, SchemeSwapAndTheCopyOfT3) {
  // element 2 alone: scheme 1, t3 of heat input 1 is filed for heat input 2 too
  Activate({{2, 2}});
  ParamValueList out = Parse("10 27 C0 00");
  ASSERT_EQ(Find(out, 8, 1).size(), 1u);
  EXPECT_EQ(Find(out, 8, 1)[0]->value, "100");
  // element 15 present: element 2 publishes as 30 and 15 as 8; scheme back to 0
  Activate({{2, 2}, {15, 2}});
  out = Parse("01 00 C0 00  02 00 C0 00");
  ASSERT_EQ(Find(out, 8, 0).size(), 1u);
  EXPECT_EQ(Find(out, 8, 0)[0]->value, "2");
  EXPECT_TRUE(Find(out, 8, 1).empty());
  // heat input 2 keeps its pair: element 24 is t3 whatever the flag says
  Activate({{24, 2}, {0x25, 2}});
  out = Parse("03 00 C0 00  04 00 C0 00");
  ASSERT_EQ(Find(out, 8, 1).size(), 1u);
  EXPECT_EQ(Find(out, 8, 1)[0]->value, "3");
}

TEST_F(Vkt7ParseTest, MonthlyTimeOfWorkIsMostSignificantByteFirst) {
  Activate({{17, 4}, {18, 4}});
  ParamValueList out = Parse("00 00 01 02 C0 00  03 00 00 00 C0 00", Cmcd_VKT7::kKindMonthly);
  EXPECT_EQ(Find(out, 18, 0)[0]->value, "258");
  EXPECT_EQ(Find(out, 29, 0)[0]->value, "3");
  EXPECT_EQ(mcdtest::ReadFile(root.storage("vkt7log.log")), "TimeOfWork\n0x00 0x00 0x01 0x02 0xC0 0x00 \n\n");
  out = Parse("00 00 01 02 C0 00  03 00 00 00 C0 00", 5);
  EXPECT_EQ(Find(out, 18, 0)[0]->value, mcd::StreamText(0x02010000));
}

TEST_F(Vkt7ParseTest, AnswerShorterThanTheListIsABrokenAnswer) {
  Activate({{3, 4}, {4, 4}});
  ParamValueList out;
  EXPECT_THROW(driver.parce45inWork(Image(Hex("01 00 00 00 C0 00 07")).View(), out, 1, 0), CDisconnectException);
}

TEST_F(Vkt7ParseTest, SystemDataOfNewAndOldMeters) {
  driver.ParseSystemData(Image(Hex("27 03 00 00 00 30 30 31 32 33 34 35 00 12 19 07")).View());
  EXPECT_EQ(driver.VersionString(), "2.7.3");
  EXPECT_EQ(driver.TypeByte(), 0x12);
  EXPECT_EQ(driver.ReportingDay(), 25);
  LogCapture log(logger::TL_INFO);
  driver.ParseSystemData(Image(Hex("14 00 05 1F")).View());
  EXPECT_EQ(driver.VersionString(), "<1.5");
  EXPECT_EQ(driver.ReportingDay(), 31);
  EXPECT_EQ(log.Count("Cmcd_VKT7::GetSystemData it's old heat-meter. v < 1.5 length system data is 4"), 1u);
}

TEST_F(Vkt7ParseTest, MeterDatesWithAFieldOutOfRangeAreNotUsed) {
  LogCapture log(logger::TL_WARNING);
  // 05.03.2016 10:04:07
  const time_t t = driver.ParseCurrentTimestamp(Image(Hex("05 03 10 0A 04 07 C0 00")).View());
  struct tm parts;
  localtime_r(&t, &parts);
  EXPECT_EQ(parts.tm_year, 116);
  EXPECT_EQ(parts.tm_mday, 5);
  EXPECT_EQ(parts.tm_hour * 3600 + parts.tm_min * 60 + parts.tm_sec, 10 * 3600 + 4 * 60 + 7);
  // month 13, 31 February, hour 24, minute 60, all zeros
  for (const char* hex : {"05 0D 10 0A 04 07", "1F 02 10 0A 04 07", "05 03 10 18 00 00", "05 03 10 0A 3C 00",
                          "00 00 00 00 00 00"})
    EXPECT_EQ(driver.ParseCurrentTimestamp(Image(Hex(hex)).View()), -1) << hex;
  EXPECT_EQ(log.Count("is not a valid time, not used for archive dates"), 5u);

  // archive bounds: an impossible first hourly date is no bound; the daily one is the day
  Timestamps stamps;
  driver.ParseTimestamps(Image(Hex("1F 02 10 0A 07 03 10 0C 04 03 10 17")).View(), stamps);
  EXPECT_EQ(stamps.first_hour_arch, 0);
  const time_t day = stamps.first_day_arch;
  localtime_r(&day, &parts);
  EXPECT_EQ(parts.tm_mday, 4);
  EXPECT_EQ(parts.tm_hour, 0);
}

}  // namespace
