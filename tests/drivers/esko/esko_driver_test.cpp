#include <gtest/gtest.h>

#include <cstring>
#include <map>
#include <set>

#include "drivers/base/exceptions.h"
#include "drivers/esko/esko_driver.h"
#include "esko_test_util.h"
#include "support/test_support.h"

using eskotest::Bcd;
using eskotest::Bytes;
using eskotest::Framed;
using eskotest::LogMark;
using eskotest::PutFloat;
using eskotest::ScriptedConnector;

namespace {

time_t Local(int y, int mo, int d, int h, int mi = 0, int s = 0) {
  struct tm t = {};
  t.tm_year = y - 1900;
  t.tm_mon = mo - 1;
  t.tm_mday = d;
  t.tm_hour = h;
  t.tm_min = mi;
  t.tm_sec = s;
  t.tm_isdst = -1;
  return mktime(&t);
}

void PutDate(Bytes& b, size_t at, time_t t, bool seconds = false) {
  struct tm v;
  localtime_r(&t, &v);
  b[at] = Bcd(v.tm_year - 100);
  b[at + 1] = Bcd(v.tm_mon + 1);
  b[at + 2] = Bcd(v.tm_mday);
  b[at + 3] = Bcd(v.tm_hour);
  b[at + 4] = Bcd(v.tm_min);
  if (seconds) b[at + 5] = Bcd(v.tm_sec);
}

void PutU16(Bytes& b, size_t at, unsigned v) {
  b[at] = static_cast<unsigned char>(v >> 8);
  b[at + 1] = static_cast<unsigned char>(v);
}

// An archive answer (260 bytes without the link sum) for a record dated t: system s
// has M1 = 10s + 1.5, t1 = 70.18 + s, P1 = 6.1, Tw = 60, error word 0x0102 * s.
Bytes Page(time_t t, bool goodSum = true) {
  Bytes b(260, 0);
  b[2] = 0x80 | 'A';
  b[3] = 4;
  PutDate(b, 4, t);
  for (int s = 0; s < 3; ++s) {
    const size_t at = 4 + 5 + 48 * s;
    PutFloat(b, at, 10.0f * s + 1.5f);     // M1
    PutFloat(b, at + 4, 10.0f * s + 0.5f); // M2
    PutFloat(b, at + 8, 0.25f);            // Qo
    PutU16(b, at + 20, 7018 + 100 * s);    // t1
    b[at + 24] = 61;                       // P1
    PutU16(b, at + 30, 60);                // Tw
    PutU16(b, at + 38, 7);                 // Tdt: no dictionary name
    PutU16(b, 4 + 5 + 144 + 2 * s, 0x0102 * s);
  }
  b[259] = CEskoDriver::CalcCSInverted(b.data() + 4, 255);
  if (!goodSum) b[259] ^= 0xFF;
  return b;
}

const ParamValue* Find(const ParamValueList& list, int id, int kind, int sys) {
  for (const auto& v : list)
    if (v.paramId == id && v.kind == kind && v.sys == sys) return &v;
  return nullptr;
}

TEST(EskoDriverParse, HourlyPageIsStampedWithTheStartOfItsHour) {
  mcdtest::TempRoot root;
  eskotest::LogPath();
  Cmcd_MTR06 driver;
  const time_t ten = Local(2024, 3, 5, 10);
  ParamValueList out;
  ASSERT_TRUE(driver.ParseArchPage(Page(ten).data(), 260, 0, ARCH_HOURLY, ten, ten - 7200, ten, out));
  ASSERT_FALSE(out.empty());
  for (const auto& v : out) {
    EXPECT_EQ(v.timestamp, ten - 3600);
    EXPECT_EQ(v.kind, ARCH_HOURLY);
    EXPECT_EQ(v.quality, 192);
  }
  const ParamValue* m1 = Find(out, 22, 4, 1);
  ASSERT_NE(m1, nullptr);
  EXPECT_EQ(m1->value, "11.500000000000");
  EXPECT_EQ(m1->dim, "т");
  EXPECT_EQ(m1->error, 0x02);  // low byte of system 1's error word
  EXPECT_EQ(Find(out, 23, 4, 2)->value, "20.500000000000");
  EXPECT_EQ(Find(out, 6, 4, 2)->value, "72.18");
  EXPECT_EQ(Find(out, 9, 4, 0)->value, "6.1");
  EXPECT_EQ(Find(out, 18, 4, 0)->value, "60");
  const ParamValue* er = Find(out, 14, 4, 2);
  ASSERT_NE(er, nullptr);
  EXPECT_EQ(er->value, std::to_string(0x0204));
  EXPECT_EQ(out.back().paramId, 14);  // the error words close the record
  // Only named raw parameters are published: 15 per system plus the error word.
  EXPECT_EQ(out.size(), 3u * 16u);
}

TEST(EskoDriverParse, WrongPageSumIsStillParsed) {
  mcdtest::TempRoot root;
  Cmcd_MTR06 driver;
  const time_t ten = Local(2024, 3, 5, 10);
  LogMark log;
  ParamValueList out;
  ASSERT_TRUE(driver.ParseArchPage(Page(ten, false).data(), 260, 0, ARCH_HOURLY, ten, ten, ten, out));
  EXPECT_EQ(out.size(), 48u);
  EXPECT_EQ(log.Count("WRONG ARCH PAGE CS"), 1u);
}

TEST(EskoDriverParse, PageDateMustMatchTheRequest) {
  mcdtest::TempRoot root;
  Cmcd_TM3E driver;
  const time_t ten = Local(2024, 3, 5, 10);
  // Upper bound of the reading window, far enough ahead; ten * 2 would overflow a
  // 32-bit time_t (armhf).
  const time_t later = ten + 30 * 86400;
  ParamValueList out;
  {
    LogMark log;
    EXPECT_FALSE(driver.ParseArchPage(Page(ten).data(), 260, 0, ARCH_HOURLY, ten + 3600, 0, later, out));
    EXPECT_EQ(log.Count("Cmcd_TM3E::FindArchDate - Returned Hour 10 != requested 11!"), 1u);
  }
  {
    LogMark log;
    EXPECT_FALSE(driver.ParseArchPage(Page(ten).data(), 260, 1, ARCH_DAILY, Local(2024, 3, 6, 0), 0, later, out));
    EXPECT_EQ(log.Count("Returned Day 5 != requested 6!"), 1u);
  }
  EXPECT_TRUE(out.empty());
  // A daily request does not compare the hour; the record is stamped one day earlier.
  const time_t midnight = Local(2024, 3, 5, 0);
  ASSERT_TRUE(driver.ParseArchPage(Page(ten).data(), 260, 1, ARCH_DAILY, midnight, 0, later, out));
  ASSERT_FALSE(out.empty());
  EXPECT_EQ(out.front().timestamp, ten - 86400);
  EXPECT_EQ(out.front().kind, ARCH_DAILY);
  // A page outside the window is accepted but gives nothing.
  ParamValueList none;
  EXPECT_TRUE(driver.ParseArchPage(Page(ten).data(), 260, 0, ARCH_HOURLY, ten, ten + 3600, ten + 7200, none));
  EXPECT_TRUE(none.empty());
  // A short page is refused.
  EXPECT_FALSE(driver.ParseArchPage(Page(ten).data(), 200, 0, ARCH_HOURLY, ten, 0, later, none));
}

// A small meter behind a scripted connector: memory for 'R', values for 'G', a clock,
// and hourly records at the times in `hours` (record numbers from 0, oldest first).
struct FakeMeter {
  Bytes rmem = Bytes(0x310, 0);
  time_t clock = 0;
  std::vector<time_t> hours;
  std::map<time_t, time_t> lDateOverride;  // record time -> date the 'L' answer gives
  unsigned char model = 96, statVer = 0x31;
  std::vector<Bytes> requests;

  Bytes Answer(const Bytes& r) {
    requests.push_back(r);
    Bytes b(13, 0);
    b[1] = r[1];
    b[2] = static_cast<unsigned char>(r[2] | 0x80);
    b[3] = r[3];
    b[4] = r[4];
    const unsigned addr = (r[3] << 8) | r[4];
    switch (r[2]) {
      case 'R':
        rmem[0x10] = model;
        rmem[0x12] = statVer;
        for (int i = 0; i < 8; ++i) b[5 + i] = rmem[addr + i];
        break;
      case 'G': {
        const int s = addr / 88, off = addr % 88;
        if (addr == 0x4A76) PutFloat(b, 5, -5.5f);
        else if (off == 0) b[8] = static_cast<unsigned char>(s + 1);
        else {
          PutFloat(b, 5, 100.0f * s + off + 0.25f);
          PutFloat(b, 9, 100.0f * s + off + 0.5f);
        }
        break;
      }
      case 'T': PutDate(b, 5, clock, true); break;
      case 'L': {
        const int n = static_cast<int>(addr / 32) - 0x220;
        if (n < 0 || n >= static_cast<int>(hours.size())) return Framed({0, r[1], 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        time_t t = hours[n];
        if (lDateOverride.count(t)) t = lDateOverride[t];
        PutDate(b, 5, t);
        break;
      }
      case 'A':
        if (r[3] == 3) {
          const time_t want = Local(2000 + (r[5] >> 4) * 10 + (r[5] & 15), (r[6] >> 4) * 10 + (r[6] & 15),
                                    (r[7] >> 4) * 10 + (r[7] & 15), (r[8] >> 4) * 10 + (r[8] & 15));
          for (size_t i = 0; i < hours.size(); ++i)
            if (r[4] == 0 && hours[i] == want) {
              PutU16(b, 5, static_cast<unsigned>(i));
              PutU16(b, 7, static_cast<unsigned>(i));
              return Framed(b);
            }
          if (r[4] == 1) return Framed(b);  // one daily record, nothing older
          return Framed({0, r[1], 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
        }
        if (r[3] == 1) {
          const int n = ((r[4] << 8) | r[5]) - 0x220;
          return Framed(Page(hours.at(static_cast<size_t>(n))));
        }
        if (r[3] == 4) {
          const time_t want = Local(2000 + (r[5] >> 4) * 10 + (r[5] & 15), (r[6] >> 4) * 10 + (r[6] & 15),
                                    (r[7] >> 4) * 10 + (r[7] & 15), (r[8] >> 4) * 10 + (r[8] & 15));
          return Framed(Page(want));
        }
        break;
    }
    return Framed(b);
  }
};

struct DriverRig {
  mcdtest::TempRoot root;
  ScriptedConnector con;
  FakeMeter meter;
  template <class D>
  void Attach(D& driver, const char* serial = "300") {
    eskotest::LogPath();
    con.responder = [this](const Bytes& r) { return meter.Answer(r); };
    driver.SetConfiguration({{"serial", serial}, {"manufacturer", "esko-mtr-06"}});
    driver.SaveConnector(&con);
  }
};

TEST(EskoDriver, InitReadsIdentificationAndReportsOddModels) {
  DriverRig rig;
  std::memcpy(&rig.meter.rmem[0], "20160042", 8);
  std::memcpy(&rig.meter.rmem[0xD8], "0205", 4);
  rig.meter.rmem[0x13] = 0x00, rig.meter.rmem[0x14] = 0x12, rig.meter.rmem[0x15] = 0x34;
  rig.meter.model = 95;
  rig.meter.statVer = 0x41;
  Cmcd_MTR06 mtr;
  rig.Attach(mtr);
  EXPECT_EQ(mtr.Link()->GetNetAddress(), 300 & 0xFF);
  LogMark log;
  mtr.init();
  EXPECT_EQ(mtr.SerialNumber(), 20160042u);
  EXPECT_EQ(mtr.Firmware(), "0205");
  EXPECT_EQ(mtr.Model(), 95);
  EXPECT_EQ(mtr.ModelText(), "95");
  EXPECT_EQ(mtr.ArchTypeCode(), 3);
  EXPECT_EQ(log.Count("Init:Model is wrong for addr"), 1u);
  EXPECT_EQ(log.Count("Init:Statistics ver is wrong for addr 0: x41, is this TM-3E ???"), 1u);
  EXPECT_EQ(log.Count("work offset(hours) 1234 (4442400 sec)"), 1u);
  ASSERT_EQ(rig.meter.requests.size(), 3u);
  EXPECT_EQ(rig.meter.requests[1][1], 44);
  EXPECT_EQ(rig.meter.requests[1][4], 0x10);

  // The TM-3E wants the 0x4N version and complains about any other.
  rig.meter.model = 96;
  rig.meter.statVer = 0x31;
  Cmcd_TM3E tm;
  rig.Attach(tm, "5");
  LogMark log2;
  tm.init();
  EXPECT_EQ(log2.Count("Cmcd_TM3E::Init:Statistics ver is wrong for addr 0: x31, need 0x4x!!!"), 1u);
  EXPECT_EQ(log2.Count("Init:Model is wrong"), 0u);
}

TEST(EskoDriver, SystemDataKeepsTheGminGmaxAsymmetry) {
  DriverRig rig;
  auto& m = rig.meter.rmem;
  m[0x50] = 0, m[0x51] = 1, m[0x52] = 2, m[0x53] = 1, m[0x54] = 2, m[0x55] = 3;
  PutU16(m, 0x81, 250), PutU16(m, 0x83, 400), PutU16(m, 0x85, 100), PutU16(m, 0x87, 0);
  PutU16(m, 0x89, 630), PutU16(m, 0x8B, 50);
  const unsigned char gmin[] = {20, 40, 60, 10, 20, 30}, gmax[] = {100, 90, 80, 100, 95, 85};
  std::memcpy(&m[0x65], gmin, 6);
  std::memcpy(&m[0x6B], gmax, 6);
  PutU16(m, 0xA8, 50), PutU16(m, 0xAA, 80), PutU16(m, 0xAC, 65), PutU16(m, 0xAE, 81);
  PutU16(m, 0xB0, 100), PutU16(m, 0xB2, 125);
  Cmcd_MTR06 d;
  rig.Attach(d);
  ParamValueList out = d.get_all_system_values();
  EXPECT_DOUBLE_EQ(d.RangeM1(0), 25.0);
  EXPECT_DOUBLE_EQ(d.RangeM1(1), 40.0);
  EXPECT_DOUBLE_EQ(d.RangeM2(0), 10.0);
  EXPECT_DOUBLE_EQ(d.RangeM2(1), 0.0);
  EXPECT_DOUBLE_EQ(d.RangeM1(2), 63.0);
  EXPECT_DOUBLE_EQ(d.GminM1Pct(0), 1.0);   // 20 / 20
  EXPECT_DOUBLE_EQ(d.GminM1(0), 0.25);     // 25 / 100 * 1
  EXPECT_DOUBLE_EQ(d.GmaxM1Pct(0), 100.0); // taken as read
  EXPECT_DOUBLE_EQ(d.GmaxM1(0), 25.0);
  EXPECT_DOUBLE_EQ(d.GmaxM2(1), 0.0);      // range 0 gives 0
  EXPECT_DOUBLE_EQ(d.GmaxM1(2), 63.0 / 100 * 80);
  EXPECT_DOUBLE_EQ(d.DN1(1), 80);
  EXPECT_DOUBLE_EQ(d.DN2(2), 125);

  ASSERT_NE(Find(out, 31, 7, 0), nullptr);
  EXPECT_EQ(Find(out, 31, 7, 0)->value, "ЗАО \"ЕСКО-3Э\"");
  EXPECT_EQ(Find(out, 32, 7, 0)->value, "МТР-06");
  EXPECT_EQ(Find(out, 38, 7, 0)->value, "Закрытый (Режим 1)");
  EXPECT_EQ(Find(out, 38, 7, 1)->value, "Открытый (Режим 2)");
  EXPECT_EQ(Find(out, 38, 7, 2)->value, "Расходомер (Режим 3)");
  EXPECT_EQ(Find(out, 51, 9, 0)->value, "25");
  EXPECT_EQ(Find(out, 53, 9, 0)->value, "0.25");
  EXPECT_EQ(Find(out, 49, 9, 2)->value, "125");

  // A dead line gives no system values at all.
  rig.con.shortWriteBy = 1;
  Cmcd_TM3E dead;
  rig.Attach(dead);
  EXPECT_TRUE(dead.get_all_system_values().empty());
}

TEST(EskoDriver, ArchivesByDateStampedWithTheIntervalStart) {
  DriverRig rig;
  const time_t h8 = Local(2024, 3, 5, 8), h9 = h8 + 3600, h10 = h9 + 3600, h11 = h10 + 3600;
  rig.meter.hours = {h8, h9, h10, h11};
  rig.meter.clock = h11 + 1800;
  Cmcd_MTR06 d;
  rig.Attach(d);
  d.SetTurn();
  Timestamps ts;
  ASSERT_NE(d.GetTimestamps(ts), 0);
  EXPECT_EQ(ts.meter_time, h11 + 1800);
  EXPECT_EQ(ts.first_hour_arch, h8 - 3600);  // the oldest record (08:00) covers 07:00..08:00

  ParamValueList out;
  LogMark log;
  EXPECT_EQ(d.get_arch_values(ARCH_HOURLY, h8 - 7200, h10 - 3600, out), 0);
  std::set<int32_t> stamps;
  for (const auto& v : out) stamps.insert(v.timestamp);
  EXPECT_EQ(stamps, (std::set<int32_t>{static_cast<int32_t>(h8 - 3600), static_cast<int32_t>(h9 - 3600),
                                      static_cast<int32_t>(h10 - 3600)}));
  EXPECT_EQ(log.Count("CMcdMTR06::ReadHourlyArch readed all hourly values."), 1u);
  // 08:00 - 7200 lies before the first record: skipped without a request
  EXPECT_EQ(log.Count("FindArchRecNum: rqst date"), 3u);
  EXPECT_EQ(d.get_arch_values(6, 0, 0, out), 2);

  // An 'L' date with another hour than asked: the record is not read.
  rig.meter.lDateOverride[h9] = h9 + 3600;
  int index = -1;
  LogMark log2;
  EXPECT_FALSE(d.FindArchRecNum(0, h9, index));
  EXPECT_EQ(log2.Count("CheckArchDate - Returned Hour"), 1u);
  EXPECT_EQ(index, -1);
  // Without the override the index is the record number plus the hourly base.
  rig.meter.lDateOverride.clear();
  EXPECT_TRUE(d.FindArchRecNum(0, h9, index));
  EXPECT_EQ(index, 1 + 0x220);
  const Bytes& lreq = rig.meter.requests[rig.meter.requests.size() - 2];
  EXPECT_EQ(lreq[2], 'L');
  EXPECT_EQ((lreq[3] << 8) | lreq[4], ((1 + 0x220) * 32) & 0xFFFF);
}

}  // namespace
