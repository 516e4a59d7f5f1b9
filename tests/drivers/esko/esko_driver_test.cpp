// The ESKO driver through its operations against a meter that answers from its records.
#include "drivers/esko/esko_driver.h"

#include <gtest/gtest.h>

#include <map>

#include "support/scripted_meter.h"
#include "support/test_support.h"

using mcdtest::Bytes;
using mcdtest::ParseHex;
using Label = mcd::cal::Label;

namespace {

time_t Local(int y, int mo, int d, int h) { return mcd::cal::FromLabel(Label{y, mo, d, h}); }
int Key(const Label& l) { return ((l.year * 100 + l.month) * 100 + l.day) * 100 + l.hour; }
unsigned char Bcd(int v) { return static_cast<unsigned char>(((v / 10) << 4) | (v % 10)); }
// A meter that answers every request at once from its clock and the hourly (0) and
// daily (1) records it holds, oldest first.
struct Meter {
  time_t clock = 0;
  Bytes clockBytes;  // the 'T' answer's bytes 5..10 instead of `clock`
  std::vector<Label> records[2];
  unsigned overclaim = 0;                 // "record rest" claims this many more than held
  std::map<int, std::vector<int>> codes;  // label key -> error codes of the next finds
  std::vector<Bytes> finds;

  static Label Asked(const Bytes& r) {
    auto n = [](unsigned char v) { return (v >> 4) * 10 + (v & 15); };
    return Label{2000 + n(r[5]), n(r[6]), n(r[7]), r[4] == 0 ? n(r[8]) : 0};
  }
  int Index(int kind, const Label& l) const {
    for (size_t i = 0; i < records[kind].size(); ++i)
      if (Key(records[kind][i]) == Key(l)) return static_cast<int>(i);
    return -1;
  }
  static void PutDate(Bytes& b, size_t at, const Label& l) {
    b[at] = Bcd(l.year - 2000), b[at + 1] = Bcd(l.month), b[at + 2] = Bcd(l.day), b[at + 3] = Bcd(l.hour);
  }
  // The answer, closed by its sum. Pages ('A' 4) carry only their date.
  Bytes Answer(const Bytes& r) {
    Bytes b(r[2] == 'A' && r[3] != 3 ? 260 : 13, 0);
    b[1] = r[1], b[2] = static_cast<unsigned char>(r[2] | 0x80), b[3] = r[3], b[4] = r[4];
    const Label want = Asked(r);
    const int i = Index(r[4] & 1, want);
    if (r[2] == 'T') {
      PutDate(b, 5, mcd::cal::LocalLabel(clock)), b[9] = 0x30;
      if (!clockBytes.empty()) std::copy(clockBytes.begin(), clockBytes.end(), b.begin() + 5);
    } else if (r[2] == 'A' && r[3] == 3) {
      finds.push_back(r);
      std::vector<int>& queued = codes[Key(want)];
      b[2] = static_cast<unsigned char>(!queued.empty() ? queued.front() : i < 0 ? 3 : b[2]);
      if (!queued.empty()) queued.erase(queued.begin());
      b[5] = i >> 8, b[6] = i & 0xFF, b[7] = (i + overclaim) >> 8, b[8] = (i + overclaim) & 0xFF;
    } else if (r[2] == 'L') {
      const unsigned index = ((r[3] << 8) | r[4]) / 32;
      PutDate(b, 5, index >= 0x220 ? records[0].at(index - 0x220) : records[1].at(index - 0x20));
    } else if (r[2] == 'A' && r[3] == 4) {
      PutDate(b, 4, want);
      if (i < 0) b[2] = 3;
    }
    unsigned sum = 0;
    for (unsigned char c : b) sum += c;
    return b.push_back(static_cast<unsigned char>(sum)), b;
  }
};

struct Rig {
  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  Meter meter;
  mcdtest::ScriptedMeter line;
  mcdtest::FakeClock clock;
  Cmcd_MTR06 driver;
  Timestamps ts;
  // A meter whose clock reads now and that holds the hourly records dated oldest..now
  // (its daily archive is empty).
  Rig(time_t now, time_t oldest) : clock(now) {
    clock.pauseMicros = 0;
    meter.clock = now;
    line.Respond([this](const Bytes& request) { return meter.Answer(request); });
    for (time_t t = oldest; t <= now; t = mcd::cal::NextHour(t)) meter.records[0].push_back(mcd::cal::LocalLabel(t));
    driver.SetConfiguration({{"serial", "44"}});
    driver.SaveConnector(&line);
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

// Only the no-record answer twice in a row skips a record; one such answer followed by
// the record is read; any other code ends the walk there, and the next walk resumes.
TEST(EskoArchive, SkipOnlyOnTwoNoRecordAnswers) {
  const time_t h5 = Local(2024, 3, 5, 5);
  Rig rig(h5 + 6 * 3600, h5);
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
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, h5 + 2 * 3600, h5 + 4 * 3600, 0), std::vector<int32_t>{int32_t(h5 + 7200)});
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, h5 + 3 * 3600, h5 + 4 * 3600, 0), std::vector<int32_t>{});  // until GetTimestamps
  ASSERT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, h5 + 3 * 3600, h5 + 4 * 3600, 1).size(), 2u);
}

// A meter claiming 1500 records more than the 30 it holds costs a few finds; one that
// holds half a year is searched no further back than 92 days before its newest record.
TEST(EskoArchive, OldestRecordByBisectionWithinTheBound) {
  const time_t now = Local(2024, 3, 5, 11);
  Rig rig(now, now - 29 * 3600);
  rig.meter.overclaim = 1500;
  ASSERT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  EXPECT_EQ(rig.ts.first_hour_arch, now - 30 * 3600);  // the oldest record closes that hour
  EXPECT_LE(rig.meter.finds.size(), 26u);

  Rig deep(now, now - 180 * 86400);
  ASSERT_EQ(deep.driver.GetTimestamps(deep.ts), 1);
  const time_t bound = now - 92 * 86400;
  EXPECT_GE(deep.ts.first_hour_arch, bound - 3600);
  EXPECT_LE(deep.ts.first_hour_arch, bound);
  for (const Bytes& r : deep.meter.finds) EXPECT_GE(mcd::cal::FromLabel(Meter::Asked(r)), bound - 86400);
}

// An impossible meter clock, or one more than 7 days off, gives no archive dates and
// no date is asked by it.
TEST(EskoArchive, ImpossibleOrDistantMeterClockIsNotUsed) {
  Rig rig(Local(2024, 3, 5, 11), Local(2024, 3, 5, 5));
  rig.meter.clockBytes = ParseHex("24 02 30 10 00 00");  // 30.02.2024: mktime would make it 01.03
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 0);
  EXPECT_EQ(rig.log.Count("meter clock 30.02.2024 10:00:00 is not a valid date"), 1u);
  rig.meter.clockBytes.clear();
  rig.meter.clock += 7 * 86400 + 3600;
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 0);
  EXPECT_EQ(rig.log.Count("away from the controller clock (more than 7 days)"), 1u);
  EXPECT_TRUE(rig.meter.finds.empty());
  rig.meter.clock -= 14 * 86400 + 7200;  // behind by as much
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 0);
  rig.meter.clock += 86400;
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  EXPECT_EQ(rig.log.Count("meter clock usable again"), 1u);
}

// Europe/Berlin, 27.10.2024: 02:00..03:00 comes twice and is one record.
TEST(EskoArchive, BerlinAutumnHourIsOneRecord) {
  setenv("TZ", "Europe/Berlin", 1), tzset();
  Rig rig(Local(2024, 10, 27, 6), Local(2024, 10, 26, 22));
  EXPECT_EQ(rig.driver.GetTimestamps(rig.ts), 1);
  rig.meter.finds.clear();
  EXPECT_EQ(rig.Walk(ARCH_HOURLY, Local(2024, 10, 27, 0), Local(2024, 10, 27, 4), 1),
            (std::vector<int32_t>{1729980000, 1729983600, 1729987200, 1729994400, 1729998000}));
  // The record of 02:00 (first) is dated 03:00: 00 2C 'A' 03 00 | 24 10 27 03 | sum CE.
  EXPECT_EQ(rig.meter.finds.at(2), ParseHex("00 2C 41 03 00 24 10 27 03 00 00 00 00 CE"));
  unsetenv("TZ"), tzset();
}

}  // namespace
