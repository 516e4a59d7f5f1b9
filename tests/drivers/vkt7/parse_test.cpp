// The VKT-7 driver's answer parsing, fed with byte images.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "drivers/base/value_text.h"
#include "drivers/vkt7/vkt7_driver.h"
#include "support/test_support.h"
#include "vkt7_test_util.h"

using namespace vkt7test;

namespace {

// 6-byte records of the active element list.
Bytes ActiveList(const std::vector<std::pair<int, int>>& elements) {
  Bytes out;
  for (const auto& e : elements) {
    Bytes record = {static_cast<unsigned char>(e.first), 0, 0, 0, static_cast<unsigned char>(e.second), 0};
    out.insert(out.end(), record.begin(), record.end());
  }
  return out;
}

void Append(Bytes& out, std::initializer_list<unsigned char> value, unsigned char state = 0, unsigned char error = 0) {
  out.insert(out.end(), value);
  out.push_back(state);
  out.push_back(error);
}

// Properties answer of the fixed-width layout: units of 44..56, digits of 57..76.
Bytes Properties(const std::map<int, std::string>& units, const std::map<int, int>& digits) {
  Bytes out;
  for (int p = 44; p <= 56; ++p) {
    std::string u = units.count(p) ? units.at(p) : "";
    u.resize(7, '\0');
    out.insert(out.end(), u.begin(), u.end());
    out.push_back(0);
    out.push_back(0);
  }
  for (int p = 57; p <= 76; ++p) Append(out, {static_cast<unsigned char>(digits.count(p) ? digits.at(p) : 0)});
  return out;
}

const ParamValue* Find(const ParamValueList& list, int param, int sys) {
  for (const auto& v : list)
    if (v.paramId == param && v.sys == sys) return &v;
  return nullptr;
}

class Vkt7ParseTest : public ::testing::Test {
 protected:
  void Activate(const std::vector<std::pair<int, int>>& elements) { driver.ParseActiveList(Image(ActiveList(elements)).View()); }
  mcdtest::TempRoot root;
  Cmcd_VKT7 driver;
};

TEST_F(Vkt7ParseTest, PropertiesFixedLayout) {
  driver.SetBaseType(0);
  driver.ParseProperties(Image(Properties({{44, "C"}, {48, "kgf/cm2"}, {56, "h"}}, {{57, 2}, {66, 4}, {76, 3}})).View());
  EXPECT_EQ(driver.Units().at(44), "C");
  EXPECT_EQ(driver.Units().at(48), "kgf/cm2");
  EXPECT_EQ(driver.Units().at(56), "h");
  EXPECT_EQ(driver.Units().at(45), "");
  EXPECT_EQ(driver.FractionDigits().at(57), 2);
  EXPECT_EQ(driver.FractionDigits().at(66), 4);
  EXPECT_EQ(driver.FractionDigits().at(76), 3);
  EXPECT_EQ(driver.FractionDigits().at(58), 0);
}

TEST_F(Vkt7ParseTest, PropertiesSizedLayout) {
  driver.SetBaseType(1);
  Bytes out;
  for (int p = 44; p <= 56; ++p) {
    std::string u = p == 44 ? "C" : p == 53 ? "Gcal" : "m3";
    out.push_back(static_cast<unsigned char>(u.size()));
    out.push_back(0);
    out.insert(out.end(), u.begin(), u.end());
    out.push_back(0);
    out.push_back(0);
  }
  for (int p = 57; p <= 76; ++p) Append(out, {static_cast<unsigned char>(p - 56)});
  driver.ParseProperties(Image(out).View());
  EXPECT_EQ(driver.Units().at(44), "C");
  EXPECT_EQ(driver.Units().at(53), "Gcal");
  EXPECT_EQ(driver.Units().at(56), "m3");
  EXPECT_EQ(driver.FractionDigits().at(57), 1);
  EXPECT_EQ(driver.FractionDigits().at(76), 20);
}

TEST_F(Vkt7ParseTest, ShortPropertiesAnswerIsABrokenAnswer) {
  Bytes props = Properties({}, {});
  props.resize(props.size() - 6);
  EXPECT_THROW(driver.ParseProperties(Image(props).View()), CDisconnectException);
  EXPECT_NE(mcdtest::ReadFile(root.storage("vkt7.debug.log")).find("Func name - CVKT7Buffer"), std::string::npos);
}

TEST_F(Vkt7ParseTest, ActiveListSchemeAndSwap) {
  Activate({{0, 2}, {2, 2}, {19, 4}});
  EXPECT_EQ(driver.ActiveList().size(), 3u);
  EXPECT_EQ(driver.ActiveList()[1], std::make_pair(2, 2));
  EXPECT_EQ(driver.Scheme(), 1);
  EXPECT_EQ(driver.TableRow(2).param, 8);
  EXPECT_EQ(driver.TableRow(15).param, 30);

  // element 15 present: 2 publishes as 30, 15 as 8; 15 toggles the scheme back
  Activate({{2, 2}, {15, 4}});
  EXPECT_EQ(driver.Scheme(), 0);
  EXPECT_EQ(driver.TableRow(2).param, 30);
  EXPECT_EQ(driver.TableRow(15).param, 8);
  // system 1 keeps its pair whatever the flag says
  EXPECT_EQ(driver.TableRow(24).param, 8);
  EXPECT_EQ(driver.TableRow(37).param, 30);

  // element 0x25 also sets the flag; 0x18 with a zero scheme gives 2
  Activate({{0x18, 2}});
  EXPECT_EQ(driver.Scheme(), 2);
  EXPECT_EQ(driver.TableRow(2).param, 8);
  Activate({{2, 2}, {0x25, 4}});
  EXPECT_EQ(driver.Scheme(), 0);
  EXPECT_EQ(driver.TableRow(2).param, 30);
  EXPECT_EQ(driver.TableRow(24).param, 8);
  EXPECT_EQ(driver.TableRow(37).param, 30);
}

TEST_F(Vkt7ParseTest, ElementTableRowsOfBothSystems) {
  EXPECT_EQ(driver.TableRow(12).param, 17);
  EXPECT_EQ(driver.TableRow(12).digitsKey, 66);
  EXPECT_EQ(driver.TableRow(34).param, 17);
  EXPECT_EQ(driver.TableRow(34).digitsKey, 76);
  EXPECT_EQ(driver.TableRow(34).unitKey, 53);
  EXPECT_EQ(driver.TableRow(34).sys, 1);
  EXPECT_EQ(driver.TableRow(39).digitsKey, 0);
  EXPECT_EQ(driver.TableRow(41).param, 0);
  EXPECT_EQ(driver.TableRow(41).unitKey, 45);
  EXPECT_EQ(driver.TableRow(43).param, 2);
  EXPECT_EQ(driver.TableRow(22).sys, 1);
  EXPECT_EQ(driver.TableRow(21).sys, 0);
}

TEST_F(Vkt7ParseTest, SystemDataOfNewAndOldMeters) {
  Bytes data = {0x27, 3, 0, 0, 0, '0', '0', '1', '2', '3', '4', '5', 0, 0x12, 25, 7};
  driver.ParseSystemData(Image(data).View());
  EXPECT_EQ(driver.VersionByte(), 0x27);
  EXPECT_EQ(driver.VersionString(), "2.7.3");
  EXPECT_EQ(driver.SerialText(), "0012345");
  EXPECT_EQ(driver.TypeByte(), 0x12);
  EXPECT_EQ(driver.ReportingDay(), 25);

  LogCapture log(logger::TL_INFO);
  driver.ParseSystemData(Image({0x14, 0, 0x05, 31}).View());
  EXPECT_EQ(driver.VersionString(), "<1.5");
  EXPECT_EQ(driver.ReportingDay(), 31);
  EXPECT_EQ(driver.TypeByte(), 0x05);
  EXPECT_LT(driver.VersionByte(), 0x27);
  EXPECT_EQ(log.Count("Cmcd_VKT7::GetSystemData it's old heat-meter. v < 1.5 length system data is 4"), 1u);
}

TEST_F(Vkt7ParseTest, ArchiveBoundsWithAndWithoutTheDailyBound) {
  Timestamps ts;
  driver.ParseTimestamps(Image({5, 3, 16, 10, 7, 3, 16, 12, 4, 3, 16, 0}).View(), ts);
  EXPECT_EQ(ts.first_hour_arch, Cmcd_VKT7::MeterDate(5, 3, 16, 10));
  EXPECT_EQ(ts.first_day_arch, Cmcd_VKT7::MeterDate(4, 3, 16, 0));
  struct tm tmv;
  time_t first = ts.first_hour_arch;
  localtime_r(&first, &tmv);
  EXPECT_EQ(tmv.tm_year, 116);
  EXPECT_EQ(tmv.tm_mon, 2);
  EXPECT_EQ(tmv.tm_mday, 5);
  EXPECT_EQ(tmv.tm_hour, 10);

  Timestamps shorter;
  shorter.first_day_arch = 99;
  driver.ParseTimestamps(Image({5, 3, 16, 10, 7, 3, 16, 12}).View(), shorter);
  EXPECT_EQ(shorter.first_day_arch, 0);
  EXPECT_EQ(shorter.first_hour_arch, ts.first_hour_arch);
}

TEST_F(Vkt7ParseTest, MeterClock) {
  time_t t = driver.ParseCurrentTimestamp(Image({5, 3, 16, 10, 4, 7}).View());
  struct tm tmv;
  localtime_r(&t, &tmv);
  EXPECT_EQ(tmv.tm_min, 4);
  EXPECT_EQ(tmv.tm_sec, 7);
  EXPECT_EQ(t, Cmcd_VKT7::MeterDate(5, 3, 16, 10, 4, 7));
}

class Vkt7ValuesTest : public Vkt7ParseTest {
 protected:
  void SetUp() override {
    driver.ParseProperties(Image(Properties({{44, "C"}, {45, "m3/h"}, {46, "m3"}, {53, "Gcal"}},
                                            {{57, 2}, {59, 3}, {61, 2}, {66, 4}, {67, 1}}))
                               .View());
  }
};

TEST_F(Vkt7ValuesTest, ValuesOfTheSelectedElements) {
  // t1 (2 bytes, 2 digits), V1 (4 bytes, 3 digits), G1 float, t1 of system 1 (digits key 67)
  Activate({{0, 2}, {3, 4}, {19, 4}, {22, 2}});
  float g = 12.5f;
  unsigned char gb[4];
  std::memcpy(gb, &g, 4);
  Bytes data;
  Append(data, {0x39, 0x30}, 0, 0xFF);  // 12345 -> 123.45, error 0xFF filed as 0
  Append(data, {0x40, 0xE2, 0x01, 0x00}, 0, 0);  // 123456 -> 123.456
  Append(data, {gb[0], gb[1], gb[2], gb[3]}, 8, 0);
  Append(data, {0xF5, 0x01}, 0, 0);  // 501 -> 50.1
  ParamValueList out;
  ASSERT_EQ(driver.parce45inWork(Image(data).View(), out, 4, 1000), 0);
  ASSERT_EQ(out.size(), 6u);

  const ParamValue* t1 = Find(out, 6, 0);
  ASSERT_NE(t1, nullptr);
  EXPECT_EQ(t1->value, "123.45");
  EXPECT_EQ(t1->dim, "C");
  EXPECT_EQ(t1->kind, 4);
  EXPECT_EQ(t1->quality, 0xC0);
  EXPECT_EQ(t1->error, 0);
  EXPECT_EQ(t1->timestamp, 1000);
  EXPECT_EQ(Find(out, 19, 0)->value, "123.456");
  EXPECT_EQ(Find(out, 19, 0)->dim, "m3");
  EXPECT_EQ(Find(out, 0, 0)->value, "12.5");
  EXPECT_EQ(Find(out, 0, 0)->quality, Cmcd_VKT7::kDefaultQuality);  // state 8 is not a normal state
  EXPECT_EQ(Find(out, 6, 1)->value, "50.1");
  // the two activity masks close the list, system 0 then system 1
  auto last = out.rbegin();
  EXPECT_EQ(last->paramId, 14);
  EXPECT_EQ(last->sys, 1);
  EXPECT_EQ(std::next(last)->paramId, 14);
  EXPECT_EQ(std::next(last)->sys, 0);
  EXPECT_EQ(std::next(last)->value, "0");
  EXPECT_EQ(std::next(last)->quality, 0xC0);
}

TEST_F(Vkt7ValuesTest, AbsentValuesAreSkippedButTheCursorMovesOn) {
  Activate({{0, 2}, {1, 2}, {9, 2}});
  Bytes data;
  Append(data, {1, 0}, 4, 0);
  Append(data, {2, 0}, 12, 0);
  Append(data, {3, 0}, 0, 0);
  ParamValueList out;
  ASSERT_EQ(driver.parce45inWork(Image(data).View(), out, 0, 5), 0);
  ASSERT_EQ(out.size(), 3u);  // P1 and the two masks
  EXPECT_EQ(out.front().paramId, 9);
  EXPECT_EQ(out.front().value, "0.03");
}

TEST_F(Vkt7ValuesTest, ActivityMaskBitsFromTheErrorBytes) {
  // t1 err 1 -> 0x8, V1 err 2 -> 0x2, P1 err 1 -> 0x40, Qo err 2 -> 0x400, t2 of system 1 err 1 -> 0x80000
  Activate({{0, 2}, {3, 4}, {9, 2}, {12, 4}, {23, 2}, {4, 4}});
  Bytes data;
  Append(data, {1, 0}, 0, 1);
  Append(data, {1, 0, 0, 0}, 0, 2);
  Append(data, {1, 0}, 0, 1);
  Append(data, {1, 0, 0, 0}, 0, 2);
  Append(data, {1, 0}, 0, 1);
  Append(data, {1, 0, 0, 0}, 0, 3);  // an error without a bit
  ParamValueList out;
  ASSERT_EQ(driver.parce45inWork(Image(data).View(), out, 5, 0), 0);
  auto last = out.rbegin();
  EXPECT_EQ(last->value, std::to_string(0x80000));
  EXPECT_EQ(std::next(last)->value, std::to_string(0x8 | 0x2 | 0x40 | 0x400));
  EXPECT_EQ(Find(out, 20, 0)->error, 3);
}

TEST_F(Vkt7ValuesTest, ErrorByteFiveReportsAChangedMask) {
  LogCapture log(logger::TL_WARNING);
  Activate({{0, 2}, {1, 2}});
  Bytes data;
  Append(data, {1, 0}, 0, 0);
  Append(data, {1, 0}, 0, 5);
  ParamValueList out;
  EXPECT_EQ(driver.parce45inWork(Image(data).View(), out, 4, 0), -1);
  EXPECT_EQ(log.Count("Cmcd_VKT7::parce45inWork - activity mask is changed, need to reread"), 1u);
}

TEST_F(Vkt7ValuesTest, TemperatureThreeIsCopiedToTheOtherSystem) {
  // element 2 alone: scheme 1, so system 0's parameter 8 is filed for system 1 too
  Activate({{2, 2}});
  Bytes data;
  Append(data, {0x10, 0x27});
  ParamValueList out;
  driver.parce45inWork(Image(data).View(), out, 0, 0);
  ASSERT_NE(Find(out, 8, 0), nullptr);
  ASSERT_NE(Find(out, 8, 1), nullptr);
  EXPECT_EQ(Find(out, 8, 1)->value, "100");

  // scheme 2: system 1's t3 (element 24) goes to system 0
  Activate({{24, 2}});
  out.clear();
  driver.parce45inWork(Image(data).View(), out, 0, 0);
  ASSERT_NE(Find(out, 8, 1), nullptr);
  ASSERT_NE(Find(out, 8, 0), nullptr);

  // scheme 0: no copy
  Activate({{2, 2}, {24, 2}});
  out.clear();
  Append(data, {0x10, 0x27});
  driver.parce45inWork(Image(data).View(), out, 0, 0);
  EXPECT_EQ(out.size(), 4u);
}

TEST_F(Vkt7ValuesTest, ExternalAndUnknownElements) {
  LogCapture log;
  Activate({{45, 2}, {50, 2}, {44, 2}, {0, 2}});
  Bytes data;
  Append(data, {42, 0}, 0, 0);
  Append(data, {9, 9}, 0, 0);
  Append(data, {9, 9}, 0, 0);
  Append(data, {0x64, 0}, 0, 0);
  ParamValueList out;
  ASSERT_EQ(driver.parce45inWork(Image(data).View(), out, 1, 0), 0);
  ASSERT_NE(Find(out, 55, 0), nullptr);
  EXPECT_EQ(Find(out, 55, 0)->value, "42");
  EXPECT_EQ(Find(out, 55, 0)->kind, 1);
  EXPECT_EQ(Find(out, 6, 0)->value, "1");
  EXPECT_EQ(out.size(), 4u);
  EXPECT_EQ(log.Count("Cmcd_VKT7::parce45inWorkEXTERNAL - WRONG INDEX - 50"), 1u);
}

TEST_F(Vkt7ValuesTest, TooLongValueGivesErrText) {
  LogCapture log(logger::TL_CRIT);
  Activate({{3, 8}});
  Bytes data;
  Append(data, {1, 2, 3, 4, 5, 6, 7, 8});
  ParamValueList out;
  ASSERT_EQ(driver.parce45inWork(Image(data).View(), out, 1, 0), 0);
  EXPECT_EQ(Find(out, 19, 0)->value, "ERR");
  EXPECT_EQ(log.Count("Cmcd_VKT7::ParseToString - too long value - 8. need additional work"), 1u);
}

TEST_F(Vkt7ValuesTest, AnswerShorterThanTheListIsABrokenAnswer) {
  Activate({{3, 4}, {4, 4}});
  Bytes data;
  Append(data, {1, 0, 0, 0});
  data.push_back(7);
  ParamValueList out;
  EXPECT_THROW(driver.parce45inWork(Image(data).View(), out, 1, 0), CDisconnectException);
}

TEST_F(Vkt7ValuesTest, MonthlyTimeOfWorkIsMostSignificantByteFirst) {
  Activate({{17, 4}, {18, 4}});
  Bytes data;
  Append(data, {0x00, 0x00, 0x01, 0x02});  // 258 hours
  Append(data, {0x03, 0x00, 0x00, 0x00});  // the stop time keeps the usual order
  ParamValueList out;
  ASSERT_EQ(driver.parce45inWork(Image(data).View(), out, Cmcd_VKT7::kKindMonthly, 0), 0);
  EXPECT_EQ(Find(out, 18, 0)->value, "258");
  EXPECT_EQ(Find(out, 29, 0)->value, "3");
  EXPECT_EQ(mcdtest::ReadFile(root.storage("vkt7log.log")), "TimeOfWork\n0x00 0x00 0x01 0x02 0x00 0x00 \n\n");

  // outside the monthly archive the same bytes are read in the usual order
  out.clear();
  driver.parce45inWork(Image(data).View(), out, 5, 0);
  EXPECT_EQ(Find(out, 18, 0)->value, mcd::StreamText(0x02010000));
}

TEST(Vkt7QualityTest, NormalStateIsGood) {
  EXPECT_EQ(Cmcd_VKT7::QualityOf(0), 0xC0);
  EXPECT_EQ(Cmcd_VKT7::QualityOf(1), Cmcd_VKT7::kDefaultQuality);
  EXPECT_EQ(Cmcd_VKT7::QualityOf(0xFF), Cmcd_VKT7::kDefaultQuality);
}

}  // namespace
