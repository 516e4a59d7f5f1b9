#include "server/paths.h"

#include <cstdlib>
#include <mutex>

namespace mcd {

const char* const kHourlyBoundFile = "timestamp_max_hourly";
const char* const kDailyBoundFile = "timestamp_max_daily";
const char* const kVKT7TimeFile = "timestamp_VKT7";
const char* const kVKT9TimeFile = "timestamp_VKT9";
const char* const kExtPauseFile = "extds_pause";
const char* const kPauseFile = "pause_qmd";
const char* const kPauseAllFile = "pause_qmd_all";
const char* const kForceUpdatePrefix = "qmd_force_update_";

namespace paths {
namespace {

struct Roots {
  std::string tmp, storage, leds, server;
};

std::string Dir(const char* variable, const char* fallback) {
  const char* value = getenv(variable);
  if (!value || !*value) return fallback;
  std::string dir(value);
  if (dir.back() != '/') dir += '/';
  return dir;
}

Roots Load() {
  Roots roots;
  roots.tmp = Dir("MCD_TMP_DIR", "/tmp/");
  roots.storage = Dir("MCD_STORAGE_DIR", "/mnt/storage/");
  roots.leds = Dir("MCD_LEDS_DIR", "/proc/leds/");
  const char* url = getenv("MCD_SERVER_URL");
  roots.server = (url && *url) ? url : "http://127.0.0.1:8082/";
  return roots;
}

Roots& Get() {
  static Roots roots = Load();
  return roots;
}

}  // namespace

const std::string& TmpDir() { return Get().tmp; }
const std::string& StorageDir() { return Get().storage; }
const std::string& LedsDir() { return Get().leds; }
const std::string& ServerUrl() { return Get().server; }

std::string Tmp(const std::string& name) { return TmpDir() + name; }
std::string Storage(const std::string& name) { return StorageDir() + name; }
std::string Led(const std::string& name) { return LedsDir() + name; }

void Reset() { Get() = Load(); }

}  // namespace paths
}  // namespace mcd
