// Rendering of ESKO answer fields as text. ESKO meters send every multi-byte value
// most significant byte first. None of these advances the cursor; each fails through
// the cursor's family, with its own name as the debug-file name, when fewer bytes
// remain than the field needs.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "drivers/base/byte_buffer.h"

namespace mcd {
namespace esko {

// Raw field readers (most significant byte first); `name` names the failure.
uint16_t ReadU16(const CMeterBuffer& cursor, const char* name = "ReadU16");
uint32_t ReadU32(const CMeterBuffer& cursor, const char* name = "ReadU32");
float ReadFloat(const CMeterBuffer& cursor, const char* name = "ReadFloat");
// The decimal number held in `bytes` BCD bytes (two digits each, tens in the high
// nibble, most significant byte first).
uint64_t ReadBCD(const CMeterBuffer& cursor, int bytes, const char* name = "ReadBCD");
// One BCD byte as a number 0..99.
int BCDByte(unsigned char b);
unsigned char ToBCD(int value);

// A meter date of BCD bytes year less 2000, month, day, hour, minute and (withSeconds)
// second into out (local time, tm_isdst -1); false when a digit or a field is out of
// range, e.g. month 0 or day 31 of April.
bool DecodeMeterDate(const unsigned char* p, bool withSeconds, struct tm& out);

// Text of a number with the given count of significant digits ("%.*g").
std::string SignificantText(double value, int digits);

std::string GetDoubleAsString(const CMeterBuffer& cursor);  // 8-byte IEEE double, "%.16f"
std::string GetFloatAsString(const CMeterBuffer& cursor);   // 4-byte IEEE float, "%.12f"
std::string GetLongAsString(const CMeterBuffer& cursor);    // signed 32-bit
std::string GetULongAsString(const CMeterBuffer& cursor);   // unsigned 32-bit
std::string GetByteAsString(const CMeterBuffer& cursor);    // signed 8-bit
std::string GetUByteAsString(const CMeterBuffer& cursor);   // unsigned 8-bit
std::string GetShortAsString(const CMeterBuffer& cursor);   // signed 16-bit
std::string GetUShortAsString(const CMeterBuffer& cursor);  // unsigned 16-bit
// 8 BCD digits (4 bytes) / 10^decimals, 12 significant digits.
std::string GetBCD8AsString(const CMeterBuffer& cursor, int decimals);
// 14 BCD digits (7 bytes) / 10^decimals, 12 significant digits.
std::string GetBCD14AsString(const CMeterBuffer& cursor, int decimals);
// Signed 16-bit / 10^decimals, written with exactly `decimals` fraction digits.
std::string GetIntDivAsString(const CMeterBuffer& cursor, int decimals);
// Unsigned 8-bit / 10^decimals, written with exactly `decimals` fraction digits.
std::string GetCharDivAsString(const CMeterBuffer& cursor, int decimals);

}  // namespace esko
}  // namespace mcd
