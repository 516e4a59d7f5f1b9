#include "drivers/vkt7/vkt7_driver.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <exception>

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

// Element list of the properties: elements 44..56 (unit strings, 7 bytes) and 57..76
// (fraction digits, 1 byte), as 6-byte records: number, 0, 0, 0, length, 0.
// 33 records, 198 bytes, a 209-byte request.
Frame PropertiesListRequest() {
  Frame list;
  for (int e = 44; e <= 76; ++e) {
    const unsigned char record[6] = {static_cast<unsigned char>(e), 0, 0, 0, static_cast<unsigned char>(e <= 56 ? 7 : 1),
                                     0};
    list.insert(list.end(), record, record + 6);
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

// External elements (numbers from 45 on) that are published: pulse inputs 1 and 2.
struct ExternalElement {
  int element;
  int param;
};
const ExternalElement kExternal[] = {{45, 55}, {46, 56}};

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

time_t Cmcd_VKT7::MeterDate(int day, int month, int year, int hour, int minute, int second) {
  if (day == 0 && month == 0 && year == 0 && hour == 0) return 0;
  struct tm tmv;
  std::memset(&tmv, 0, sizeof tmv);
  tmv.tm_mday = day;
  tmv.tm_mon = month - 1;
  tmv.tm_year = year + 100;
  tmv.tm_hour = hour;
  tmv.tm_min = minute;
  tmv.tm_sec = second;
  tmv.tm_isdst = -1;
  return mktime(&tmv);
}

int Cmcd_VKT7::QualityOf(unsigned char state) {
  // State 0 is a normal measurement; other states flag an abnormal situation of the
  // channel, and the value is kept but marked uncertain.
  static const std::map<int, int> kStateQuality = {{0, kGoodQuality}};
  auto found = kStateQuality.find(state);
  return found == kStateQuality.end() ? kDefaultQuality : found->second;
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

bool Cmcd_VKT7::SelectDate(time_t t, const char* label) {
  struct tm tmv;
  localtime_r(&t, &tmv);
  const unsigned char data[4] = {static_cast<unsigned char>(tmv.tm_mday), static_cast<unsigned char>(tmv.tm_mon + 1),
                                 static_cast<unsigned char>(tmv.tm_year - 100), static_cast<unsigned char>(tmv.tm_hour)};
  Frame f = WriteRequest(0x3FFB, data, 4);
  Exchange(f, "SendDataForArch3", true);
  if ((m_link->Answer()[1] & 0x80) && m_link->LastError() == 3) {
    LOG_DEBUG("Cmcd_VKT7::SendDataForArch3 - No data in arch to %s", Asc(t).c_str());
    return false;
  }
  LOG_DEBUG("Cmcd_VKT7::SendDataForArch3 - Asking data %s - %s", Asc(t).c_str(), label);
  return true;
}

// ---------------------------------------------------------------- init

void Cmcd_VKT7::init() {
  try {
    Frame f = Init1Request();
    Exchange(f, "init_1", false);
    CVKT7Buffer answer = Read(0x3FFE, "init_2");
    m_baseType = answer[64];
    LOG_DEBUG("Cmcd_VKT7::init - base type %d", m_baseType);
    GetAllProperties2();
    SyncActiveParameters41(false);
  } catch (const std::exception& e) {
    LOG_ERR("Cmcd_VKT7::init - exchange failed: %s", e.what());
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
  const time_t now = time(nullptr);
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
  if (m_version < 0x27) return time(nullptr);
  return ParseCurrentTimestamp(Read(0x3FFB, "GetCurrentTimestamp"));
}

time_t Cmcd_VKT7::ParseCurrentTimestamp(CVKT7Buffer a) {
  a += 3;
  const int day = a[0], month = a[1], year = a[2], hour = a[3], minute = a[4], second = a[5];
  LOG_INFO("current time heat meter - %02d.%02d.%04d %02d:%02d:%02d", day, month, year + 2000, hour, minute, second);
  return MeterDate(day, month, year, hour, minute, second);
}

void Cmcd_VKT7::ParseTimestamps(CVKT7Buffer a, Timestamps& out) {
  a += 3;
  LOG_INFO("last hour arch - %02d.%02d.%04d %02d ", a[0], a[1], a[2] + 2000, a[3]);
  out.first_hour_arch = static_cast<int32_t>(MeterDate(a[0], a[1], a[2], a[3]));
  a += 4;
  LOG_INFO("Cur_date - %02d.%02d.%04d %02d ", a[0], a[1], a[2] + 2000, a[3]);
  a += 4;
  if (a.empty()) {
    out.first_day_arch = 0;
    return;
  }
  LOG_INFO("last day arch - %02d.%02d.%04d %02d", a[0], a[1], a[2] + 2000, a[3]);
  out.first_day_arch = static_cast<int32_t>(MeterDate(a[0], a[1], a[2], a[3]));
}

int Cmcd_VKT7::GetTimestamps(Timestamps& out) {
  try {
    Timestamps got;
    ParseTimestamps(Read(0x3FF6, "GetTimestamps"), got);
    got.meter_time = static_cast<int32_t>(GetCurrentTimestamp());
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
                            unsigned char state, unsigned char error, int sys, time_t ts, uint32_t* masks) {
  const uint8_t err = error == 0xFF ? 0 : error;
  out.emplace_back(param, kind, value, dim, QualityOf(state), err, static_cast<uint8_t>(sys),
                   static_cast<int32_t>(ts));
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
  LOG_DEBUG("param - %d;%d  val - %s VKT7OPCQuality - %d ERR - %d", param, kind, value.c_str(), state, err);
}

int Cmcd_VKT7::parce45inWorkEXTERNAL(const CVKT7Buffer& a, int element, int length, ParamValueList& out, int kind,
                                     time_t ts) {
  const unsigned char state = a[length];
  const unsigned char error = a[length + 1];
  if (error == 5) {
    LOG_WARNING("Cmcd_VKT7::parce45inWork - activity mask is changed, need to reread");
    return -1;
  }
  const ExternalElement* row = nullptr;
  for (const auto& e : kExternal)
    if (e.element == element) row = &e;
  if (row == nullptr) {
    LOG_DEBUG("Cmcd_VKT7::parce45inWorkEXTERNAL - WRONG INDEX - %d", element);
    return 0;
  }
  if (state == 4 || state == 12) return 0;
  const Element plain = {0, 0, row->param, 0};
  const std::string value = ParseToString(a, plain, length);
  const uint8_t err = error == 0xFF ? 0 : error;
  out.emplace_back(row->param, kind, value, "", QualityOf(state), err, 0, static_cast<int32_t>(ts));
  LOG_DEBUG("param - %d;%d  val - %s VKT7OPCQuality - %d ERR - %d", row->param, kind, value.c_str(), state, err);
  return 0;
}

int Cmcd_VKT7::parce45inWork(CVKT7Buffer a, ParamValueList& out, int kind, time_t ts) {
  a += 3;
  uint32_t masks[2] = {0, 0};
  for (const auto& entry : m_active) {
    const int element = entry.first;
    const int length = entry.second;
    if (element >= 45) {
      if (parce45inWorkEXTERNAL(a, element, length, out, kind, ts) < 0) return -1;
      a += length + 2;
      continue;
    }
    const unsigned char state = a[length];
    const unsigned char error = a[length + 1];
    if (error == 5) {
      LOG_WARNING("Cmcd_VKT7::parce45inWork - activity mask is changed, need to reread");
      return -1;
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
    if (state == 4 || state == 12 || element >= kElementCount) {
      if (element >= kElementCount) LOG_DEBUG("Cmcd_VKT7::parce45inWork - WRONG INDEX - %d", element);
      a += length + 2;
      continue;
    }
    const Element& row = m_table[element];
    const std::string text = ParseToString(value, row, length);
    auto unit = m_units.find(row.unitKey);
    AppendValue(out, row.param, kind, text, unit == m_units.end() ? std::string() : unit->second, state, error,
                row.sys, ts, masks);
    a += length + 2;
  }
  out.emplace_back(14, kind, std::to_string(masks[0]), "", kGoodQuality, 0, 0, static_cast<int32_t>(ts));
  out.emplace_back(14, kind, std::to_string(masks[1]), "", kGoodQuality, 0, 1, static_cast<int32_t>(ts));
  return 0;
}

void Cmcd_VKT7::ReadValues(int kind, const char* name, time_t* ts, ParamValueList& out) {
  CVKT7Buffer answer = Read(0x3FFE, name, true);
  if (ts && *ts == 0) *ts = time(nullptr);
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

void Cmcd_VKT7::ReadRecord(time_t t, int kind, const char* label, const char* name, const char* rereadName,
                           const char* warning, ParamValueList& out) {
  CVKT7Buffer answer = Read(0x3FFE, name, true);
  ParamValueList got;
  bool changed;
  if (answer.empty() && (m_link->Answer()[1] & 0x80) && m_link->LastError() == 5)
    changed = true;
  else
    changed = parce45inWork(answer, got, kind, t) < 0;
  if (changed) {
    LOG_WARNING("%s", warning);
    got.clear();
    SyncActiveParameters41(false);
    if (!SelectDate(t, label)) return;
    if (parce45inWork(Read(0x3FFE, rereadName, false), got, kind, t) < 0) {
      LOG_WARNING("Cmcd_VKT7::get_arch_values - activity mask changed again, record %ld skipped", static_cast<long>(t));
      return;
    }
  }
  out.splice(out.end(), got);
}

void Cmcd_VKT7::ReadMonthly(time_t t, ParamValueList& out) {
  LOG_INFO("Start read monthly values at %d", static_cast<int>(t));
  SelectDataType(kMonthly, "get_arch_monthly_values_1");
  SyncActiveParameters41(true);
  if (!SelectDate(t, "MONTHLY")) return;
  ReadRecord(t, kKindMonthly, "MONTHLY", "get_arch_monthly_values_2", "get_arch_monthly_values_2.1",
             "Cmcd_VKT7::get_arch_values - activity mask is changed, need to reread", out);
}

int Cmcd_VKT7::get_arch_values(int type, time_t from, time_t to, ParamValueList& out) {
  int step, dataType;
  const char* label;
  if (type == ARCH_HOURLY) {
    step = 3600;
    dataType = kHourly;
    label = "HOURLY";
  } else if (type == ARCH_DAILY) {
    step = 86400;
    dataType = kDaily;
    label = "DAILY";
  } else {
    return 2;
  }
  if (m_archBroken) {
    LOG_ERR("Cmcd_VKT7::get_arch_values - link failed earlier in this reading, %s records left for the next turn",
            label);
    return -1;
  }
  ParamValueList got;
  try {
    SelectDataType(dataType, "get_arch_values_1");
    SyncActiveParameters41(false);
    for (time_t t = from; t <= to; t += step) {
      if (type == ARCH_DAILY) {
        struct tm day;
        localtime_r(&t, &day);
        bool monthly;
        if (m_reportDay == 31) {
          const time_t next = t + 86400;
          struct tm following;
          localtime_r(&next, &following);
          monthly = following.tm_mday == 1;
        } else {
          monthly = day.tm_mday == m_reportDay;
        }
        if (monthly) {
          ReadMonthly(t, got);
          SelectDataType(dataType, "get_arch_values_1");
          SyncActiveParameters41(false);
        }
      }
      if (!SelectDate(t, label)) continue;
      ReadRecord(t, type, label, "get_arch_values_2", "get_arch_values_2.1",
                 "Cmcd_VKT7::get_arch_values - activity mask is changed, need to reread", got);
    }
  } catch (const std::exception& e) {
    LOG_ERR("Cmcd_VKT7::get_arch_values - exchange failed: %s", e.what());
    m_archBroken = true;
    return -1;
  }
  out.splice(out.end(), got);
  return 0;
}
