#include "drivers/vkt7/vkt7_driver.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

#include "app/clock.h"
#include "drivers/base/calendar.h"
#include "drivers/base/value_text.h"
#include "log/logger.h"

namespace {

typedef std::vector<unsigned char> Frame;

// Read of a register group: FF FF 00 03 hi lo 00 00 + checksum.
Frame ReadRequest(int reg) {
  return {0xFF, 0xFF, 0x00, 0x03, static_cast<unsigned char>(reg >> 8), static_cast<unsigned char>(reg & 0xFF),
          0x00, 0x00, 0x00, 0x00};
}

// Write of data to a register group with count 0: FF FF 00 10 hi lo 00 00 N data + checksum.
Frame WriteRequest(int reg, const unsigned char* data, size_t n) {
  Frame f = {0xFF, 0xFF, 0x00, 0x10, static_cast<unsigned char>(reg >> 8), static_cast<unsigned char>(reg & 0xFF),
             0x00, 0x00, static_cast<unsigned char>(n)};
  f.insert(f.end(), data, data + n);
  f.push_back(0x00);
  f.push_back(0x00);
  return f;
}

// The session opening written to 0x3FFF.
Frame Init1Request() { return {0xFF, 0xFF, 0x00, 0x10, 0x3F, 0xFF, 0x00, 0x00, 0xCC, 0x80, 0x00, 0x00, 0x00, 0x00, 0x00}; }

// Flash position (0x3FF7, two data bytes) and a flash page read (0x3FF8, 0x80 bytes).
Frame FlashPositionRequest() { return {0xFF, 0xFF, 0x00, 0x10, 0x3F, 0xF7, 0x00, 0x02, 0x02, 0x00, 0x00, 0x00, 0x00}; }
Frame FlashReadRequest() { return {0xFF, 0xFF, 0x00, 0x03, 0x3F, 0xF8, 0x00, 0x80, 0x00, 0x00}; }

// A record of an element list written to 0x3FFF: the element's 4-byte address, low
// byte first, carrying the 0x40000000 flag, then its 2-byte size.
constexpr int kListRecord = 6;
constexpr unsigned char kListFlagByte = 0x40;  // byte 3 of the address

// Element list of the properties: elements 44..56 (unit strings, 7 bytes) and 57..76
// (fraction digits, 1 byte). 33 records, 198 bytes, a 209-byte request.
Frame PropertiesListRequest() {
  Frame list;
  for (int e = 44; e <= 76; ++e) {
    const unsigned char record[kListRecord] = {static_cast<unsigned char>(e), 0, 0, kListFlagByte,
                                               static_cast<unsigned char>(e <= 56 ? 7 : 1), 0};
    list.insert(list.end(), record, record + kListRecord);
  }
  return WriteRequest(0x3FFF, list.data(), list.size());
}

std::string CText(const std::string& bytes) { return bytes.substr(0, bytes.find('\0')); }

std::string Asc(time_t t) {
  struct tm tmv;
  localtime_r(&t, &tmv);
  char text[32];
  asctime_r(&tmv, text);
  std::string s(text);
  if (!s.empty() && s.back() == '\n') s.pop_back();
  return s;
}

// A value's quality byte says whether the value bytes mean anything.
bool CarriesValue(unsigned char quality) {
  return quality != Cmcd_VKT7::kNotInSchemeQuality && quality != Cmcd_VKT7::kOutOfRangeQuality;
}

// The NS byte 0xFF says that another element of the list has the abnormal situation.
uint8_t ErrorOf(unsigned char ns) { return ns == 0xFF ? 0 : ns; }

// Whether the NS byte reports a changed activity mask. An element whose quality is
// 0x50 has an abnormal situation of its own, and its NS byte is that situation's code.
bool MaskChanged(unsigned char quality, unsigned char ns) {
  return ns == 5 && quality != Cmcd_VKT7::kAbnormalQuality;
}

// The meter holds records by local date and hour: the label of a record time.
mcd::cal::Label RecordLabel(time_t t, bool daily) {
  mcd::cal::Label label = mcd::cal::LocalLabel(t);
  if (daily) label.hour = 0;
  return label;
}

// Ends an archive walk at a meter answer that is neither a record nor "no record".
struct WalkEnd : std::exception {
  const char* what() const noexcept override { return "the meter's answer ends the walk"; }
};

}  // namespace

Cmcd_VKT7::Cmcd_VKT7() {
  // Rows 0..21 describe heat system 0, rows 22..43 the same quantities of system 1
  // with the fraction-digit keys raised by 10.
  static const Element kRows[22] = {
      {44, 57, 6, 0},  {44, 57, 7, 0},  {44, 57, 8, 0},  {46, 59, 19, 0}, {46, 59, 20, 0}, {46, 59, 21, 0},
      {47, 60, 22, 0}, {47, 60, 23, 0}, {47, 60, 24, 0}, {48, 61, 9, 0},  {48, 61, 10, 0}, {52, 65, 30, 0},
      {53, 66, 17, 0}, {54, 66, 30, 0}, {49, 62, 30, 0}, {50, 63, 30, 0}, {51, 64, 30, 0}, {55, 0, 18, 0},
      {56, 0, 29, 0},  {45, 58, 0, 0},  {45, 58, 1, 0},  {45, 58, 2, 0}};
  for (int i = 0; i < 22; ++i) {
    m_table[i] = kRows[i];
    m_table[i + 22] = kRows[i];
    m_table[i + 22].sys = 1;
    if (kRows[i].digitsKey != 0) m_table[i + 22].digitsKey = kRows[i].digitsKey + 10;
  }
}

Cmcd_VKT7::~Cmcd_VKT7() { stop(); }

void Cmcd_VKT7::SaveConnector(CConnector* connector) {
  m_link.reset(new CVKT7LowLevelConnector(connector, led_indication));
}

time_t Cmcd_VKT7::MeterDate(int day, int month, int year, int hour) {
  if (day == 0 && month == 0 && year == 0 && hour == 0) return 0;
  if (day < 1 || day > 31 || month < 1 || month > 12 || year > 99 || hour > 23) return -1;
  mcd::cal::Label label;
  label.year = 2000 + year;
  label.month = month;
  label.day = day;
  label.hour = hour;
  const time_t t = mcd::cal::FromLabel(label);
  // 31.02 and the like come back as another day; a left-out local hour as -1.
  if (t == -1 || !mcd::cal::SameDay(mcd::cal::LocalLabel(t), label)) return -1;
  return t;
}

// ---------------------------------------------------------------- exchanges

CVKT7Buffer Cmcd_VKT7::Exchange(Frame& request, const char* name, bool tolerate) {
  if (!m_link) throw CDisconnectException();
  return m_link->SendString(request.data(), static_cast<unsigned short>(request.size()), name, tolerate);
}

CVKT7Buffer Cmcd_VKT7::Read(int reg, const char* name, bool tolerate) {
  Frame f = ReadRequest(reg);
  return Exchange(f, name, tolerate);
}

void Cmcd_VKT7::SelectDataType(int type, const char* name) {
  const unsigned char data[2] = {static_cast<unsigned char>(type), 0x00};
  Frame f = WriteRequest(0x3FFD, data, 2);
  Exchange(f, name, false);
}

bool Cmcd_VKT7::SelectDate(time_t t, bool daily, const char* label) {
  const mcd::cal::Label date = RecordLabel(t, daily);
  const unsigned char data[4] = {static_cast<unsigned char>(date.day), static_cast<unsigned char>(date.month),
                                 static_cast<unsigned char>(date.year - 2000), static_cast<unsigned char>(date.hour)};
  Frame f = WriteRequest(0x3FFB, data, 4);
  Exchange(f, "SendDataForArch3", true);
  if (m_link->Answer()[1] & 0x80) {
    if (m_link->LastError() == 3) {
      LOG_WARNING("Cmcd_VKT7::SendDataForArch3 - No data in arch to %s", Asc(t).c_str());
      return false;
    }
    LOG_ERR("Cmcd_VKT7::SendDataForArch3 - error code %d for %s - %s", m_link->LastError(), Asc(t).c_str(), label);
    throw WalkEnd();
  }
  LOG_DEBUG("Cmcd_VKT7::SendDataForArch3 - Asking data %s - %s", Asc(t).c_str(), label);
  return true;
}

// ---------------------------------------------------------------- init

void Cmcd_VKT7::init() {
  // Called again on every turn until it has succeeded once: values cannot be rendered
  // without the fraction digits and units.
  try {
    Frame f = Init1Request();
    Exchange(f, "init_1", false);
    CVKT7Buffer answer = Read(0x3FFE, "init_2");
    m_baseType = answer[64];
    LOG_DEBUG("Cmcd_VKT7::init - base type %d", m_baseType);
    GetAllProperties2();
    SyncActiveParameters41(false);
    if (!m_ready.exchange(true)) LOG_INFO("Cmcd_VKT7::init - units, fraction digits and active elements read");
  } catch (const std::exception& e) {
    m_ready.store(false);
    LOG_ERR("Cmcd_VKT7::init - exchange failed: %s; nothing is published until it succeeds", e.what());
  }
}

void Cmcd_VKT7::GetAllProperties2() {
  SelectDataType(kProperties, "GetAllProperties2_1");
  Frame list = PropertiesListRequest();
  Exchange(list, "GetAllProperties2_2", false);
  ParseProperties(Read(0x3FFE, "GetAllProperties2_3"));
}

void Cmcd_VKT7::ParseProperties(CVKT7Buffer a) {
  a += 3;
  for (int p = 44; p <= 56; ++p) {
    if (m_baseType == 1) {
      // a two-byte length, low byte first, precedes the text
      a += 2;
      int length = a[-2];
      m_units[p] = CText(mcd::MakeStringDiapason(a, length));
      a += length + 2;
    } else {
      m_units[p] = CText(mcd::MakeStringDiapason(a, 7));
      a += 9;
    }
  }
  for (int p = 57; p <= 76; ++p) {
    m_digits[p] = a[0];
    a += 3;
  }
}

void Cmcd_VKT7::SyncActiveParameters41(bool dump) {
  CVKT7Buffer answer = Read(0x3FFC, "SyncActiveParameters41_1");
  ParseActiveList(answer);
  const int n = answer[2];
  Frame f = WriteRequest(0x3FFF, answer.position() + 3, static_cast<size_t>(n));
  // The meter's own list carries the flag already; it is set here all the same, since
  // every record of a written list must carry it.
  for (int at = 9 + 3; at < 9 + n; at += kListRecord) f[static_cast<size_t>(at)] |= kListFlagByte;
  Exchange(f, "SyncActiveParameters41_2", false);
  if (dump) vkt7::WriteFrameDump("SyncActiveParameters41", f.data(), f.size());
}

void Cmcd_VKT7::ParseActiveList(CVKT7Buffer a) {
  a += 3;
  m_active.clear();
  bool swap = false;
  m_scheme = 0;
  while (a.remaining() >= 6) {
    const int element = a[0];
    m_active.emplace_back(element, a[4]);
    if (element == 0x0F || element == 0x25) swap = true;
    if (element == 0x0F || element == 2) m_scheme = m_scheme == 0 ? 1 : 0;
    if (element == 0x25 || element == 0x18) m_scheme = m_scheme == 0 ? 2 : 0;
    a += 6;
  }
  m_table[2].param = swap ? 30 : 8;
  m_table[15].param = swap ? 8 : 30;
  // System 1 keeps its pair as it is: nothing here ever swaps it.
  m_table[24].param = 8;
  m_table[37].param = 30;
  LOG_DEBUG("Cmcd_VKT7::SyncActiveParameters41 - %d active elements, scheme %d", static_cast<int>(m_active.size()),
            m_scheme);
}

// ---------------------------------------------------------------- system data

void Cmcd_VKT7::GetSystemData() { ParseSystemData(Read(0x3FF9, "GetSystemData")); }

void Cmcd_VKT7::ParseSystemData(CVKT7Buffer a) {
  const int count = a[2];
  a += 3;
  if (count == 16) {
    m_version = a[0];
    char text[16];
    snprintf(text, sizeof text, "%d.%d", m_version >> 4, m_version & 0x0F);
    m_versionText = text;
    a += 1;
    m_versionText += "." + std::to_string(a[0]);
    a += 4;
    m_serial = CText(mcd::MakeStringDiapason(a, 7));
    a += 8;
    m_typeByte = a[0];
    m_reportDay = a[1];
    m_lastSystemByte = a[2];
  } else {
    LOG_INFO("Cmcd_VKT7::GetSystemData it's old heat-meter. v < 1.5 length system data is %d", count);
    m_version = 0;
    m_versionText = "<1.5";
    m_serial.clear();
    m_typeByte = a[2];
    m_reportDay = a[3];
    m_lastSystemByte = 0;
  }
  LOG_DEBUG("Cmcd_VKT7::GetSystemData - version %s, reporting day %d", m_versionText.c_str(), m_reportDay);
}

void Cmcd_VKT7::ReadFlash() {
  static const char* const kPosition[3] = {"FlashSetPositionTV1", "FlashSetPositionTV2", "FlashSetPositionTV3"};
  static const char* const kRead[3] = {"GetFlashData1", "GetFlashData2", "GetFlashData3"};
  for (int i = 0; i < 3; ++i) {
    Frame position = FlashPositionRequest();
    Exchange(position, kPosition[i], true);
    if (m_link->Answer()[1] & 0x80) continue;
    Frame read = FlashReadRequest();
    CVKT7Buffer page = Exchange(read, kRead[i], true);
    if (page.empty()) continue;
    LOG_DUMP(kRead[i], page.position(), static_cast<size_t>(page.remaining()));
  }
}

ParamValueList Cmcd_VKT7::get_all_system_values() {
  ParamValueList out;
  const time_t now = mcd::Now();
  try {
    GetSystemData();
    try {
      ReadFlash();
    } catch (const std::exception& e) {
      LOG_ERR("Cmcd_VKT7::get_all_system_values - flash reading failed: %s", e.what());
    }
    char type[8];
    snprintf(type, sizeof type, "0x%X", m_typeByte);
    const int32_t ts = static_cast<int32_t>(now);
    out.emplace_back(31, kKindSystem, "ООО \"Теплоком\"", "", kGoodQuality, 0, 0, ts);
    out.emplace_back(32, kKindSystem, "ВКТ-7", "", kGoodQuality, 0, 0, ts);
    out.emplace_back(33, kKindSystem, m_versionText, "", kGoodQuality, 0, 0, ts);
    out.emplace_back(38, kKindSystem, type, "", kGoodQuality, 0, 0, ts);
  } catch (const std::exception& e) {
    LOG_ERR("Cmcd_VKT7::get_all_system_values - exchange failed: %s", e.what());
    out.clear();
  }
  return out;
}

// ---------------------------------------------------------------- clock and bounds

time_t Cmcd_VKT7::GetCurrentTimestamp() {
  const time_t now = mcd::Now();
  if (m_version < 0x27) return now;
  const time_t meter = ParseCurrentTimestamp(Read(0x3FFB, "GetCurrentTimestamp"));
  if (meter == -1) return -1;
  const long away = static_cast<long>(meter > now ? meter - now : now - meter);
  if (away > kClockTrust) {
    LOG_WARNING("Cmcd_VKT7::GetCurrentTimestamp - meter clock is %ld s away from the controller's, not used for "
                "archive dates",
                away);
    return -1;
  }
  return meter;
}

time_t Cmcd_VKT7::ParseCurrentTimestamp(CVKT7Buffer a) {
  a += 3;
  const int day = a[0], month = a[1], year = a[2], hour = a[3], minute = a[4], second = a[5];
  LOG_INFO("current time heat meter - %02d.%02d.%04d %02d:%02d:%02d", day, month, year + 2000, hour, minute, second);
  const time_t hourStart = MeterDate(day, month, year, hour);
  if (hourStart <= 0 || minute > 59 || second > 59) {
    LOG_WARNING("Cmcd_VKT7::GetCurrentTimestamp - meter clock %02d.%02d.%04d %02d:%02d:%02d is not a valid time, not "
                "used for archive dates",
                day, month, year + 2000, hour, minute, second);
    return -1;
  }
  return hourStart + minute * 60 + second;
}

void Cmcd_VKT7::ParseTimestamps(CVKT7Buffer a, Timestamps& out) {
  a += 3;
  LOG_INFO("last hour arch - %02d.%02d.%04d %02d ", a[0], a[1], a[2] + 2000, a[3]);
  // A bound that is no date is taken as no bound: the walk then asks from further back.
  out.first_hour_arch = static_cast<int32_t>(std::max<time_t>(0, MeterDate(a[0], a[1], a[2], a[3])));
  a += 4;
  LOG_INFO("Cur_date - %02d.%02d.%04d %02d ", a[0], a[1], a[2] + 2000, a[3]);
  a += 4;
  if (a.empty()) {
    out.first_day_arch = 0;
    return;
  }
  LOG_INFO("last day arch - %02d.%02d.%04d %02d", a[0], a[1], a[2] + 2000, a[3]);
  // The date may carry hour 23; the daily record is the day's.
  const time_t day = MeterDate(a[0], a[1], a[2], a[3]);
  out.first_day_arch = static_cast<int32_t>(day > 0 ? mcd::cal::DayStart(day) : 0);
}

int Cmcd_VKT7::GetTimestamps(Timestamps& out) {
  try {
    Timestamps got;
    ParseTimestamps(Read(0x3FF6, "GetTimestamps"), got);
    const time_t meter = GetCurrentTimestamp();
    if (meter == -1) return 0;
    got.meter_time = static_cast<int32_t>(meter);
    out = got;
    m_archBroken = false;
    return 1;
  } catch (const std::exception& e) {
    LOG_ERR("Cmcd_VKT7::GetTimestamps - exchange failed: %s", e.what());
    return 0;
  }
}

// ---------------------------------------------------------------- values

std::string Cmcd_VKT7::ParseToString(const CVKT7Buffer& cursor, const Element& row, int width) const {
  if (width >= 5) {
    LOG_CRIT("Cmcd_VKT7::ParseToString - too long value - %d. need additional work", width);
    return "ERR";
  }
  if (row.unitKey == 45) return mcd::GetFloatAsString(cursor, width);
  int digits = 0;
  if (row.digitsKey != 0) {
    auto found = m_digits.find(row.digitsKey);
    if (found != m_digits.end()) digits = found->second;
  }
  return mcd::GetLongAsString(cursor, width, digits);
}

void Cmcd_VKT7::AppendValue(ParamValueList& out, int param, int kind, const std::string& value, const std::string& dim,
                            unsigned char quality, unsigned char error, int sys, time_t ts, uint32_t* masks) {
  const uint8_t err = ErrorOf(error);
  out.emplace_back(param, kind, value, dim, quality, err, static_cast<uint8_t>(sys), static_cast<int32_t>(ts));
  if (param == 8 && sys == m_scheme - 1) {
    ParamValue copy = out.back();
    copy.sys = static_cast<uint8_t>(sys == 0 ? 1 : 0);
    out.push_back(copy);
  }
  uint32_t bits = 0;
  if (err == 1) {
    switch (param) {
      case 6: bits = 0x8; break;
      case 7: bits = 0x80000; break;
      case 9: bits = 0x40; break;
      case 10: bits = 0x100000; break;
      case 19: bits = 0x4; break;
      case 20: bits = 0x40000; break;
      default: break;
    }
  } else if (err == 2) {
    switch (param) {
      case 19: bits = 0x2; break;
      case 20: bits = 0x20000; break;
      case 17: bits = 0x400; break;
      default: break;
    }
  }
  masks[sys == 0 ? 0 : 1] |= bits;
  LOG_DEBUG("param - %d;%d  val - %s VKT7OPCQuality - %d ERR - %d", param, kind, value.c_str(), quality, err);
}

bool Cmcd_VKT7::parce45inWorkEXTERNAL(const CVKT7Buffer& a, int element, int length, ParamValueList& out, int kind,
                                      time_t ts) {
  if (element == 77 || element == 78) {
    // Abnormal situation present on heat input 1 (77) or 2 (78): '*' yes, ' ' no.
    const unsigned char quality = a[length];
    if (!CarriesValue(quality)) return true;
    const unsigned char flag = a[0];
    if (flag != '*' && flag != ' ') {
      LOG_WARNING("Cmcd_VKT7::parce45inWorkEXTERNAL - element %d sent 0x%02X, neither '*' nor ' '", element, flag);
      return true;
    }
    const int param = element == 77 ? 55 : 56;
    const std::string value = flag == '*' ? "1" : "0";
    const uint8_t err = ErrorOf(a[length + 1]);
    out.emplace_back(param, kind, value, "", quality, err, static_cast<uint8_t>(element - 77),
                     static_cast<int32_t>(ts));
    LOG_DEBUG("param - %d;%d  val - %s VKT7OPCQuality - %d ERR - %d", param, kind, value.c_str(), quality, err);
    return true;
  }
  // 79, 80 (NS durations), 81 (DI) and 82 (P3) have no published name: read over.
  return element >= 79 && element <= 82;
}

int Cmcd_VKT7::parce45inWork(CVKT7Buffer a, ParamValueList& out, int kind, time_t ts) {
  a += 3;
  uint32_t masks[2] = {0, 0};
  int unknown = -1;
  int unknownCount = 0;
  for (const auto& entry : m_active) {
    const int element = entry.first;
    const int length = entry.second;
    const unsigned char quality = a[length];
    const unsigned char error = a[length + 1];
    if (MaskChanged(quality, error)) {
      LOG_WARNING("Cmcd_VKT7::parce45inWork - activity mask is changed, need to reread");
      return -1;
    }
    if (element >= kElementCount) {
      // 44..76 are properties, never values; 77 and above are the external elements.
      if (element < 77 || !parce45inWorkEXTERNAL(a, element, length, out, kind, ts)) {
        if (unknownCount++ == 0) unknown = element;
      }
      a += length + 2;
      continue;
    }
    CVKT7Buffer value = a;
    unsigned char reordered[4] = {0, 0, 0, 0};
    if (kind == kKindMonthly && (element == 0x11 || element == 0x27)) {
      // In the monthly archive the time of work comes most significant byte first.
      vkt7::WriteFrameDump("TimeOfWork", a.position(), static_cast<size_t>(std::min(6, std::max(a.remaining(), 0))));
      if (length <= 4) {
        a.Require(length, "TimeOfWork");
        for (int i = 0; i < length; ++i) reordered[i] = a.position()[length - 1 - i];
        value = CVKT7Buffer(reordered, length);
      }
    }
    if (CarriesValue(quality)) {
      const Element& row = m_table[element];
      const std::string text = ParseToString(value, row, length);
      auto unit = m_units.find(row.unitKey);
      AppendValue(out, row.param, kind, text, unit == m_units.end() ? std::string() : unit->second, quality, error,
                  row.sys, ts, masks);
    }
    a += length + 2;
  }
  // One line per read, however many values the unknown elements sent.
  if (unknownCount > 0)
    LOG_DEBUG("Cmcd_VKT7::parce45inWorkEXTERNAL - WRONG INDEX - %d (%d unknown elements in this read)", unknown,
              unknownCount);
  out.emplace_back(14, kind, std::to_string(masks[0]), "", kGoodQuality, 0, 0, static_cast<int32_t>(ts));
  out.emplace_back(14, kind, std::to_string(masks[1]), "", kGoodQuality, 0, 1, static_cast<int32_t>(ts));
  return 0;
}

void Cmcd_VKT7::ReadValues(int kind, const char* name, time_t* ts, ParamValueList& out) {
  CVKT7Buffer answer = Read(0x3FFE, name, true);
  if (*ts == 0) *ts = mcd::Now();
  ParamValueList got;
  const bool changed = answer.empty() ? m_link->LastError() == 5 : parce45inWork(answer, got, kind, *ts) < 0;
  if (answer.empty() && !changed) throw CDisconnectException();
  if (changed) {
    LOG_WARNING("Cmcd_VKT7::get_all_curtime_cur_integ_values - activity mask is changed, need to reread");
    got.clear();
    SyncActiveParameters41(false);
    if (parce45inWork(Read(0x3FFE, name, false), got, kind, *ts) < 0) throw CDisconnectException();
  }
  out.splice(out.end(), got);
}

ParamValueList Cmcd_VKT7::get_all_curtime_cur_integ_values() {
  ParamValueList out;
  if (!IsReady()) return out;
  try {
    time_t ts = 0;
    SelectDataType(kCurrent, "get_all_curtime_cur_integ_values_1");
    ReadValues(kKindCurrent, "get_all_curtime_cur_integ_values_2", &ts, out);
    SelectDataType(kIntegral, "get_all_curtime_cur_integ_values_1");
    ReadValues(kKindIntegral, "get_all_curtime_cur_integ_values_2", &ts, out);
  } catch (const std::exception& e) {
    LOG_ERR("Cmcd_VKT7::get_all_curtime_cur_integ_values - exchange failed: %s", e.what());
    out.clear();
  }
  return out;
}

// ---------------------------------------------------------------- archives

bool Cmcd_VKT7::ReadRecord(time_t t, bool daily, int kind, const char* label, const char* name,
                           const char* rereadName, ParamValueList& out) {
  CVKT7Buffer answer = Read(0x3FFE, name, true);
  ParamValueList got;
  bool changed;
  if (answer.empty()) {
    if (m_link->LastError() == 3) {
      LOG_WARNING("Cmcd_VKT7::get_arch_values - No data in arch to %s", Asc(t).c_str());
      return false;
    }
    if (m_link->LastError() != 5) throw WalkEnd();
    changed = true;
  } else {
    changed = parce45inWork(answer, got, kind, t) < 0;
  }
  if (changed) {
    LOG_WARNING("Cmcd_VKT7::get_arch_values - activity mask is changed, need to reread");
    got.clear();
    SyncActiveParameters41(false);
    if (!SelectDate(t, daily, label)) return false;
    // A second change (error answer 5 or NS byte 5) ends the walk at this record.
    if (parce45inWork(Read(0x3FFE, rereadName, false), got, kind, t) < 0) {
      LOG_ERR("Cmcd_VKT7::get_arch_values - activity mask changed again at %s", Asc(t).c_str());
      throw WalkEnd();
    }
  }
  out.splice(out.end(), got);
  return true;
}

void Cmcd_VKT7::ReadMonthly(time_t t, ParamValueList& out) {
  LOG_INFO("Start read monthly values at %d", static_cast<int>(t));
  SelectDataType(kMonthly, "get_arch_monthly_values_1");
  SyncActiveParameters41(true);
  if (!SelectDate(t, true, "MONTHLY")) return;
  ReadRecord(t, true, kKindMonthly, "MONTHLY", "get_arch_monthly_values_2", "get_arch_monthly_values_2.1", out);
}

bool Cmcd_VKT7::IsReportingDay(time_t dayStart) const {
  if (m_reportDay == 31) return mcd::cal::LocalLabel(mcd::cal::NextDay(dayStart)).day == 1;
  return mcd::cal::LocalLabel(dayStart).day == m_reportDay;
}

int Cmcd_VKT7::get_arch_values(int type, time_t from, time_t to, ParamValueList& out) {
  if (type != ARCH_HOURLY && type != ARCH_DAILY) return 2;
  const bool daily = type == ARCH_DAILY;
  const char* label = daily ? "DAILY" : "HOURLY";
  if (!IsReady()) {
    LOG_WARNING("Cmcd_VKT7::get_arch_values - the meter's units and fraction digits are not known yet");
    return 0;
  }
  if (m_archBroken) {
    LOG_ERR("Cmcd_VKT7::get_arch_values - link failed earlier in this reading, %s records left for the next turn",
            label);
    return 0;
  }
  // Record times are the local hours and days that the meter keys its archive by:
  // the first of them at or after from.
  time_t t = daily ? mcd::cal::DayStart(from) : mcd::cal::HourStart(from);
  if (t < from) t = daily ? mcd::cal::NextDay(t) : mcd::cal::NextHour(t);
  try {
    SelectDataType(daily ? kDaily : kHourly, "get_arch_values_1");
    SyncActiveParameters41(false);
    for (; t <= to; t = daily ? mcd::cal::NextDay(t) : mcd::cal::NextHour(t)) {
      // A day's monthly record goes out with its daily record, never without it.
      ParamValueList record;
      if (daily && IsReportingDay(t)) {
        ReadMonthly(t, record);
        SelectDataType(kDaily, "get_arch_values_1");
        SyncActiveParameters41(false);
      }
      if (SelectDate(t, daily, label)) ReadRecord(t, daily, type, label, "get_arch_values_2", "get_arch_values_2.1", record);
      out.splice(out.end(), record);
    }
  } catch (const std::exception& e) {
    LOG_ERR("Cmcd_VKT7::get_arch_values - %s at %s; the next walk starts there", e.what(), Asc(t).c_str());
    m_archBroken = true;
    return 0;
  }
  return 1;
}
