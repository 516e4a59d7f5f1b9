// Rendering of answer fields as the text under which values are filed.
// None of these advances the cursor; each fails through the cursor's family (debug
// line with its own name, then CDisconnectException) when fewer than n bytes remain.
#pragma once

#include <string>

#include "drivers/base/byte_buffer.h"

namespace mcd {

// n bytes (at most 4 are used) copied in host order into a zeroed 32-bit float,
// rendered with the default stream format (6 significant digits).
std::string GetFloatAsString(const CMeterBuffer& cursor, int n);

// n bytes (at most 4 are used) copied in host order into a zeroed signed 32-bit
// integer, rendered as integer / 10^digits with the default stream format.
std::string GetLongAsString(const CMeterBuffer& cursor, int n, int digits);

// The n bytes as text.
std::string MakeStringDiapason(const CMeterBuffer& cursor, int n);

// Default stream rendering of a double (what `std::ostream << value` prints).
std::string StreamText(double value);

}  // namespace mcd
