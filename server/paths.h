// Process-wide roots and names of the files the daemon reads and writes.
//
// Unset, the roots are the controller's own: "/tmp/", "/mnt/storage/", "/proc/leds/"
// and the configuration server at http://127.0.0.1:8082/. Tests and the demo may move
// them with the environment variables MCD_TMP_DIR, MCD_STORAGE_DIR, MCD_LEDS_DIR and
// MCD_SERVER_URL (a directory value gets a trailing slash if it lacks one).
#pragma once

#include <string>

namespace mcd {
namespace paths {

const std::string& TmpDir();      // "/tmp/"
const std::string& StorageDir();  // "/mnt/storage/"
const std::string& LedsDir();     // "/proc/leds/"
const std::string& ServerUrl();   // "http://127.0.0.1:8082/"

// TmpDir() + name, StorageDir() + name, LedsDir() + name.
std::string Tmp(const std::string& name);
std::string Storage(const std::string& name);
std::string Led(const std::string& name);

// Re-reads the environment. Tests only, while no other thread uses the paths.
void Reset();

}  // namespace paths

// File names under the roots.
extern const char* const kHourlyBoundFile;  // "timestamp_max_hourly"
extern const char* const kDailyBoundFile;   // "timestamp_max_daily"
extern const char* const kVKT7TimeFile;     // "timestamp_VKT7"
extern const char* const kVKT9TimeFile;     // "timestamp_VKT9"
extern const char* const kExtPauseFile;     // "extds_pause" under the volatile root
extern const char* const kPauseFile;        // "pause_qmd"
extern const char* const kPauseAllFile;     // "pause_qmd_all"
extern const char* const kForceUpdatePrefix;  // "qmd_force_update_"

}  // namespace mcd
