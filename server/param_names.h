// The dictionary of published names: (kind, parameter id) -> name.
// A value whose pair is missing is neither filed nor published.
#pragma once

#include <cstdint>
#include <map>
#include <string>

typedef std::map<uint32_t, std::string> ParamNamesMap;

// The process-wide table, built during static initialisation and only read afterwards.
extern const ParamNamesMap& ParamNames;

inline uint32_t ParamKey(int32_t kind, int32_t paramId) {
  return (static_cast<uint32_t>(kind) << 16) | static_cast<uint32_t>(paramId);
}

// The published name of (kind, paramId), or null when the pair is not in the table.
const std::string* FindParamName(int32_t kind, int32_t paramId);
