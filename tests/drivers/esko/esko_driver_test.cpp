// The ESKO driver through its operations, against a scripted meter, and the page decoding.
#include <gtest/gtest.h>

#include <map>

#include "drivers/esko/esko_driver.h"
#include "drivers/esko/esko_values.h"
#include "esko_test_util.h"
#include "support/test_support.h"

using eskotest::Bytes;
using eskotest::Hex;
using Label = mcd::cal::Label;

namespace {

time_t Local(int y, int mo, int d, int h) { return mcd::cal::FromLabel(Label{y, mo, d, h}); }
int Key(const Label& l) { return ((l.year * 100 + l.month) * 100 + l.day) * 100 + l.hour; }
unsigned char Bcd(int v) { return static_cast<unsigned char>(((v / 10) << 4) | (v % 10)); }
void Put(Bytes& b, size_t at, const std::string& hex) {
  for (unsigned char c : Hex(hex)) b[at++] = c;
}

// A long 'A' answer without its link sum, dated l. System 1: M1 11.5 (41 38 00 00),
// t1 72.18 (1C 32), P1 6.1 (3D), Tw 60 min (00 3C), error word 0102; system 2: t1
// -10.00 (FC 18). The page check byte (259) is left 0, which is wrong.
Bytes Page(const Label& l) {
  Bytes b(260, 0);
  b[2] = 0xC1, b[3] = 4;
  b[4] = Bcd(l.year - 2000), b[5] = Bcd(l.month), b[6] = Bcd(l.day), b[7] = Bcd(l.hour);
  Put(b, 9 + 48, "41 38 00 00"), Put(b, 9 + 48 + 20, "1C 32"), Put(b, 9 + 48 + 24, "3D");
  Put(b, 9 + 48 + 30, "00 3C"), Put(b, 9 + 96 + 20, "FC 18"), Put(b, 9 + 144 + 2, "01 02");
  return b;
}

// The meter: a clock and the hourly (0) and daily (1) records it holds, oldest first.
struct Meter {
  time_t clock = 0;
  Bytes clockBytes;                        // the 'T' answer's bytes 5..10 instead of `clock`
  std::vector<Label> records[2];
  unsigned overclaim = 0;                  // "record rest" claims this many more than held
  std::map<int, std::vector<int>> codes;   // label key -> error codes of the next finds
  std::vector<Bytes> finds;

  static Bytes Framed(Bytes b) {
    unsigned sum = 0;
    for (unsigned char c : b) sum += c;
    b.push_back(static_cast<unsigned char>(sum));
    return b;
  }
  static Label Asked(const Bytes& r) {
    auto n = [](unsigned char v) { return (v >> 4) * 10 + (v & 15); };
    return Label{2000 + n(r[5]), n(r[6]), n(r[7]), r[4] == 0 ? n(r[8]) : 0};
  }
  int Index(int kind, const Label& l) const {
    for (size_t i = 0; i < records[kind].size(); ++i)
      if (Key(records[kind][i]) == Key(l)) return static_cast<int>(i);
    return -1;
  }
  Bytes Answer(const Bytes& r) {
    const bool page = r[2] == 'A' && r[3] != 3;
    Bytes b(page ? 260 : 13, 0);
    b[1] = r[1], b[2] = static_cast<unsigned char>(r[2] | 0x80), b[3] = r[3], b[4] = r[4];
    const Label want = Asked(r);
    const int kind = r[4] & 1, i = Index(kind, want);
    if (r[2] == 'T') {
      const Label l = mcd::cal::LocalLabel(clock);
      Bytes now = {Bcd(l.year - 2000), Bcd(l.month), Bcd(l.day), Bcd(l.hour), 0x30, 0};
      for (int k = 0; k < 6; ++k) b[5 + k] = clockBytes.empty() ? now[k] : clockBytes[k];
    } else if (r[2] == 'A' && r[3] == 3) {
      finds.push_back(r);
      std::vector<int>& queued = codes[Key(want)];
      const int code = !queued.empty() ? queued.front() : i < 0 ? 3 : 0;
      if (!queued.empty()) queued.erase(queued.begin());
      if (code) return b[2] = static_cast<unsigned char>(code), Framed(b);
      b[5] = i >> 8, b[6] = i & 0xFF, b[7] = (i + overclaim) >> 8, b[8] = (i + overclaim) & 0xFF;
    } else if (r[2] == 'L') {
      const unsigned index = ((r[3] << 8) | r[4]) / 32;
      const Label l = index >= 0x220 ? records[0].at(index - 0x220) : records[1].at(index - 0x20);
      b[5] = Bcd(l.year - 2000), b[6] = Bcd(l.month), b[7] = Bcd(l.day), b[8] = Bcd(l.hour);
    } else if (r[2] == 'A' && r[3] == 4) {
      if (i < 0) return b[2] = 3, Framed(b);
      return Framed(Page(want));
    }
    return Framed(b);
  }
  // Hourly records dated from..to, daily records dated the days from..to.
  void Hold(time_t from, time_t to) {
    for (time_t t = mcd::cal::HourStart(from); t <= to; t = mcd::cal::NextHour(t))
      records[0].push_back(mcd::cal::LocalLabel(t));
    for (time_t t = mcd::cal::DayStart(from); t <= to; t = mcd::cal::NextDay(t))
      records[1].push_back(mcd::cal::LocalLabel(t));
  }
};

struct Rig {
  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  eskotest::ScriptedConnector con;
  Meter meter;
  mcdtest::FakeClock clock;
  Cmcd_MTR06 driver;
  Timestamps ts;
  explicit Rig(time_t now) : clock(now) {
    meter.clock = now;
    con.meter = [this](const Bytes& r) { return meter.Answer(r); };
    driver.SetConfiguration({{"serial", "44"}});
    driver.SaveConnector(&con);
    driver.SetTurn();
  }
  std::vector<int32_t> Walk(int type, time_t from, time_t to, int expect) {
    ParamValueList out;
    EXPECT_EQ(driver.get_arch_values(type, from, to, out), expect);
    std::vector<int32_t> stamps;
    for (const auto& v : out)
      if (stamps.empty() || stamps.back() != v.timestamp) stamps.push_back(v.timestamp);
    return stamps;
  }
};

TEST(EskoPage, ValuesScaledStampedAndDateChecked) {
  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  const Label ten{2024, 3, 5, 10};
  const Bytes page = Page(ten);
  ParamValueList out;
  ASSERT_TRUE(mcd::esko::ParseArchPage(CMTR06Buffer(page.data(), 260), {0, 4, ten, 1709625600}, "P::", out));
  EXPECT_EQ(log.Count("P::ReadArchData - WRONG ARCH PAGE CS: x6c, got x00"), 1u);  // logged, not enforced
  ASSERT_EQ(out.size(), 3u * 16u);  // per system 15 named values and its error word
  std::map<int, const ParamValue*> by;
  for (const auto& v : out) by[v.paramId * 10 + v.sys] = &v;
  for (const auto& v : out) EXPECT_EQ(v.timestamp, 1709625600);
  EXPECT_EQ(by[221]->value, "11.500000000000");
  EXPECT_EQ(by[221]->dim, "т");
  EXPECT_EQ(by[221]->error, 0x02);  // low byte of system 1's error word
  EXPECT_EQ(by[61]->value, "72.18");
  EXPECT_EQ(by[62]->value, "-10.00");
  EXPECT_EQ(by[91]->value, "6.1");
  EXPECT_EQ(by[181]->value, "60");
  EXPECT_EQ(by[141]->value, "258");
  // Another hour fails; a daily page does not compare the hour.
  EXPECT_FALSE(mcd::esko::ParseArchPage(CMTR06Buffer(page.data(), 260), {0, 4, {2024, 3, 5, 11}, 0}, "P::", out));
  EXPECT_EQ(log.Count("P::FindArchDate - Returned Hour 10 != requested 11!"), 1u);
  EXPECT_TRUE(mcd::esko::ParseArchPage(CMTR06Buffer(page.data(), 260), {1, 5, {2024, 3, 5, 0}, 0}, "P::", out));
  EXPECT_FALSE(mcd::esko::ParseArchPage(CMTR06Buffer(page.data(), 259), {1, 5, {2024, 3, 5, 0}, 0}, "P::", out));
}

// Only the no-record answer twice in a row skips a record; one such answer followed by
// the record is read; any other code ends the walk there, and the next walk resumes.
TEST(EskoArchive, SkipOnlyOnTwoNoRecordAnswers) {
  const time_t h5 = Local(2024, 3, 5, 5);
  Rig rig(h5 + 6 * 3600);
  rig.meter.Hold(h5, h5 + 6 * 3600);
  rig.meter.codes[Key(Label{2024, 3, 5, 7})] = {3, 3};  // the record of 06:00
  rig.meter.codes[Key(Label{2024, 3, 5, 8})] = {3};     // the record of 07:00: damaged once
  ASSERT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  rig.meter.finds.clear();
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, h5, h5 + 3 * 3600, 1),
            (std::vector<int32_t>{int32_t(h5), int32_t(h5 + 2 * 3600), int32_t(h5 + 3 * 3600)}));
  EXPECT_EQ(rig.meter.finds.size(), 6u);
  EXPECT_EQ(rig.log.Count("holds no HOURLY record for 05.03.2024 06:00 (" + std::to_string(h5 + 3600) + "), skipped"),
            1u);
  rig.meter.codes[Key(Label{2024, 3, 5, 9})] = {5};  // the record of 08:00
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, h5 + 2 * 3600, h5 + 4 * 3600, 0), (std::vector<int32_t>{int32_t(h5 + 2 * 3600)}));
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, h5 + 3 * 3600, h5 + 4 * 3600, 0), std::vector<int32_t>{});  // until GetTimestamps
  ASSERT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, h5 + 3 * 3600, h5 + 4 * 3600, 1).size(), 2u);
}

// A meter claiming 1500 records more than the 30 it holds costs a few finds; one that
// holds half a year is searched no further back than 92 days before its newest record.
TEST(EskoArchive, OldestRecordByBisectionWithinTheBound) {
  const time_t now = Local(2024, 3, 5, 11);
  Rig rig(now);
  rig.meter.Hold(now - 29 * 3600, now);
  rig.meter.records[1].clear();
  rig.meter.overclaim = 1500;
  ASSERT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  EXPECT_EQ(rig.ts.first_hour_arch, now - 30 * 3600);  // the oldest record closes that hour
  EXPECT_LE(rig.meter.finds.size(), 26u);

  Rig deep(now);
  deep.meter.Hold(now - 180 * 86400, now);
  ASSERT_EQ(deep.driver.GetTimestamps(deep.ts), 1);
  const time_t bound = now - 92 * 86400;
  EXPECT_GE(deep.ts.first_hour_arch, bound - 3600);
  EXPECT_LE(deep.ts.first_hour_arch, bound);
  for (const Bytes& r : deep.meter.finds) EXPECT_GE(mcd::cal::FromLabel(Meter::Asked(r)), bound - 86400);
}

// An impossible meter clock, or one more than 7 days off, gives no archive dates and
// no date is asked by it.
TEST(EskoArchive, ImpossibleOrDistantMeterClockIsNotUsed) {
  Rig rig(Local(2024, 3, 5, 11));
  rig.meter.Hold(Local(2024, 3, 5, 5), Local(2024, 3, 5, 11));
  rig.meter.clockBytes = Hex("24 02 30 10 00 00");  // 30.02.2024: mktime would make it 01.03
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 0);
  EXPECT_EQ(rig.log.Count("meter clock 30.02.2024 10:00:00 is not a valid date"), 1u);
  rig.meter.clockBytes = Hex("00 00 00 00 00 00");
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 0);
  rig.meter.clockBytes.clear();
  rig.meter.clock += 7 * 86400 + 3600;
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 0);
  EXPECT_EQ(rig.log.Count("away from the controller clock (more than 7 days)"), 1u);
  EXPECT_TRUE(rig.meter.finds.empty());
  rig.meter.clock -= 13 * 86400;
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  EXPECT_EQ(rig.log.Count("meter clock usable again"), 1u);
}

// Europe/Berlin, 27.10.2024: 02:00..03:00 comes twice and is one record.
TEST(EskoArchive, BerlinAutumnHourIsOneRecord) {
  setenv("TZ", "Europe/Berlin", 1), tzset();
  {
    Rig rig(Local(2024, 10, 27, 6));
    rig.meter.Hold(Local(2024, 10, 26, 22), Local(2024, 10, 27, 6));
    ASSERT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
    rig.meter.finds.clear();
    EXPECT_EQ(rig.Walk(ARCH_HOURLY, Local(2024, 10, 27, 0), Local(2024, 10, 27, 4), 1),
              (std::vector<int32_t>{1729980000, 1729983600, 1729987200, 1729994400, 1729998000}));
    // The record closing 02:00 (first) is dated 03:00: 00 2C 'A' 03 00 | 24 10 27 03 | sum CE.
    ASSERT_EQ(rig.meter.finds.size(), 5u);
    EXPECT_EQ(rig.meter.finds[2], Hex("00 2C 41 03 00 24 10 27 03 00 00 00 00 CE"));
  }
  unsetenv("TZ"), tzset();
}

}  // namespace
