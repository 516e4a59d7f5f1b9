#include "drivers/base/value_text.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <cstdio>

namespace mcd {

std::string StreamText(double value) {
  // What a default-formatted stream writes (the conversion %g, precision 6, the "C"
  // locale: the daemon never changes either), without building a stream per value.
  char text[32];
  const int n = snprintf(text, sizeof text, "%g", value);
  return std::string(text, n > 0 ? static_cast<size_t>(n) : 0);
}

std::string GetFloatAsString(const CMeterBuffer& cursor, int n) {
  cursor.Require(n, "GetFloatAsString");
  float value = 0;
  std::memcpy(&value, cursor.position(), static_cast<size_t>(std::clamp(n, 0, 4)));
  return StreamText(value);
}

std::string GetLongAsString(const CMeterBuffer& cursor, int n, int digits) {
  cursor.Require(n, "GetLongAsString");
  int32_t value = 0;
  std::memcpy(&value, cursor.position(), static_cast<size_t>(std::clamp(n, 0, 4)));
  return StreamText(value / std::pow(10.0, digits));
}

std::string MakeStringDiapason(const CMeterBuffer& cursor, int n) {
  cursor.Require(n, "MakeStringDiapason");
  return std::string(reinterpret_cast<const char*>(cursor.position()), static_cast<size_t>(std::max(n, 0)));
}

}  // namespace mcd
