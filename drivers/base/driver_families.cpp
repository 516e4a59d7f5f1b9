#include "drivers/base/driver_families.h"

#include <iterator>

#include "drivers/esko/esko_driver.h"
#include "drivers/magika/magika_driver.h"
#include "drivers/tsrv/tsrv_driver.h"
#include "drivers/vkt7/vkt7_driver.h"

namespace {

constexpr long kDepth90Days = 7776000;
constexpr long kDepth60Days = 5184000;

template <class Driver>
CMcdBaseDriver* Make() {
  return new Driver();
}

// One row per family. A row with no create function names a model this version does
// not read.
const DriverFamily kFamilies[] = {
    {"vkt-7", &Make<Cmcd_VKT7>, kDepth90Days, DriverFamily::kHoldOffVkt7, true, "5400"},
    {"vkt-9", nullptr, kDepth90Days, DriverFamily::kHoldOffVkt9, false, "5400"},
    {"esko-mtr-06", &Make<Cmcd_MTR06>, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"esko-tm3", &Make<Cmcd_TM3E>, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"tem-104", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"tsm-104", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"tem-106", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"km5-6i", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"magika-axxx", &Make<CmcdMAGIKAAXXX>, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"tsrv-024m", &Make<CmcdTSRV>, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"mkts", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"elteko-ts555", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"teleross-tm", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"},
    {"omega-tr", nullptr, kDepth60Days, DriverFamily::kNoHoldOff, false, "20"},
};

const DriverFamily kUnknown = {"", nullptr, kDepth90Days, DriverFamily::kNoHoldOff, false, "20"};

}  // namespace

const DriverFamily* FindDriverFamily(const std::string& manufacturer) {
  for (const DriverFamily& family : kFamilies)
    if (manufacturer == family.manufacturer) return &family;
  return nullptr;
}

const DriverFamily& UnknownDriverFamily() { return kUnknown; }
