#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

#include "app/clock.h"
#include "drivers/esko/esko_driver.h"
#include "esko_test_util.h"
#include "support/test_support.h"

using eskotest::Bcd;
using eskotest::Bytes;
using eskotest::Framed;
using eskotest::LogMark;
using eskotest::PutFloat;
using Label = mcd::cal::Label;

namespace {

time_t Local(int y, int mo, int d, int h) { return mcd::cal::FromLabel(Label{y, mo, d, h}); }
int Key(const Label& l) { return ((l.year * 100 + l.month) * 100 + l.day) * 100 + l.hour; }

void PutU16(Bytes& b, size_t at, unsigned v) {
  b[at] = static_cast<unsigned char>(v >> 8);
  b[at + 1] = static_cast<unsigned char>(v);
}

// An archive page (260 bytes without the link sum) dated `l`: system s has M1 = 10s + 1.5,
// t1 = 70.18 + s, P1 = 6.1, Tw = 60, error word 0x0102 * s. Its page sum byte is 0 (wrong).
Bytes Page(const Label& l) {
  Bytes b(260, 0);
  b[2] = 0x80 | 'A';
  b[3] = 4;
  b[4] = Bcd(l.year - 2000), b[5] = Bcd(l.month), b[6] = Bcd(l.day), b[7] = Bcd(l.hour);
  for (int s = 0; s < 3; ++s) {
    const size_t at = 4 + 5 + 48 * s;
    PutFloat(b, at, 10.0f * s + 1.5f);
    PutU16(b, at + 20, 7018 + 100 * s);
    b[at + 24] = 61;
    PutU16(b, at + 30, 60);
    PutU16(b, 4 + 5 + 144 + 2 * s, 0x0102 * s);
  }
  return b;
}

const ParamValue* Find(const ParamValueList& list, int id, int kind, int sys) {
  for (const auto& v : list)
    if (v.paramId == id && v.kind == kind && v.sys == sys) return &v;
  return nullptr;
}

std::vector<int32_t> Stamps(const ParamValueList& out) {
  std::vector<int32_t> stamps;
  for (const auto& v : out)
    if (stamps.empty() || stamps.back() != v.timestamp) stamps.push_back(v.timestamp);
  return stamps;
}

// The controller's calendar clock, standing still.
struct FixedClock : mcd::Clock {
  time_t now = 0;
  time_t Now() override { return now; }
  void Sleep(unsigned) override {}
};

// Sets TZ for one test.
struct Zone {
  explicit Zone(const char* tz) { setenv("TZ", tz, 1), tzset(); }
  ~Zone() { unsetenv("TZ"), tzset(); }
};

// A meter behind a scripted connector: memory for 'R', values for 'G', a clock, and
// hourly and daily records by label (record numbers from 0, oldest first).
struct FakeMeter {
  Bytes rmem = Bytes(0x310, 0);
  time_t clock = 0;
  const unsigned char* clockBytes = nullptr;  // raw clock answer bytes 5..10 instead of `clock`
  std::vector<Label> records[2];
  unsigned overclaim = 0;           // "record rest" claims this many records more than held
  std::map<int, int> findCode;      // label key -> error code answered to the find
  std::map<int, Label> lDate;       // label key -> date the 'L' answer gives instead
  unsigned char model = 96, statVer = 0x31;
  std::vector<Bytes> requests;

  static Bytes Error(const Bytes& r, int code) {
    Bytes b((r[2] == 'A' && r[3] != 3) ? 260 : 13, 0);
    b[1] = r[1], b[2] = static_cast<unsigned char>(code);
    return Framed(b);
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
  // The record at a record index (number + 0x220 hourly, + 0x20 daily).
  Label ByIndex(unsigned index) const {
    return index >= 0x220 ? records[0].at(index - 0x220) : records[1].at(index - 0x20);
  }
  Bytes Archive(const Bytes& r, Bytes b) {
    const int kind = r[4] & 1;
    if (r[3] == 1) return Framed(Page(ByIndex((r[4] << 8) | r[5])));
    const Label want = Asked(r);
    const int i = Index(kind, want);
    if (r[3] == 3 && findCode.count(Key(want))) return Error(r, findCode[Key(want)]);
    if (i < 0) return Error(r, 3);
    if (r[3] == 4) return Framed(Page(want));
    PutU16(b, 5, static_cast<unsigned>(i));
    PutU16(b, 7, static_cast<unsigned>(i) + overclaim);
    return Framed(b);
  }
  Bytes Answer(const Bytes& r) {
    requests.push_back(r);
    Bytes b(13, 0);
    b[1] = r[1], b[2] = static_cast<unsigned char>(r[2] | 0x80), b[3] = r[3], b[4] = r[4];
    const unsigned addr = (r[3] << 8) | r[4];
    if (r[2] == 'R') {
      rmem[0x10] = model, rmem[0x12] = statVer;
      for (int i = 0; i < 8; ++i) b[5 + i] = rmem[addr + i];
    } else if (r[2] == 'G') {
      PutFloat(b, 5, 12.5f);
    } else if (r[2] == 'T') {
      const Label l = mcd::cal::LocalLabel(clock);
      const unsigned char now[6] = {Bcd(l.year - 2000), Bcd(l.month), Bcd(l.day), Bcd(l.hour), 0x30, 0};
      std::memcpy(&b[5], clockBytes ? clockBytes : now, 6);
    } else if (r[2] == 'L') {
      Label l = ByIndex(addr / 32);
      if (lDate.count(Key(l))) l = lDate[Key(l)];
      b[5] = Bcd(l.year - 2000), b[6] = Bcd(l.month), b[7] = Bcd(l.day), b[8] = Bcd(l.hour);
    } else if (r[2] == 'A') {
      return Archive(r, b);
    }
    return Framed(b);
  }
  size_t Finds() const {
    size_t n = 0;
    for (const auto& r : requests) n += r[2] == 'A' && r[3] == 3;
    return n;
  }
  // Hourly records dated from..to (local labels), daily records dated the days from..to.
  void Hold(time_t from, time_t to) {
    for (time_t t = mcd::cal::HourStart(from); t <= to; t = mcd::cal::NextHour(t))
      records[0].push_back(mcd::cal::LocalLabel(t));
    for (time_t t = mcd::cal::DayStart(from); t <= to; t = mcd::cal::NextDay(t))
      records[1].push_back(mcd::cal::LocalLabel(t));
  }
};

struct Rig {
  mcdtest::TempRoot root;
  eskotest::ScriptedConnector con;
  FakeMeter meter;
  FixedClock clock;
  Cmcd_MTR06 driver;
  explicit Rig(time_t now = Local(2024, 3, 5, 11)) {
    eskotest::LogPath();
    clock.now = meter.clock = now;
    mcd::SetClock(&clock);
    con.responder = [this](const Bytes& r) { return meter.Answer(r); };
    driver.SetConfiguration({{"serial", "300"}, {"manufacturer", "esko-mtr-06"}});
    driver.SaveConnector(&con);
    driver.SetTurn();
  }
  ~Rig() { mcd::SetClock(nullptr); }
  int Timestamps(Timestamps& ts) { return driver.GetTimestamps(ts); }
};

TEST(EskoDriverParse, PageValuesStampErrorsAndDateCheck) {
  Rig rig;
  const Label ten{2024, 3, 5, 10};
  const time_t nine = Local(2024, 3, 5, 9);
  ParamValueList out;
  LogMark log;
  ASSERT_TRUE(rig.driver.ParseArchPage(Page(ten).data(), 260, 0, ARCH_HOURLY, ten, nine, out));
  EXPECT_EQ(log.Count("WRONG ARCH PAGE CS"), 1u);  // logged, never enforced
  ASSERT_EQ(out.size(), 3u * 16u);                  // 15 named raw parameters per system and its error word
  for (const auto& v : out) EXPECT_EQ(v.timestamp, nine);
  const ParamValue* m1 = Find(out, 22, 4, 1);
  ASSERT_NE(m1, nullptr);
  EXPECT_EQ(m1->value, "11.500000000000");
  EXPECT_EQ(m1->dim, "т");
  EXPECT_EQ(m1->error, 0x02);  // low byte of system 1's error word
  EXPECT_EQ(Find(out, 6, 4, 2)->value, "72.18");
  EXPECT_EQ(Find(out, 9, 4, 0)->value, "6.1");
  EXPECT_EQ(Find(out, 18, 4, 0)->value, "60");
  EXPECT_EQ(Find(out, 14, 4, 2)->value, "516");
  // Another hour than asked fails; a daily page does not compare the hour.
  ParamValueList other;
  EXPECT_FALSE(rig.driver.ParseArchPage(Page(ten).data(), 260, 0, ARCH_HOURLY, Label{2024, 3, 5, 11}, nine, other));
  EXPECT_EQ(log.Count("Cmcd_MTR06::FindArchDate - Returned Hour 10 != requested 11!"), 1u);
  EXPECT_TRUE(other.empty());
  EXPECT_TRUE(rig.driver.ParseArchPage(Page(ten).data(), 260, 1, ARCH_DAILY, Label{2024, 3, 5, 0}, nine, other));
}

TEST(EskoDriver, InitReadsIdentificationAndReportsOddModels) {
  Rig rig;
  std::memcpy(&rig.meter.rmem[0], "20160042", 8);
  std::memcpy(&rig.meter.rmem[0xD8], "0205", 4);
  rig.meter.rmem[0x13] = 0x00, rig.meter.rmem[0x14] = 0x12, rig.meter.rmem[0x15] = 0x34;
  rig.meter.model = 95;
  rig.meter.statVer = 0x41;
  LogMark log;
  rig.driver.init();
  EXPECT_EQ(rig.driver.SerialNumber(), 20160042u);
  EXPECT_EQ(rig.driver.Firmware(), "0205");
  EXPECT_EQ(rig.driver.ModelText(), "95");
  EXPECT_EQ(log.Count("Init:Model is wrong for addr"), 1u);
  EXPECT_EQ(log.Count("Init:Statistics ver is wrong for addr 0: x41, is this TM-3E ???"), 1u);
  EXPECT_EQ(log.Count("work offset(hours) 1234 (4442400 sec)"), 1u);
  EXPECT_EQ(rig.meter.requests.at(1)[1], 300 & 0xFF);  // net address from "serial"

  // The TM-3E wants the 0x4N version and complains about any other.
  rig.meter.model = 96;
  rig.meter.statVer = 0x31;
  Cmcd_TM3E tm;
  tm.SetConfiguration({{"serial", "5"}});
  tm.SaveConnector(&rig.con);
  tm.init();
  EXPECT_EQ(log.Count("Cmcd_TM3E::Init:Statistics ver is wrong for addr 0: x31, need 0x4x!!!"), 1u);
  EXPECT_EQ(log.Count("Init:Model is wrong"), 1u);
}

TEST(EskoDriver, SystemDataKeepsTheGminGmaxAsymmetry) {
  Rig rig;
  auto& m = rig.meter.rmem;
  m[0x50] = 0, m[0x51] = 1, m[0x52] = 2, m[0x53] = 1, m[0x54] = 2, m[0x55] = 3;
  PutU16(m, 0x81, 250), PutU16(m, 0x83, 400), PutU16(m, 0x85, 100), PutU16(m, 0x87, 0);
  PutU16(m, 0x89, 630);
  const unsigned char gmin[] = {20, 40, 60, 10, 20, 30}, gmax[] = {100, 90, 80, 100, 95, 85};
  std::memcpy(&m[0x65], gmin, 6);
  std::memcpy(&m[0x6B], gmax, 6);
  ParamValueList out = rig.driver.get_all_system_values();
  EXPECT_DOUBLE_EQ(rig.driver.GminM1(0), 0.25);  // 25 m3/h / 100 * (20 / 20) %
  EXPECT_DOUBLE_EQ(rig.driver.GmaxM1(0), 25.0);  // Gmax taken as read: 25 / 100 * 100 %
  EXPECT_DOUBLE_EQ(rig.driver.GmaxM2(1), 0.0);   // range 0 gives 0
  EXPECT_DOUBLE_EQ(rig.driver.GmaxM1(2), 63.0 / 100 * 80);
  EXPECT_EQ(Find(out, 38, 7, 0)->value, "Закрытый (Режим 1)");
  EXPECT_EQ(Find(out, 38, 7, 1)->value, "Открытый (Режим 2)");
  EXPECT_EQ(Find(out, 38, 7, 2)->value, "Расходомер (Режим 3)");
  rig.con.shortWriteBy = 1;  // a dead line gives no system values at all
  Cmcd_TM3E dead;
  dead.SaveConnector(&rig.con);
  EXPECT_TRUE(dead.get_all_system_values().empty());
}

// A record is skipped only on the meter's no-record answer; any other error code, a
// date that does not match or a dead line ends the walk, and the next walk starts at
// the record that failed.
TEST(EskoDriverArchive, SkipOnlyOnNoRecordElseStopAndResume) {
  Rig rig;
  const time_t h5 = Local(2024, 3, 5, 5);
  rig.meter.Hold(h5, Local(2024, 3, 5, 11));
  const int key8 = Key(Label{2024, 3, 5, 8});
  rig.meter.records[0].erase(rig.meter.records[0].begin() + 3);  // no record dated 08:00
  Timestamps ts;
  ASSERT_EQ(rig.Timestamps(ts), 1);
  ParamValueList out;
  LogMark log;
  EXPECT_EQ(rig.driver.get_arch_values(ARCH_HOURLY, Local(2024, 3, 5, 5), Local(2024, 3, 5, 9), out), 1);
  EXPECT_EQ(Stamps(out), (std::vector<int32_t>{static_cast<int32_t>(h5), static_cast<int32_t>(h5 + 3600),
                                              static_cast<int32_t>(h5 + 3 * 3600), static_cast<int32_t>(h5 + 4 * 3600)}));
  EXPECT_EQ(log.Count("the meter holds no HOURLY record for 05.03.2024 07:00 (" + std::to_string(h5 + 7200) +
                      "), skipped"),
            1u);

  rig.meter.Hold(Local(2024, 3, 5, 8), Local(2024, 3, 5, 8));  // held again, at the end
  const std::pair<const char*, std::function<void()>> faults[] = {
      {"error code 5", [&] { rig.meter.findCode[key8] = 5; }},
      {"'L' date of another hour", [&] { rig.meter.lDate[key8] = Label{2024, 3, 5, 9}; }},
      {"silent line", [&] {
         rig.con.responder = [&rig, key8](const Bytes& r) {
           return r[2] == 'A' && Key(FakeMeter::Asked(r)) == key8 ? Bytes() : rig.meter.Answer(r);
         };
       }}};
  for (const auto& fault : faults) {
    ASSERT_EQ(rig.Timestamps(ts), 1);
    fault.second();
    out.clear();
    EXPECT_EQ(rig.driver.get_arch_values(ARCH_HOURLY, h5, h5 + 4 * 3600, out), 0) << fault.first;
    EXPECT_EQ(Stamps(out), (std::vector<int32_t>{static_cast<int32_t>(h5), static_cast<int32_t>(h5 + 3600)}))
        << fault.first;
    rig.meter.findCode.clear(), rig.meter.lDate.clear();
    rig.con.responder = [&rig](const Bytes& r) { return rig.meter.Answer(r); };
    ASSERT_EQ(rig.Timestamps(ts), 1);
    out.clear();
    EXPECT_EQ(rig.driver.get_arch_values(ARCH_HOURLY, h5 + 7200, h5 + 4 * 3600, out), 1) << fault.first;
    EXPECT_EQ(Stamps(out).size(), 3u) << fault.first;
  }
}

// Europe/Berlin: 27.10.2024 repeats 02:00..03:00, 31.03.2024 leaves it out.
TEST(EskoDriverArchive, BerlinDaylightSavingChanges) {
  Zone zone("Europe/Berlin");
  {
    Rig rig(Local(2024, 10, 27, 6));
    rig.meter.Hold(Local(2024, 10, 26, 22), Local(2024, 10, 27, 6));
    Timestamps ts;
    ASSERT_EQ(rig.Timestamps(ts), 1);
    const size_t before = rig.meter.requests.size();
    ParamValueList out;
    EXPECT_EQ(rig.driver.get_arch_values(ARCH_HOURLY, Local(2024, 10, 27, 0), Local(2024, 10, 27, 4), out), 1);
    // 00, 01, 02 (first occurrence, two real hours), 03 and 04 local: five records.
    EXPECT_EQ(Stamps(out), (std::vector<int32_t>{1729980000, 1729983600, 1729987200, 1729994400, 1729998000}));
    std::vector<int> asked;  // the closing hour of each record, asked once
    for (size_t i = before; i < rig.meter.requests.size(); ++i)
      if (rig.meter.requests[i][2] == 'A' && rig.meter.requests[i][3] == 3) asked.push_back(rig.meter.requests[i][8]);
    EXPECT_EQ(asked, (std::vector<int>{0x01, 0x02, 0x03, 0x04, 0x05}));
  }
  {
    Rig rig(Local(2024, 4, 1, 6));
    rig.meter.Hold(Local(2024, 3, 30, 0), Local(2024, 4, 1, 6));
    Timestamps ts;
    ASSERT_EQ(rig.Timestamps(ts), 1);
    ParamValueList out;
    EXPECT_EQ(rig.driver.get_arch_values(ARCH_DAILY, Local(2024, 3, 30, 0), Local(2024, 3, 31, 0), out), 1);
    // 30.03 00:00 CET and 31.03 00:00 CET (a 23-hour day), never 30.03 23:00.
    EXPECT_EQ(Stamps(out), (std::vector<int32_t>{1711753200, 1711839600}));
    out.clear();
    EXPECT_EQ(rig.driver.get_arch_values(ARCH_HOURLY, Local(2024, 3, 31, 1), Local(2024, 3, 31, 3), out), 1);
    EXPECT_EQ(Stamps(out), (std::vector<int32_t>{1711843200, 1711846800}));  // 01:00 CET, 03:00 CEST
    // The record closing 01:00 CET is dated 03:00: 00 2C 'A' 03 00 | 24 03 31 03 | sum 0xCB.
    const Bytes find03 = {0x00, 0x2C, 0x41, 0x03, 0x00, 0x24, 0x03, 0x31, 0x03, 0, 0, 0, 0, 0xCB};
    size_t n = 0;
    for (const auto& r : rig.meter.requests) n += r == find03;
    EXPECT_EQ(n, 1u);
  }
}

// A meter whose "record rest" claims 1500 records but that holds 30: the oldest held
// record is found with a few find requests, and the walk starts there.
TEST(EskoDriverArchive, OldestRecordByBisectionAgainstAShortArchive) {
  Rig rig;
  const time_t now = Local(2024, 3, 5, 11);
  rig.meter.Hold(now - 29 * 3600, now);
  rig.meter.records[1].clear();
  rig.meter.overclaim = 1470;
  Timestamps ts;
  ASSERT_EQ(rig.Timestamps(ts), 1);
  EXPECT_EQ(ts.first_hour_arch, now - 30 * 3600);  // the oldest record closes that hour
  // Every "no record" answer is asked twice. Hourly: newest, claimed, about 11 probes
  // of bisection; daily (none held): the two newest days.
  EXPECT_LE(rig.meter.Finds(), 26u);
  const size_t first = rig.meter.Finds();
  ASSERT_EQ(rig.Timestamps(ts), 1);  // known now: one find per kind
  EXPECT_EQ(rig.meter.Finds() - first, 1u + 2u * 2u);
  // An honest meter costs the newest, its claim and the record before the claim (absent).
  rig.meter.overclaim = 0;
  Cmcd_TM3E honest;
  honest.SetConfiguration({{"serial", "1"}});
  honest.SaveConnector(&rig.con);
  honest.SetTurn();
  const size_t before = rig.meter.Finds();
  ASSERT_EQ(honest.GetTimestamps(ts), 1);
  EXPECT_EQ(ts.first_hour_arch, now - 30 * 3600);
  EXPECT_EQ(rig.meter.Finds() - before, 1u + 1u + 2u + 2u * 2u);
}

// A clock that decodes to an impossible date, or is more than 7 days off, gives no
// archive dates (a Warning once per change); current values are still read.
TEST(EskoDriverArchive, ImpossibleOrDistantMeterClockIsNotUsed) {
  Rig rig;
  rig.meter.Hold(Local(2024, 3, 5, 5), Local(2024, 3, 5, 11));
  const unsigned char zero[6] = {0x00, 0x00, 0x00, 0x00, 0x00, 0x00};  // 00.00.2000 00:00:00
  const unsigned char feb30[6] = {0x24, 0x02, 0x30, 0x10, 0x00, 0x00};  // mktime would make it 01.03
  Timestamps ts;
  LogMark log;
  rig.meter.clockBytes = zero;
  EXPECT_EQ(rig.Timestamps(ts), 0);
  EXPECT_EQ(rig.Timestamps(ts), 0);
  EXPECT_EQ(log.Count("meter clock 00.00.2000 00:00:00 is not a valid date"), 1u);
  EXPECT_FALSE(rig.driver.get_all_curtime_cur_integ_values().empty());
  rig.meter.clockBytes = feb30;
  EXPECT_EQ(rig.Timestamps(ts), 0);
  rig.meter.clockBytes = nullptr;
  rig.meter.clock = rig.clock.now + 7 * 86400 + 3600;
  EXPECT_EQ(rig.Timestamps(ts), 0);
  EXPECT_EQ(log.Count("away from the controller clock (more than 7 days)"), 1u);
  rig.meter.clock = rig.clock.now - 6 * 86400;
  EXPECT_EQ(rig.meter.Finds(), 0u);  // nothing was asked by a date from a clock not used
  EXPECT_EQ(rig.Timestamps(ts), 1);
  EXPECT_EQ(ts.meter_time, rig.clock.now - 6 * 86400 + 1800);
  EXPECT_EQ(log.Count("meter clock usable again"), 1u);
}

}  // namespace
