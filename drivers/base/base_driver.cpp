#include "drivers/base/base_driver.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <mutex>

#include "app/clock.h"
#include "log/logger.h"
#include "server/paths.h"

namespace {

constexpr long kHour = 3600;
constexpr long kDay = 86400;
// One block of hourly records: 24 records, from its first hour to 23 hours later.
constexpr long kHourlyBlockSpan = 82800;
// Lag beyond which the archives filed so far count as behind the meter.
constexpr long kArchiveLagLimit = 7200;
// A period up to this long holds the first archive reads back by the same time.
constexpr int kFirstArchiveHoldBack = 600;
// VKT-7/VKT-9 hold-off after a connection start, unless archives are three days behind.
constexpr long kVktHoldOff = 5400;
constexpr long kVktBehindLimit = 259201;

// All drivers of the process share one serial line. The turn hands the line to one
// driver at a time; the lag test that each driver runs after giving its turn back also
// talks to its meter, so every use of the line is made under this lock as well, and a
// late lag test can never interleave its frames with the turn holder's.
std::mutex g_lineMutex;

// Holds the line lock. Waiting for it is a cancellation point, and a cancelled thread
// releases it on the way out.
class LineHold {
 public:
  LineHold() = default;
  LineHold(const LineHold&) = delete;
  LineHold& operator=(const LineHold&) = delete;
  ~LineHold() {
    if (m_held) g_lineMutex.unlock();
  }
  void lock() {
    while (!g_lineMutex.try_lock()) usleep(20000);
    m_held = true;
  }
  void unlock() {
    m_held = false;
    g_lineMutex.unlock();
  }

 private:
  bool m_held = false;
};

bool FileExists(const std::string& path) { return access(path.c_str(), F_OK) == 0; }

// Start of the last complete hour before meter time t.
time_t HourEnd(time_t t) { return t - (t % kHour) - kHour; }

// Local midnight of t's day, minus one day: the start of yesterday.
time_t DayEnd(time_t t) {
  struct tm parts;
  localtime_r(&t, &parts);
  parts.tm_sec = 0;
  parts.tm_min = 0;
  parts.tm_hour = 0;
  return mktime(&parts) - kDay;
}

}  // namespace

CMcdBaseDriver::CMcdBaseDriver() = default;

CMcdBaseDriver::~CMcdBaseDriver() {
  // Subclasses stop the thread first; this covers a subclass that forgot to.
  stop();
}

void CMcdBaseDriver::SetConfiguration(const ParamMap& config) {
  configuration = config;
  auto led = configuration.find("led_indication");
  led_indication = led == configuration.end() ? true : atoi(led->second.c_str()) != 0;
  auto alias = configuration.find("port_alias");
  reserved_port.store(alias != configuration.end() &&
                      (alias->second == "serial232.0" || alias->second == "serial232.D" ||
                       alias->second == "serial485.4"));
}

const DriverFamily& CMcdBaseDriver::Family() const {
  const DriverFamily* found = FindDriverFamily(Manufacturer());
  return found ? *found : UnknownDriverFamily();
}

bool CMcdBaseDriver::MayPoll() const {
  if (!reserved_port.load() && FileExists(mcd::paths::Tmp(mcd::kPauseFile))) return false;
  return !FileExists(mcd::paths::Tmp(mcd::kPauseAllFile));
}

void CMcdBaseDriver::Wait(int seconds, bool /*flag*/) {
  if (seconds <= 1) return;
  const time_t deadline = mcd::Now() + seconds;
  for (;;) {
    mcd::Sleep(2);
    if (mcd::Now() >= deadline) return;
    if (client && client->CheckForceUpdate()) return;
  }
}

bool CMcdBaseDriver::ArchivesLag() {
  Timestamps stamps;
  if (!GetTimestamps(stamps)) return false;
  const time_t hourEnd = HourEnd(stamps.meter_time);
  const time_t dayEnd = DayEnd(stamps.meter_time);
  const long lastHourly = client ? client->ReadMaxTimestamp(ARCH_HOURLY) : 0;
  const long lastDaily = client ? client->ReadMaxTimestamp(ARCH_DAILY) : 0;
  return hourEnd - lastHourly > kArchiveLagLimit || dayEnd - lastDaily > kArchiveLagLimit;
}

namespace {

// Drops the records at or before the filed bound: they are on file already. The bound
// read when the walk began may have read as 0 because the storage was away then.
void DropFiled(ParamValueList& out, long filed) {
  if (filed > 0) out.remove_if([filed](const ParamValue& v) { return v.timestamp <= filed; });
}

}  // namespace

time_t CMcdBaseDriver::ReadHourlyArch() {
  Timestamps stamps;
  if (!GetTimestamps(stamps)) return mcd::Now() + 10;
  const bool isVkt7 = Family().temporary_archive;
  const time_t meterTime = stamps.meter_time;
  const time_t next = mcd::Now() - (meterTime % kHour) + kHour + 60;
  const time_t end = HourEnd(meterTime);

  time_t from = end - Family().archive_depth;
  from = std::max<time_t>(from, stamps.first_hour_arch);
  const long lastHourly = client ? client->ReadMaxTimestamp(ARCH_HOURLY) : 0;
  from = std::max<time_t>(from, lastHourly + kHour);

  for (; from <= end; from += kDay) {
    const time_t to = std::min<time_t>(from + kHourlyBlockSpan, end);
    ParamValueList out;
    get_arch_values(ARCH_HOURLY, from, to, out);
    if (out.empty()) {
      LOG_WARNING("CMcdBaseDriver::ReadHourlyArch archieve hourly info is absent.");
    } else {
      LOG_INFO("CMcdBaseDriver::ReadHourlyArch readed all hourly values.");
      // Blocks filed after one that could not be would leave its records behind the
      // bound for good: stop, and ask again from the bound at the next cycle.
      if (client) DropFiled(out, client->ReadMaxTimestamp(ARCH_HOURLY));
      if (client && !out.empty() && !client->WriteArchive(out, ARCH_HOURLY, isVkt7)) return mcd::Now() + 10;
    }
  }
  return next;
}

time_t CMcdBaseDriver::ReadDailyArch() {
  Timestamps stamps;
  if (!GetTimestamps(stamps)) return mcd::Now() + 10;
  const bool isVkt7 = Family().temporary_archive;
  const time_t meterTime = stamps.meter_time;
  const time_t next = mcd::Now() - (meterTime % kHour) + kHour + 60;
  const time_t end = DayEnd(meterTime);

  time_t from = end - Family().archive_depth;
  from = std::max<time_t>(from, stamps.first_day_arch);
  const long lastDaily = client ? client->ReadMaxTimestamp(ARCH_DAILY) : 0;
  from = std::max<time_t>(from, lastDaily + kDay);

  if (from <= end) {
    ParamValueList out;
    get_arch_values(ARCH_DAILY, from, end, out);
    if (out.empty()) {
      LOG_WARNING("CMcdBaseDriver::ReadDailyArch archieve daily info is absent.");
    } else {
      LOG_INFO("CMcdBaseDriver::ReadDailyArch readed all daily values.");
      if (client) DropFiled(out, client->ReadMaxTimestamp(ARCH_DAILY));
      if (client && !out.empty() && !client->WriteArchive(out, ARCH_DAILY, isVkt7)) return mcd::Now() + 10;
    }
  }
  return next;
}

// Holds a VKT meter back until 90 minutes after the previous connection's start,
// unless its archives are three days behind.
void CMcdBaseDriver::WaitVkt(long started, const char* name) {
  if (!client) return;
  const time_t now = mcd::Now();
  if (now - client->ReadMaxTimestamp(ARCH_HOURLY) < kVktBehindLimit &&
      now - client->ReadMaxTimestamp(ARCH_DAILY) < kVktBehindLimit && started < now && now - started < kVktHoldOff) {
    const int seconds = static_cast<int>(started - now + kVktHoldOff);
    LOG_INFO("CMcdBaseDriver::%s sleeping %d seconds", name, seconds);
    Wait(seconds, false);
  }
}

void CMcdBaseDriver::WaitVKT7() {
  if (client) WaitVkt(client->ReadVKT7Timestamp(), "WaitVKT7");
}

void CMcdBaseDriver::WaitVKT9() {
  if (client) WaitVkt(client->ReadVKT9Timestamp(), "WaitVKT9");
}

void CMcdBaseDriver::functionThread() {
  // Cancellation destroys the line lock and the value lists of this frame.
  CancellationUnwindGuard unwindGuard;
  const bool isVkt7 = Family().hold_off == DriverFamily::kHoldOffVkt7;
  const bool isVkt9 = Family().hold_off == DriverFamily::kHoldOffVkt9;
  LOG_INFO("CMcdBaseDriver::functionThread begin execute thread.");

  if (isVkt7) WaitVKT7();

  auto found = configuration.find("period_current");
  const int period = atoi(found == configuration.end() ? "" : found->second.c_str());

  const time_t start = mcd::Now();
  time_t nextHourly = period <= kFirstArchiveHoldBack ? start + kFirstArchiveHoldBack : start;
  time_t nextDaily = nextHourly;

  while (!GetTurn()) mcd::Sleep(5);
  LineHold line;
  line.lock();

  client->SetConnectionState(false);
  LOG_DEBUG("CMcdBaseDriver::functionThread - the original state of the connection controller.");

  // The turn stays held while paused, so a pause at start-up stalls the supervision too.
  while (!MayPoll()) mcd::Sleep(1);

  init();
  ParamValueList system = get_all_system_values();
  if (system.empty()) {
    LOG_WARNING("CMcdBaseDriver::functionThread system info is absent.");
  } else {
    client->WriteItems(system);
  }

  client->SetConnectionState(true);
  if (isVkt7) client->WriteVKT7Timestamp();
  if (isVkt9) client->WriteVKT9Timestamp();
  LOG_DEBUG("CMcdBaseDriver::functionThread - connecting to controller registered.");

  line.unlock();

  for (;;) {
    while (!GetTurn()) mcd::Sleep(25);
    line.lock();

    // The pause files are looked at anew before each step, so a pause that starts in
    // the middle of a cycle skips only what remains of it.
    if (MayPoll()) {
      LOG_INFO("CMcdBaseDriver::functionThread begin all current values.");
      ParamValueList current = get_all_curtime_cur_integ_values();
      client->WriteItems(current);
      LOG_INFO("CMcdBaseDriver::functionThread end all current values.");
    }
    if (mcd::Now() >= nextHourly && MayPoll()) nextHourly = ReadHourlyArch();
    if (mcd::Now() >= nextDaily && MayPoll()) nextDaily = ReadDailyArch();

    archives_current.store(!ArchivesLag());
    line.unlock();
    ClearTurn();

    // Asked again after the turn is given back: outside the turn, but under the line lock.
    line.lock();
    const bool lag = ArchivesLag();
    line.unlock();
    Wait(period, lag);
  }
}
