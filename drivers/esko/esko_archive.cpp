// Archives of the ESKO meters: the meter clock, the oldest record the meter holds, and
// the walk over the local hours and days by which the meter keys its records.
//
// A record is dated by the local label (date and hour) of the end of its interval and
// is filed with the start of that interval: the hourly record dated 10:00 is filed as
// 09:00, the daily record dated the 6th as the 5th 00:00. Intervals follow the local
// calendar of the controller's zone (mcd::cal), so the hour that an autumn change
// repeats is one record and the day of a spring change starts at its midnight.
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/clock.h"
#include "drivers/base/exceptions.h"
#include "drivers/esko/esko_driver.h"
#include "drivers/esko/esko_values.h"
#include "log/logger.h"

namespace cal = mcd::cal;
using mcd::CMeterBuffer;
using namespace mcd::esko;

namespace {

// The error code of the meter's answer when it holds no record for a date.
const uint8_t kNoRecordCode = 3;
// A meter clock further than this from the controller's clock is not used for dates.
const long kMaxClockAway = 7 * 86400;
// The oldest record is not looked for further back than this before the newest: the
// polling loop reads at most 90 days.
const time_t kSearchDepth = 92 * 86400;

enum ClockState { kClockUnknown = 0, kClockGood, kClockInvalid, kClockAway };

// Steps over record times: kind 0 local hours, kind 1 local days.
time_t Start(int kind, time_t t) { return kind == 0 ? cal::HourStart(t) : cal::DayStart(t); }
time_t Next(int kind, time_t t) { return kind == 0 ? cal::NextHour(t) : cal::NextDay(t); }
time_t Prev(int kind, time_t t) { return kind == 0 ? cal::PrevHour(t) : cal::PrevDay(t); }

// The label by which the record dated t is asked; daily records carry the hour 0.
cal::Label AskLabel(int kind, time_t t) {
  cal::Label label = cal::LocalLabel(t);
  if (kind == 1) label.hour = 0;
  return label;
}

}  // namespace

void CEskoDriver::PatchDate(unsigned char* image, int eskoKind, const cal::Label& label) const {
  image[5] = ToBCD(label.year - 2000);
  image[6] = ToBCD(label.month);
  image[7] = ToBCD(label.day);
  image[8] = eskoKind == 0 ? ToBCD(label.hour) : 0;
  image[9] = 0;
}

// ---------------------------------------------------------------------------------
// The meter clock

void CEskoDriver::NoteClockState(int state, const unsigned char* raw, long away) {
  const int before = m_clockState;
  m_clockState = state;
  if (state == before) return;
  const char* p = m_info.driverPrefix;
  if (state == kClockInvalid)
    LOG_WARNING("%sGetTimestamps: meter clock %02x.%02x.20%02x %02x:%02x:%02x is not a valid date, archives are not "
                "read until it is\r\n", p, raw[2], raw[1], raw[0], raw[3], raw[4], raw[5]);
  else if (state == kClockAway)
    LOG_WARNING("%sGetTimestamps: meter clock is %ld s away from the controller clock (more than 7 days), archives "
                "are not read until it is set\r\n", p, away);
  else if (before != kClockUnknown)
    LOG_WARNING("%sGetTimestamps: meter clock usable again\r\n", p);
}

bool CEskoDriver::ReadMeterClock(time_t& meter) {
  ReplyView v = Send(m_img.TG, "GetCurrentTimestamp");
  if (v.empty() || v.length <= 12) throw CDisconnectException();
  unsigned char raw[6];
  std::memcpy(raw, v.data + 5, sizeof raw);
  LOG_INFO("current time heat meter - %02d.%02d.%04d %02d:%02d:%02d\r\n", BCDByte(raw[2]), BCDByte(raw[1]),
           2000 + BCDByte(raw[0]), BCDByte(raw[3]), BCDByte(raw[4]), BCDByte(raw[5]));
  if (!DecodeMeterClock(raw, meter)) {
    NoteClockState(kClockInvalid, raw, 0);
    return false;
  }
  const long away = static_cast<long>(meter - mcd::Now());
  if (labs(away) > kMaxClockAway) {
    NoteClockState(kClockAway, raw, away);
    return false;
  }
  NoteClockState(kClockGood, raw, 0);
  return true;
}

// ---------------------------------------------------------------------------------
// Locating and reading one record

CEskoDriver::RecordOutcome CEskoDriver::FindArchDate(int eskoKind, const cal::Label& label, unsigned& recordNumber,
                                                     unsigned& recordRest) {
  if (eskoKind != 0 && eskoKind != 1) return kRecordFailed;
  unsigned char* img = eskoKind == 0 ? m_img.A3 : m_img.A31;
  PatchDate(img, eskoKind, label);
  ReplyView v;
  // An error answer is not covered by the link's checksum test, so a damaged answer can
  // read as "no record"; only a second such answer in a row is taken as the meter's word.
  for (int ask = 0; ask < 2 && v.empty(); ++ask) {
    try {
      v = Send(img, "FindArchDate");
    } catch (const CDisconnectException&) {
      if (!m_link || m_link->LastError() != kNoRecordCode) throw;
      if (ask == 1) return kRecordAbsent;
    }
  }
  if (v.empty() || v.length <= 12) {
    LOG_ERR("%sFindArchRecNum - NOT ENOUGH DATA returned: %d !!!\r\n", m_info.driverPrefix, v.length);
    return kRecordFailed;
  }
  recordNumber = static_cast<unsigned>((v.data[5] << 8) | v.data[6]);
  recordRest = static_cast<unsigned>((v.data[7] << 8) | v.data[8]);
  LOG_DEBUG("%sFindArchRecNum: rec num %u, rec rest %u\r", m_info.driverPrefix, recordNumber, recordRest);
  return kRecordOk;
}

CEskoDriver::RecordOutcome CEskoDriver::FindArchRecNum(int eskoKind, const cal::Label& label) {
  const char* p = m_info.driverPrefix;
  LOG_DEBUG("%sFindArchRecNum: rqst date- %lu, %02d.%02d.%04d %02d:00 \r", p,
            static_cast<unsigned long>(cal::FromLabel(label)), label.day, label.month, label.year,
            eskoKind == 0 ? label.hour : 0);
  unsigned number = 0, rest = 0;
  const RecordOutcome found = FindArchDate(eskoKind, label, number, rest);
  if (found != kRecordOk) return found;

  const unsigned index = number + static_cast<unsigned>(RecordBase(eskoKind));
  const uint16_t address = static_cast<uint16_t>(index * 32);
  m_img.L[3] = static_cast<unsigned char>(address >> 8);
  m_img.L[4] = static_cast<unsigned char>(address & 0xFF);
  LOG_DEBUG("%sFindArchRecNum: Ask rec date from addr 0x%02x%02x\r", p, m_img.L[3], m_img.L[4]);
  ReplyView v = Send(m_img.L, "GetArchRecDate");
  if (v.empty() || v.length <= 12) {
    LOG_ERR("%sFindArchRecNum - NOT ENOUGH DATA returned: %d !!!\r\n", p, v.length);
    return kRecordFailed;
  }
  const cal::Label got = MeterLabel(v.data + 5);
  LOG_DEBUG("%sFindArchRecNum: got arch date- %02d.%02d.%04d %02d:%02d \r", p, got.day, got.month, got.year, got.hour,
            BCDByte(v.data[9]));
  if (!CheckArchDate(eskoKind, got, label, p, "CheckArchDate")) return kRecordFailed;

  m_img.A1[4] = static_cast<unsigned char>((index >> 8) & 0xFF);
  m_img.A1[5] = static_cast<unsigned char>(index & 0xFF);
  v = Send(m_img.A1, "ReadArchRec");
  if (v.empty()) return kRecordFailed;
  char text[96];
  snprintf(text, sizeof text, "%sFindArchRecNum: arch rec 0x%04x", p, index);
  m_link->WriteRawLog(v.data, v.length, text);
  return kRecordOk;
}

bool CEskoDriver::ReadArchData(int eskoKind, int type, const cal::Label& label, time_t stamp, ParamValueList& out) {
  const char* p = m_info.driverPrefix;
  char when[64];
  snprintf(when, sizeof when, "%02d.%02d.%04d %02d:00", label.day, label.month, label.year,
           eskoKind == 0 ? label.hour : 0);
  LOG_DEBUG("%sReadArchData: ask find arch type %d(JSONRPC %d [%s]) page for %s\r", p, eskoKind, type,
            type == ARCH_HOURLY ? "HOURLY" : "DAILY", when);
  unsigned char* img = eskoKind == 0 ? m_img.A4 : m_img.A41;
  PatchDate(img, eskoKind, label);
  ReplyView v = Send(img, "ReadArchData");
  if (v.empty()) {
    LOG_ERR("%sReadArchData - No data in arch to %s\r\n", p, when);
    return false;
  }
  if (v.length < 260) {
    LOG_ERR("%sReadArchData - NOT ENOUGH DATA returned: %d !!!\r\n", p, v.length);
    return false;
  }
  return ParseArchPage(Cursor(v), PageAsk{eskoKind, type, label, stamp}, p, out);
}

CEskoDriver::RecordOutcome CEskoDriver::ReadRecord(int eskoKind, int type, time_t stamp, ParamValueList& out) {
  const cal::Label label = AskLabel(eskoKind, Next(eskoKind, stamp));
  const size_t before = out.size();
  try {
    const RecordOutcome found = FindArchRecNum(eskoKind, label);
    if (found != kRecordOk) return found;
    if (ReadArchData(eskoKind, type, label, stamp, out)) return kRecordOk;
  } catch (const std::exception& e) {
    LOG_ERR("%sget_arch_values: exception %s (answer code %d)\r\n", m_info.driverPrefix, e.what(),
            m_link ? m_link->LastError() : 0);
  }
  out.resize(before);
  return kRecordFailed;
}

// ---------------------------------------------------------------------------------
// The oldest record held

bool CEskoDriver::HoldsRecord(int eskoKind, time_t recordTime, unsigned* rest) {
  unsigned number = 0, r = 0;
  const RecordOutcome found = FindArchDate(eskoKind, AskLabel(eskoKind, recordTime), number, r);
  if (found == kRecordFailed) throw CDisconnectException();
  if (rest) *rest = r;
  return found == kRecordOk;
}

time_t CEskoDriver::StepBack(int eskoKind, time_t t, unsigned count, time_t limit) const {
  for (unsigned i = 0; i < count && t > limit; ++i) t = Prev(eskoKind, t);
  return t;
}

time_t CEskoDriver::Bisect(int eskoKind, time_t without, time_t with) {
  for (;;) {
    time_t mid = Start(eskoKind, without + (with - without) / 2);
    if (mid <= without) mid = Next(eskoKind, without);
    if (mid >= with) return with;
    if (HoldsRecord(eskoKind, mid, nullptr))
      with = mid;
    else
      without = mid;
  }
}

// From a record known held, back in steps that double (1, 2, 4, ... records) until one
// is not held or the limit is reached, then bisection: a meter holding a few records
// more than it claims costs a few requests.
time_t CEskoDriver::GallopBack(int eskoKind, time_t with, time_t limit) {
  for (unsigned step = 1; with > limit; step *= 2) {
    const time_t back = StepBack(eskoKind, with, step, limit);
    if (!HoldsRecord(eskoKind, back, nullptr)) return Bisect(eskoKind, back, with);
    with = back;
  }
  return with;
}

// The "record rest" of the find answer is taken as a first guess only: the guess is
// checked (the record it names is held, the one before is not) and, when wrong, the
// oldest record is found by bisection, a few find requests instead of one per hour.
time_t CEskoDriver::FindOldest(int eskoKind, time_t meterTime) {
  time_t& known = m_oldest[eskoKind];
  time_t newest = Start(eskoKind, meterTime);
  // Records are only added after the newest, so an oldest record still held stays the oldest.
  if (known && known <= newest && HoldsRecord(eskoKind, known, nullptr)) return known;
  unsigned rest = 0;
  if (!HoldsRecord(eskoKind, newest, &rest)) {
    newest = Prev(eskoKind, newest);  // the meter has not closed the last interval yet
    if (!HoldsRecord(eskoKind, newest, &rest)) return known = 0;
  }
  const time_t limit = Start(eskoKind, newest - kSearchDepth);
  time_t oldest;
  if (known && known < newest) {
    oldest = Bisect(eskoKind, known, newest);
  } else {
    const time_t claimed = StepBack(eskoKind, newest, rest, limit);
    if (claimed != newest && !HoldsRecord(eskoKind, claimed, nullptr))
      oldest = Bisect(eskoKind, claimed, newest);
    else
      oldest = GallopBack(eskoKind, claimed, limit);
  }
  const cal::Label o = cal::LocalLabel(oldest);
  LOG_INFO("min %s arch - %02d.%02d.%04d %02d:00 \r\n", eskoKind == 0 ? "hour" : "day", o.day, o.month, o.year,
           o.hour);
  return known = oldest;
}

int CEskoDriver::GetTimestamps(Timestamps& out) {
  const char* p = m_info.driverPrefix;
  // Outside its turn the driver does not touch the shared line: it answers from its
  // last reading, with the meter clock moved on by the local clock.
  if (!GetTurn()) {
    if (!m_haveTimes) return 0;
    out.first_hour_arch = static_cast<int32_t>(m_firstHour);
    out.first_day_arch = static_cast<int32_t>(m_firstDay);
    out.meter_time = static_cast<int32_t>(m_meterTime + (mcd::Now() - m_meterTimeReadAt));
    return 1;
  }
  try {
    time_t meter = 0;
    if (!ReadMeterClock(meter)) {
      m_haveTimes = false;
      return 0;
    }
    m_meterTime = meter;
    m_meterTimeReadAt = mcd::Now();
    LOG_DEBUG("%sGetTimestamps: find min date ArchRecHourly\r", p);
    const time_t oldestHour = FindOldest(0, meter);
    m_firstHour = oldestHour ? cal::PrevHour(oldestHour) : cal::HourStart(meter);
    LOG_DEBUG("%sGetTimestamps: find min date ArchRecDaily\r", p);
    const time_t oldestDay = FindOldest(1, meter);
    m_firstDay = oldestDay ? cal::PrevDay(oldestDay) : cal::DayStart(meter);
    out.first_hour_arch = static_cast<int32_t>(m_firstHour);
    out.first_day_arch = static_cast<int32_t>(m_firstDay);
    out.meter_time = static_cast<int32_t>(meter);
    m_haveTimes = true;
    m_archBroken = false;
    LOG_DEBUG("%sGetTimestamps: Done.\r", p);
    return 1;
  } catch (const std::exception& e) {
    LOG_ERR("%sGetTimestamps: exception occured: %s\r\n", p, e.what());
    return 0;
  }
}

// ---------------------------------------------------------------------------------
// The walk

int CEskoDriver::get_arch_values(int type, time_t from, time_t to, ParamValueList& out) {
  if (type != ARCH_HOURLY && type != ARCH_DAILY) return 2;
  const int kind = type == ARCH_HOURLY ? 0 : 1;
  const char* word = kind == 0 ? "Hourly" : "Daily";
  const time_t first = kind == 0 ? m_firstHour : m_firstDay;
  LOG_DEBUG("get_arch_values: want ask %s values from %lu to %lu \r", word, static_cast<unsigned long>(from),
            static_cast<unsigned long>(to));
  LOG_DEBUG("get_arch_values: MaxTime%s %lu, meter time %lu \r", kind == 0 ? "Hour" : "Day",
            static_cast<unsigned long>(first), static_cast<unsigned long>(m_meterTime));
  const size_t before = out.size();
  const bool covered = WalkRecords(kind, type, from, to, out);
  const char* lp = m_info.loopPrefix;
  const bool got = out.size() > before;
  if (kind == 0)
    LOG_INFO(got ? "%sReadHourlyArch readed all hourly values." : "%sReadHourlyArch archive hourly info is absent.", lp);
  else
    LOG_INFO(got ? "%sReadDailyArch readed all daily values." : "%sReadDailyArch archive daily info is absent.", lp);
  return covered ? 1 : 0;
}

// Reads the records from `from` to `to`. A record the meter declares absent is
// skipped; after any other failure the rest of this reading is left for the next
// turn, so that the records filed never leave a gap behind them. False when the walk
// did not cover the whole span.
bool CEskoDriver::WalkRecords(int kind, int type, time_t from, time_t to, ParamValueList& out) {
  const char* word = kind == 0 ? "Hourly" : "Daily";
  const char* typeText = kind == 0 ? "HOURLY" : "DAILY";
  const char* p = m_info.driverPrefix;
  const time_t first = kind == 0 ? m_firstHour : m_firstDay;
  if (m_archBroken) {
    LOG_ERR("%sget_arch_values: a reading failed earlier, %s left for the next turn\r\n", p, typeText);
    return false;
  }
  for (time_t t = Start(kind, from); t <= to; t = Next(kind, t)) {
    if (t < from || t < first) continue;  // before the oldest record: nothing to ask
    LOG_DEBUG("Start read %s values at %lu, JSON type %d[%s], ESKO type %d\r", word,
              static_cast<unsigned long>(Next(kind, t)), type, typeText, kind);
    const RecordOutcome outcome = ReadRecord(kind, type, t, out);
    const cal::Label l = cal::LocalLabel(t);
    if (outcome == kRecordAbsent) {
      LOG_WARNING("%sget_arch_values: the meter holds no %s record for %02d.%02d.%04d %02d:00 (%lu), skipped\r\n", p,
                  typeText, l.day, l.month, l.year, l.hour, static_cast<unsigned long>(t));
    } else if (outcome == kRecordFailed) {
      LOG_ERR("%sget_arch_values: %s record for %02d.%02d.%04d %02d:00 (%lu) not read, the reading stops there\r\n",
              p, typeText, l.day, l.month, l.year, l.hour, static_cast<unsigned long>(t));
      m_archBroken = true;
      return false;
    }
  }
  return true;
}
