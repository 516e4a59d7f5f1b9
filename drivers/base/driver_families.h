// The meter families this daemon knows, by the configuration's "manufacturer" key, in
// the order driver selection looks them up, with what the polling loop and the
// configuration client need to know of each family.
#pragma once

#include <string>

class CMcdBaseDriver;

struct DriverFamily {
  enum HoldOff { kNoHoldOff, kHoldOffVkt7, kHoldOffVkt9 };

  const char* manufacturer;
  // Builds the family's driver, constructed but not configured or started; nullptr
  // when this version has no driver for the family (it gets the empty driver).
  CMcdBaseDriver* (*create)();
  // How far back (seconds) the archive walks start when nothing is on file yet.
  long archive_depth;
  // Which connection hold-off the loop applies before the first turn and after.
  HoldOff hold_off;
  // Passed as the archive writer's "temporary" flag.
  bool temporary_archive;
  // Polling period when the configuration names none.
  const char* default_period;
};

// The family of a manufacturer key, or nullptr for a key no row names.
const DriverFamily* FindDriverFamily(const std::string& manufacturer);
// Traits for a key no row names: the empty driver's.
const DriverFamily& UnknownDriverFamily();
