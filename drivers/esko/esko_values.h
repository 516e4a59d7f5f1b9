// Rendering of ESKO answer fields as text. ESKO meters send every multi-byte value
// most significant byte first. None of these advances the cursor; each fails through
// the cursor's family, with its own name as the debug-file name, when fewer bytes
// remain than the field needs.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "drivers/base/byte_buffer.h"
#include "drivers/base/calendar.h"
#include "server/param_value.h"

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

// --- Archive records and meter dates ---

// The record index base of an archive kind (0 hourly 0x220, 1 daily 0x20, 2 gives 2,
// any other 0): a record's index is its number plus the base, its byte address the
// index times 32.
int RecordBase(int eskoKind);
// Complemented 8-bit sum of count bytes: the check byte of an archive page.
uint8_t CalcCSInverted(const unsigned char* bytes, int count);
// The meter clock of a 'T' 'G' answer (bytes 5..10: BCD year less 2000, month, day,
// hour, minute, second) as local time; false for an impossible date.
bool DecodeMeterClock(const unsigned char* p, time_t& out);
// A date as the meter writes it: BCD year less 2000, month, day, hour.
cal::Label MeterLabel(const unsigned char* p);
// Whether the date the meter gave (`got`) is the `want`ed one; the hour counts for
// hourly records (kind 0) only. A mismatch is logged as
// "<prefix><func> - Returned Hour 10 != requested 11! ".
bool CheckArchDate(int eskoKind, const cal::Label& got, const cal::Label& want, const char* prefix,
                   const char* func);
// Unit text of a raw unit code (1..37); a blank for codes without a unit.
const std::string& UnitText(int code);
// The scheme name published for a circuit type and mode: "Закрытый (Режим 1)".
std::string SchemeName(int circuitType, int mode);

// What an archive page is expected to be: the ESKO kind (0 hourly, 1 daily), the
// archive type of the values (4 hourly, 5 daily), the date asked for and the record
// time the values are stamped with (the start of the interval the record closes).
struct PageAsk {
  int eskoKind;
  int type;
  cal::Label label;
  time_t stamp;
};

// Checks the page of a long 'A' answer (reply bytes 0..259, the page date at bytes
// 4..8) against the asked date and appends its values to out. The page's own check
// byte is logged when wrong but never enforced. False (and nothing appended) for a
// short answer or another date. `prefix` opens the log lines ("Cmcd_MTR06::").
bool ParseArchPage(const CMeterBuffer& reply, const PageAsk& ask, const char* prefix, ParamValueList& out);
// Walks the raw parameter table over a page (cursor on the page date, data from 5
// bytes on): per heat system the named values, each carrying the low byte of its
// system's error word, then the three error words. Returns the count of named values.
int parse_inWork(const CMeterBuffer& page, int type, time_t stamp, const char* prefix, ParamValueList& out);

}  // namespace esko
}  // namespace mcd
