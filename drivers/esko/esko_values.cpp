#include "drivers/esko/esko_values.h"

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>

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

}  // namespace esko
}  // namespace mcd
