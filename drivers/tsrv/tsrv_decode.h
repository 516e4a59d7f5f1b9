// The TSRV-024M's totals and archive records as bytes, decoded without the link.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>

#include "server/param_value.h"

namespace mcd {
namespace tsrv {

// How the meter's 8-byte totals are laid out, once decided.
enum TotalsLayout { kTotalsUnknown, kTotalsIntFrac, kTotalsFloat };

// Decides the layout from one total's 8 bytes; kTotalsUnknown when neither fits.
TotalsLayout DecideTotals(const uint8_t* bytes);
// Renders an 8-byte total in the given layout; false (and why) when it does not fit.
bool TotalText(const uint8_t* bytes, TotalsLayout layout, std::string& text, std::string& why);
// Parses one 172-byte record of system `sys` into archive values of `kind` stamped `stamp`.
void ParseRecord(const uint8_t* record, bool littleEndian, int kind, int sys, time_t stamp, ParamValueList& out);

}  // namespace tsrv
}  // namespace mcd
