// Helpers shared by the server-link tests.
#pragma once

#include <stdlib.h>
#include "server/param_value.h"
#include "server/paths.h"
#include "support/test_support.h"

namespace servertest {

// Points the server endpoint of this process at url; "" restores the default.
inline void UseServer(const std::string& url) {
  url.empty() ? unsetenv("MCD_SERVER_URL") : setenv("MCD_SERVER_URL", url.c_str(), 1);
  mcd::paths::Reset();
}

inline ParamValue Value(int32_t paramId, int32_t kind, const std::string& value, int32_t timestamp, uint8_t sys = 0,
                        int32_t quality = 192, uint8_t error = 0, const std::string& dim = "") {
  return ParamValue(paramId, kind, value, dim, quality, error, sys, timestamp);
}

}  // namespace servertest
