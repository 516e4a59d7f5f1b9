#include "server/param_names.h"

namespace {

struct Row {
  int32_t kind;
  int32_t paramId;
  const char* name;
};

// Every published name, grouped by kind. These names are fixed by the server side and
// are reproduced exactly, including the odd ones ("_A57", "tx").
const Row kRows[] = {
    // kind 0: current values
    {0, 0, "Q1"}, {0, 1, "Q2"}, {0, 2, "Q3"}, {0, 3, "M1"}, {0, 4, "M2"}, {0, 5, "M3"},
    {0, 6, "T1"}, {0, 7, "T2"}, {0, 8, "T3"}, {0, 9, "P1"}, {0, 10, "P2"}, {0, 11, "P3"},
    {0, 12, "dP"}, {0, 13, "Ta"}, {0, 14, "ER"}, {0, 15, "EG"}, {0, 55, "F1C"}, {0, 56, "F2C"},
    // kind 1: integral totals
    {1, 17, "IE1"}, {1, 18, "IT1"}, {1, 19, "IQ1"}, {1, 20, "IQ2"}, {1, 21, "IQ3"},
    {1, 22, "IM1"}, {1, 23, "IM2"}, {1, 24, "IM3"}, {1, 55, "F1I"}, {1, 56, "F2I"},
    // kind 2: daily archive entries (filed one day after their time)
    {2, 17, "A29"}, {2, 18, "A32"}, {2, 19, "A34"}, {2, 20, "A36"}, {2, 21, "A38"},
    {2, 22, "A40"}, {2, 23, "A42"}, {2, 24, "A44"}, {2, 25, "A65"}, {2, 26, "A66"},
    {2, 27, "A67"}, {2, 28, "A68"}, {2, 29, "A69"},
    // kind 3: hourly archive entries (filed one hour after their time)
    {3, 17, "A1"}, {3, 18, "A4"}, {3, 19, "A6"}, {3, 20, "A8"}, {3, 21, "A10"},
    {3, 22, "A12"}, {3, 23, "A14"}, {3, 24, "A16"}, {3, 25, "A60"}, {3, 26, "A61"},
    {3, 27, "A62"}, {3, 28, "A63"}, {3, 29, "A64"},
    // kind 4: hourly archive records
    {4, 6, "A20"}, {4, 7, "A21"}, {4, 8, "A22"}, {4, 9, "A17"}, {4, 10, "A18"},
    {4, 11, "A19"}, {4, 13, "A80"}, {4, 14, "A28"}, {4, 15, "_A57"}, {4, 16, "F57"},
    {4, 17, "A2"}, {4, 18, "A3"}, {4, 19, "A5"}, {4, 20, "A7"}, {4, 21, "A9"},
    {4, 22, "A11"}, {4, 23, "A13"}, {4, 24, "A15"}, {4, 25, "A23"}, {4, 26, "A24"},
    {4, 27, "A25"}, {4, 28, "A26"}, {4, 29, "A27"}, {4, 55, "F1H"}, {4, 56, "F2H"},
    // kind 5: daily archive records
    {5, 6, "A48"}, {5, 7, "A49"}, {5, 8, "A50"}, {5, 9, "A45"}, {5, 10, "A46"},
    {5, 11, "A47"}, {5, 13, "A81"}, {5, 14, "A56"}, {5, 17, "A30"}, {5, 18, "A31"},
    {5, 19, "A33"}, {5, 20, "A35"}, {5, 21, "A37"}, {5, 22, "A39"}, {5, 23, "A41"},
    {5, 24, "A43"}, {5, 25, "A51"}, {5, 26, "A52"}, {5, 27, "A53"}, {5, 28, "A54"},
    {5, 29, "A55"}, {5, 55, "F1D"}, {5, 56, "F2D"},
    // kind 7: system and identification data
    {7, 8, "tx"}, {7, 31, "MeterManufacturer"}, {7, 32, "MeterModel"}, {7, 33, "Firmware"},
    {7, 34, "SerialNumber"}, {7, 35, "PrDate"}, {7, 36, "PovDate"}, {7, 37, "NextPovDate"},
    {7, 38, "TSType"}, {7, 39, "S"}, {7, 40, "SA1"}, {7, 41, "SA2"}, {7, 42, "SA3"},
    {7, 43, "LastOff"}, {7, 44, "LastOn"}, {7, 45, "MDateTime"}, {7, 46, "Connected"},
    {7, 47, "SC"},
    // kind 8: further values of ids 17 to 24
    {8, 17, "A70"}, {8, 18, "A71"}, {8, 19, "A72"}, {8, 20, "A73"}, {8, 21, "A74"},
    {8, 22, "A75"}, {8, 23, "A76"}, {8, 24, "A77"},
    // kind 9: meter settings
    {9, 48, "DN1"}, {9, 49, "DN2"}, {9, 50, "DN3"}, {9, 51, "M1max"}, {9, 52, "M2max"},
    {9, 53, "M1min"}, {9, 54, "M2min"},
};

// Built on first use, so a reader in another translation unit's static initialisation
// never sees an unbuilt table.
const ParamNamesMap& Table() {
  static const ParamNamesMap table = [] {
    ParamNamesMap map;
    for (const Row& row : kRows) map.emplace(ParamKey(row.kind, row.paramId), row.name);
    return map;
  }();
  return table;
}

}  // namespace

const ParamNamesMap& ParamNames = Table();

const std::string* FindParamName(int32_t kind, int32_t paramId) {
  if (kind < 0 || kind > 0xFFFF || paramId < 0 || paramId > 0xFFFF) return nullptr;
  const ParamNamesMap& table = Table();
  auto it = table.find(ParamKey(kind, paramId));
  return it == table.end() ? nullptr : &it->second;
}
