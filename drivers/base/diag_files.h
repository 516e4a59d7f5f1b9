// Per-model diagnostic files under the storage root: frame dumps and error lines.
// Each file is removed once it has grown past kDiagFileLimit bytes; the next write
// starts a new one.
#pragma once

#include <cstddef>
#include <string>

namespace mcd {

constexpr long kDiagFileLimit = 5242880;

// Local time as the raw broken-down fields without padding or correction:
// years since 1900 "-" month from 0 "-" day " " hour ":" minute ":" second,
// so 5 March 2016 10:04:07 is "116-2-5 10:4:7".
std::string RawLocalTime(time_t t);

// Appends the label, a newline, every byte as "0x%02X " and "\n\n" to path in one
// write; then removes the file when it is larger than kDiagFileLimit.
void AppendFrameDump(const std::string& path, const std::string& label, const unsigned char* bytes, size_t count);

// Appends RawLocalTime(now) followed by text and a newline to path in one write (text
// normally begins with a blank); then removes the file when it is larger than kDiagFileLimit.
void AppendDebugLine(const std::string& path, const std::string& text);

// Removes path when it is larger than limit bytes. A missing file is no error.
void RemoveIfLarger(const std::string& path, long limit);

}  // namespace mcd
