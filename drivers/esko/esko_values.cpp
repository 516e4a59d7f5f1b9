#include "drivers/esko/esko_values.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <vector>

#include "drivers/base/base_driver.h"
#include "log/logger.h"

namespace mcd {
namespace esko {

namespace {

// Big-endian bytes into an unsigned integer of n bytes.
uint64_t BigEndian(const unsigned char* p, int n) {
  uint64_t value = 0;
  for (int i = 0; i < n; ++i) value = (value << 8) | p[i];
  return value;
}

std::string Printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Printf(const char* format, ...) {
  char text[128];
  va_list args;
  va_start(args, format);
  vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

double Pow10(int decimals) { return std::pow(10.0, decimals); }

std::string FixedText(double value, int decimals) {
  if (decimals < 0) decimals = 0;
  return Printf("%.*f", decimals, value);
}

}  // namespace

int BCDByte(unsigned char b) { return (b >> 4) * 10 + (b & 0x0F); }

unsigned char ToBCD(int value) {
  value %= 100;
  if (value < 0) value = 0;
  return static_cast<unsigned char>(((value / 10) << 4) | (value % 10));
}

namespace {
bool ValidBCD(unsigned char b) { return (b >> 4) <= 9 && (b & 0x0F) <= 9; }

int DaysInMonth(int year, int month) {
  static const int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
  return month == 2 && leap ? 29 : kDays[month - 1];
}
}  // namespace

bool DecodeMeterDate(const unsigned char* p, bool withSeconds, struct tm& out) {
  const int fields = withSeconds ? 6 : 5;
  for (int i = 0; i < fields; ++i)
    if (!ValidBCD(p[i])) return false;
  const int year = 2000 + BCDByte(p[0]), month = BCDByte(p[1]), day = BCDByte(p[2]);
  const int hour = BCDByte(p[3]), minute = BCDByte(p[4]), second = withSeconds ? BCDByte(p[5]) : 0;
  if (month < 1 || month > 12 || day < 1 || day > DaysInMonth(year, month)) return false;
  if (hour > 23 || minute > 59 || second > 59) return false;
  out = tm();
  out.tm_year = year - 1900;
  out.tm_mon = month - 1;
  out.tm_mday = day;
  out.tm_hour = hour;
  out.tm_min = minute;
  out.tm_sec = second;
  out.tm_isdst = -1;
  return true;
}

uint16_t ReadU16(const CMeterBuffer& cursor, const char* name) {
  cursor.Require(2, name);
  return static_cast<uint16_t>(BigEndian(cursor.position(), 2));
}

uint32_t ReadU32(const CMeterBuffer& cursor, const char* name) {
  cursor.Require(4, name);
  return static_cast<uint32_t>(BigEndian(cursor.position(), 4));
}

float ReadFloat(const CMeterBuffer& cursor, const char* name) {
  cursor.Require(4, name);
  const uint32_t bits = static_cast<uint32_t>(BigEndian(cursor.position(), 4));
  float value;
  std::memcpy(&value, &bits, sizeof value);
  return value;
}

uint64_t ReadBCD(const CMeterBuffer& cursor, int bytes, const char* name) {
  cursor.Require(bytes, name);
  uint64_t value = 0;
  const unsigned char* p = cursor.position();
  for (int i = 0; i < bytes; ++i) value = value * 100 + static_cast<uint64_t>(BCDByte(p[i]));
  return value;
}

std::string SignificantText(double value, int digits) { return Printf("%.*g", digits, value); }

std::string GetDoubleAsString(const CMeterBuffer& cursor) {
  cursor.Require(8, "GetDoubleAsString");
  const uint64_t bits = BigEndian(cursor.position(), 8);
  double value;
  std::memcpy(&value, &bits, sizeof value);
  return Printf("%.16f", value);
}

std::string GetFloatAsString(const CMeterBuffer& cursor) {
  return Printf("%.12f", static_cast<double>(ReadFloat(cursor, "GetFloatAsString")));
}

std::string GetLongAsString(const CMeterBuffer& cursor) {
  return Printf("%ld", static_cast<long>(static_cast<int32_t>(ReadU32(cursor, "GetLongAsString"))));
}

std::string GetULongAsString(const CMeterBuffer& cursor) {
  return Printf("%lu", static_cast<unsigned long>(ReadU32(cursor, "GetULongAsString")));
}

std::string GetByteAsString(const CMeterBuffer& cursor) {
  cursor.Require(1, "GetByteAsString");
  return Printf("%d", static_cast<int>(static_cast<int8_t>(cursor.position()[0])));
}

std::string GetUByteAsString(const CMeterBuffer& cursor) {
  cursor.Require(1, "GetUByteAsString");
  return Printf("%u", static_cast<unsigned>(cursor.position()[0]));
}

std::string GetShortAsString(const CMeterBuffer& cursor) {
  return Printf("%d", static_cast<int>(static_cast<int16_t>(ReadU16(cursor, "GetShortAsString"))));
}

std::string GetUShortAsString(const CMeterBuffer& cursor) {
  return Printf("%u", static_cast<unsigned>(ReadU16(cursor, "GetUShortAsString")));
}

std::string GetBCD8AsString(const CMeterBuffer& cursor, int decimals) {
  const uint64_t raw = ReadBCD(cursor, 4, "GetBCD8AsString");
  return SignificantText(static_cast<double>(raw) / Pow10(decimals), 12);
}

std::string GetBCD14AsString(const CMeterBuffer& cursor, int decimals) {
  const uint64_t raw = ReadBCD(cursor, 7, "GetBCD14AsString");
  return SignificantText(static_cast<double>(raw) / Pow10(decimals), 12);
}

std::string GetIntDivAsString(const CMeterBuffer& cursor, int decimals) {
  const int16_t raw = static_cast<int16_t>(ReadU16(cursor, "GetIntDivAsString"));
  return FixedText(raw / Pow10(decimals), decimals);
}

std::string GetCharDivAsString(const CMeterBuffer& cursor, int decimals) {
  cursor.Require(1, "GetCharDivAsString");
  return FixedText(cursor.position()[0] / Pow10(decimals), decimals);
}

// ---------------------------------------------------------------------------------
// Archive records and meter dates

int RecordBase(int eskoKind) {
  switch (eskoKind) {
    case 0: return 0x220;
    case 1: return 0x20;
    case 2: return 2;
    default: return 0;
  }
}

uint8_t CalcCSInverted(const unsigned char* bytes, int count) {
  uint8_t sum = 0;
  for (int i = 0; i < count; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
  return static_cast<uint8_t>(~sum);
}

bool DecodeMeterClock(const unsigned char* p, time_t& out) {
  struct tm parts;
  if (!DecodeMeterDate(p, true, parts)) return false;
  const time_t t = mktime(&parts);
  if (t == static_cast<time_t>(-1)) return false;
  out = t;
  return true;
}

cal::Label MeterLabel(const unsigned char* p) {
  cal::Label label;
  label.year = 2000 + BCDByte(p[0]);
  label.month = BCDByte(p[1]);
  label.day = BCDByte(p[2]);
  label.hour = BCDByte(p[3]);
  return label;
}

bool CheckArchDate(int eskoKind, const cal::Label& got, const cal::Label& want, const char* prefix,
                   const char* func) {
  const char* field = nullptr;
  int a = 0, b = 0;
  if (got.year != want.year) field = "Year", a = got.year, b = want.year;
  else if (got.month != want.month) field = "Month", a = got.month, b = want.month;
  else if (got.day != want.day) field = "Day", a = got.day, b = want.day;
  else if (eskoKind == 0 && got.hour != want.hour) field = "Hour", a = got.hour, b = want.hour;
  if (!field) return true;
  LOG_ERR("%s%s - Returned %s %d != requested %d! \r\n", prefix, func, field, a, b);
  return false;
}

const std::string& UnitText(int code) {
  static const std::vector<std::string> units = [] {
    std::vector<std::string> u(38, " ");
    const char* const named[] = {"°C",  "ч",   "мин", "с",       "кг",  "т",    "Гкал", "т3",
                                 "л",   "м3",  "м3ч", "т/ч",     "кг/ч", "МВт", "кВт",  "Aтм",
                                 "МПа", "кгс/см2", "ГДж", "МВтч", "кВтч", "%",  "мм",   "л/ч"};
    for (size_t i = 0; i < sizeof named / sizeof named[0]; ++i) u[i + 1] = named[i];
    return u;
  }();
  return code < 1 || code > 37 ? units[0] : units[static_cast<size_t>(code)];
}

std::string SchemeName(int circuitType, int mode) {
  const char* name = circuitType == 0 ? "Закрытый" : circuitType == 1 ? "Открытый" : "Расходомер";
  return std::string(name) + " (Режим " + std::to_string(mode) + ")";
}

namespace {

enum RawEncoding { kRawFloat = 0, kRawS16, kRawU16, kRawU8, kRawSkip };
enum { kER = 14 };  // parameter id of the error word
// Unit codes of the raw archive parameters.
enum { kUnitC = 1, kUnitMin = 3, kUnitTon = 6, kUnitGcal = 7, kUnitM3 = 10, kUnitAtm = 16 };

// One entry of the raw parameter table of an archive page.
struct RawParam {
  const char* name;  // raw parameter name as the meter's documentation calls it
  const char* kind;  // class of the value: "Value", "TimeOfWork", "Err_Type", ...
  int size;          // bytes on the page
  int sys;           // heat system 0..2
  int dim;           // unit code
  int decPos;        // decimal position (digits after the point)
  int jsonParm;      // parameter id of the dictionary, -1 when none
  int encoding;      // RawEncoding
};

// Per heat system 48 bytes, then the three error words.
std::vector<RawParam> BuildRawTable() {
  std::vector<RawParam> t;
  for (int s = 0; s < 3; ++s) {
    t.push_back({"Massa", "Value", 4, s, kUnitTon, 0, 22, kRawFloat});
    t.push_back({"Massa", "Value", 4, s, kUnitTon, 0, 23, kRawFloat});
    t.push_back({"Qo", "Value", 4, s, kUnitGcal, 0, 17, kRawFloat});
    t.push_back({"Vo", "Value", 4, s, kUnitM3, 0, 19, kRawFloat});
    t.push_back({"Vo", "Value", 4, s, kUnitM3, 0, 20, kRawFloat});
    t.push_back({"t", "Value", 2, s, kUnitC, 2, 6, kRawS16});
    t.push_back({"t", "Value", 2, s, kUnitC, 2, 7, kRawS16});
    t.push_back({"P", "Value", 1, s, kUnitAtm, 1, 9, kRawU8});
    t.push_back({"P", "Value", 1, s, kUnitAtm, 1, 10, kRawU8});
    t.push_back({"Tmin", "NotErr_Type", 2, s, kUnitMin, 0, 25, kRawU16});
    t.push_back({"Tmax", "NotErr_Type", 2, s, kUnitMin, 0, 26, kRawU16});
    t.push_back({"Tw", "TimeOfWork", 2, s, kUnitMin, 0, 18, kRawU16});
    t.push_back({"Terr_nw", "Err_Type", 2, s, kUnitMin, 0, 27, kRawU16});
    t.push_back({"Tp", "TimeOfPowerOn", 2, s, kUnitMin, 0, 28, kRawU16});
    t.push_back({"Terr_np", "Err_Type", 2, s, kUnitMin, 0, 29, kRawU16});
    t.push_back({"Tdt", "NotErr_Type", 2, s, kUnitMin, 0, -1, kRawU16});
    t.push_back({"Tf", "TimeOfFailure", 2, s, kUnitMin, 0, -1, kRawU16});
    t.push_back({"reserved", "Value", 6, s, 0, 0, -1, kRawSkip});
  }
  for (int s = 0; s < 3; ++s) t.push_back({"Err", "Err_Type", 2, s, 0, 0, kER, kRawU16});
  return t;
}

const std::vector<RawParam>& RawTable() {
  static const std::vector<RawParam> table = BuildRawTable();
  return table;
}

std::string RawText(const CMeterBuffer& c, const RawParam& e) {
  switch (e.encoding) {
    case kRawFloat: return GetFloatAsString(c);
    case kRawS16: return GetIntDivAsString(c, e.decPos);
    case kRawU8: return GetCharDivAsString(c, e.decPos);
    default: return e.decPos == 0 ? GetUShortAsString(c) : SignificantText(ReadU16(c) / Pow10(e.decPos), 12);
  }
}

const int kQuality = 192;

}  // namespace

int parse_inWork(const CMeterBuffer& page, int type, time_t stamp, const char* prefix, ParamValueList& out) {
  CMeterBuffer c = page;
  c += 5;  // the page date
  ParamValueList values;
  uint32_t errors[3] = {0, 0, 0};
  int i = 0;
  for (const RawParam& e : RawTable()) {
    LOG_DEBUG("raw param[%d] %d, size %d, sys %d, dim %d, dec_pos %d, jsonParm %d, jsonType %d\r", i, e.encoding,
              e.size, e.sys, e.dim, e.decPos, e.jsonParm, type);
    if (e.jsonParm < 0 || e.encoding == kRawSkip) {
      LOG_DEBUG("param - %d;%d : skip UNKNOWN_JSONRPC!\r\n", i, type);
    } else if (e.jsonParm == kER) {
      errors[e.sys] = ReadU16(c, "parse_inWork");
    } else {
      values.emplace_back(e.jsonParm, type, RawText(c, e), UnitText(e.dim), kQuality, 0, static_cast<uint8_t>(e.sys),
                          static_cast<int32_t>(stamp));
    }
    c += e.size;
    ++i;
  }
  LOG_DEBUG("%sparse_inWork: parsed %d values, store system errors  [ x%X, x%X, x%X ]\r", prefix,
            static_cast<int>(values.size()), errors[0], errors[1], errors[2]);
  const int parsed = static_cast<int>(values.size());
  for (auto& v : values) v.error = static_cast<uint8_t>(errors[v.sys % 3] & 0xFF);
  out.splice(out.end(), values);
  for (int s = 0; s < 3; ++s)
    out.emplace_back(kER, type, std::to_string(errors[s]), "", kQuality, static_cast<uint8_t>(errors[s] & 0xFF),
                     static_cast<uint8_t>(s), static_cast<int32_t>(stamp));
  return parsed;
}

bool ParseArchPage(const CMeterBuffer& reply, const PageAsk& ask, const char* prefix, ParamValueList& out) {
  if (reply.remaining() < 260) return false;
  const unsigned char* d = reply.position() + 4;
  LOG_DEBUG("arch page date raw [Y.M.D h:m]:  %02x.%02x.%02x %02x:%02x \r\n", d[0], d[1], d[2], d[3], d[4]);
  const cal::Label got = MeterLabel(d);
  LOG_DEBUG("arch page date - %02d.%02d.%04d %02d:%02d \r\n", got.day, got.month, got.year, got.hour, BCDByte(d[4]));
  if (!CheckArchDate(ask.eskoKind, got, ask.label, prefix, "FindArchDate")) return false;
  // The page carries a complemented sum of its bytes; meters in the field are known to
  // send pages whose sum does not match, so a mismatch is only logged.
  const uint8_t cs = CalcCSInverted(d, 255);
  if (cs != d[255]) LOG_DEBUG("%sReadArchData - WRONG ARCH PAGE CS: x%02x, got x%02x\r\n", prefix, cs, d[255]);
  LOG_DEBUG("%sReadArchData: parsing received pages\r", prefix);
  const cal::Label st = cal::LocalLabel(ask.stamp);
  LOG_DEBUG("%sReadArchData: arch time %lu  %02d-%02d-%04d %02d:00\r", prefix, static_cast<unsigned long>(ask.stamp),
            st.day, st.month, st.year, st.hour);
  CMeterBuffer page = reply;
  page += 4;
  ParamValueList values;
  parse_inWork(page, ask.type, ask.stamp, prefix, values);
  out.splice(out.end(), values);
  LOG_DEBUG("%sReadArchData finished.\r", prefix);
  return true;
}

}  // namespace esko
}  // namespace mcd
