// One value as a driver produces it, and the ordered list that driver operations return.
#pragma once

#include <cstdint>
#include <list>
#include <string>

struct ParamValue {
  int32_t paramId = 0;    // low half of the dictionary key
  int32_t kind = 0;       // high half: 0 current, 1 integral, 2/3 daily/hourly entry, 4/5 archives, 7 system, ...
  std::string value;      // already formatted as text
  std::string dim;        // unit text, may be empty
  int32_t quality = 0;    // published as "quality" / "opc_quality"
  uint8_t error = 0;      // meter error or status byte
  uint8_t sys = 0;        // 0-based heat system
  int32_t timestamp = 0;  // Unix time in seconds

  ParamValue() = default;
  ParamValue(int32_t paramId_, int32_t kind_, std::string value_, std::string dim_, int32_t quality_, uint8_t error_,
             uint8_t sys_, int32_t timestamp_)
      : paramId(paramId_),
        kind(kind_),
        value(std::move(value_)),
        dim(std::move(dim_)),
        quality(quality_),
        error(error_),
        sys(sys_),
        timestamp(timestamp_) {}
};

typedef std::list<ParamValue> ParamValueList;
