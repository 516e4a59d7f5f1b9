#include "drivers/base/base_driver.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <tuple>
#include <cstdlib>
#include <mutex>

#include "app/clock.h"
#include "drivers/base/calendar.h"
#include "log/logger.h"
#include "server/paths.h"

namespace {

// Lag beyond which the archives filed so far count as behind the meter.
constexpr long kArchiveLagLimit = 7200;
// A period up to this long holds the first archive reads back by the same time.
constexpr int kFirstArchiveHoldBack = 600;
// VKT-7/VKT-9 hold-off after a connection start, unless archives are three days behind.
constexpr long kVktHoldOff = 5400;
constexpr long kVktBehindLimit = 259201;
// A meter clock further than this from the controller's does not date archives.
constexpr long kMeterClockLimit = 7 * 86400;
// The calendar clock moving this much differently from the monotonic one is a step.
constexpr long kClockStepLimit = 60;
// An archive reading that could not be done is tried again this much later (in
// practice at the next cycle).
constexpr long kRetrySeconds = 10;

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

// "2026-03-29 02:00" of a record time, for the log.
std::string LabelText(time_t t) {
  const mcd::cal::Label l = mcd::cal::LocalLabel(t);
  char text[32];
  snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:00", l.year, l.month, l.day, l.hour);
  return text;
}

// The first local hour start at or after t.
time_t HourAtOrAfter(time_t t) {
  const time_t start = mcd::cal::HourStart(t);
  return start == t ? t : mcd::cal::NextHour(t);
}

// The first local day start at or after t.
time_t DayAtOrAfter(time_t t) {
  const time_t start = mcd::cal::DayStart(t);
  return start == t ? t : mcd::cal::NextDay(t);
}

// While a stop or reload is pending, waits for the turn or the pause without spinning:
// the clock's sleeps return at once then. A cancellation point.
void IdleWhileInterrupted() { usleep(20000); }

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
  const time_t deadline = mcd::Monotonic() + seconds;
  while (!mcd::InterruptRequested()) {
    mcd::Sleep(2);
    if (mcd::InterruptRequested() || mcd::Monotonic() >= deadline) return;
    if (client && client->CheckForceUpdate()) return;
  }
}

bool CMcdBaseDriver::MeterClockUsable(time_t meterTime) {
  const time_t now = mcd::Now();
  const bool usable = meterTime > 0 && std::labs(static_cast<long>(meterTime - now)) <= kMeterClockLimit;
  if (static_cast<int>(usable) != meterClockState) {
    if (!usable)
      LOG_WARNING("CMcdBaseDriver::MeterClockUsable - meter clock %ld is over 7 days from %ld: archives not read.",
                  static_cast<long>(meterTime), static_cast<long>(now));
    else if (meterClockState == 0)
      LOG_INFO("CMcdBaseDriver::MeterClockUsable - the meter clock agrees with the controller clock again.");
    meterClockState = usable ? 1 : 0;
  }
  return usable;
}

bool CMcdBaseDriver::ClockStepped() {
  const time_t calendar = mcd::Now();
  const time_t monotonic = mcd::Monotonic();
  const bool seen = clockSeen;
  const long drift = static_cast<long>((calendar - lastCalendar) - (monotonic - lastMonotonic));
  clockSeen = true;
  lastCalendar = calendar;
  lastMonotonic = monotonic;
  if (!seen || std::labs(drift) <= kClockStepLimit) return false;
  LOG_WARNING("CMcdBaseDriver::ClockStepped - the controller clock was stepped by %ld seconds.", drift);
  return true;
}

bool CMcdBaseDriver::ArchivesLag() {
  Timestamps stamps;
  if (!GetTimestamps(stamps)) return false;
  // A meter clock that cannot date archives gives no lag: nothing can be read anyway.
  if (!MeterClockUsable(stamps.meter_time)) return false;
  const time_t hourEnd = mcd::cal::PrevHour(stamps.meter_time);
  const time_t dayEnd = mcd::cal::PrevDay(stamps.meter_time);
  const long lastHourly = client ? client->ReadMaxTimestamp(ARCH_HOURLY) : 0;
  const long lastDaily = client ? client->ReadMaxTimestamp(ARCH_DAILY) : 0;
  return hourEnd - lastHourly > kArchiveLagLimit || dayEnd - lastDaily > kArchiveLagLimit;
}

bool CMcdBaseDriver::FileBlock(int type, time_t from, time_t to, ParamValueList& out) {
  const bool hourly = type == ARCH_HOURLY;
  const char* where = hourly ? "CMcdBaseDriver::ReadHourlyArch" : "CMcdBaseDriver::ReadDailyArch";
  if (out.empty()) {
    LOG_WARNING(hourly ? "CMcdBaseDriver::ReadHourlyArch archieve hourly info is absent."
                       : "CMcdBaseDriver::ReadDailyArch archieve daily info is absent.");
    return true;
  }
  LOG_INFO(hourly ? "CMcdBaseDriver::ReadHourlyArch readed all hourly values."
                  : "CMcdBaseDriver::ReadDailyArch readed all daily values.");
  // Every record time a start of a local hour (day) inside the range, and the times of
  // each parameter strictly increasing: anything else would file lines out of order,
  // twice or mis-dated, so the block is not filed and the walk ends here.
  std::map<std::tuple<int32_t, int32_t, int32_t>, time_t> last;
  for (const ParamValue& pv : out) {
    const time_t t = pv.timestamp;
    const time_t start = hourly ? mcd::cal::HourStart(t) : mcd::cal::DayStart(t);
    auto& previous = last[std::make_tuple(pv.sys, pv.kind, pv.paramId)];
    if (t < from || t > to || start != t || (previous != 0 && t <= previous)) {
      LOG_ERR("%s - record %ld (id %d kind %d) out of order or off the %ss asked: block not filed.", where,
              static_cast<long>(t), pv.paramId, pv.kind, hourly ? "hour" : "day");
      return false;
    }
    previous = t;
  }
  if (!client) return true;
  // Records at or before the bound are on file already. The bound is read again here:
  // it may have read as 0 when the walk began because the storage was away then.
  const long filed = client->ReadMaxTimestamp(type);
  if (filed > 0) out.remove_if([filed](const ParamValue& v) { return v.timestamp <= filed; });
  return out.empty() || client->WriteArchive(out, type, Family().temporary_archive);
}

time_t CMcdBaseDriver::ReadHourlyArch() {
  Timestamps stamps;
  if (!GetTimestamps(stamps) || !MeterClockUsable(stamps.meter_time)) return mcd::Monotonic() + kRetrySeconds;
  const time_t meterTime = stamps.meter_time;
  // One minute past the meter's next full hour, on the monotonic clock.
  const time_t next = mcd::Monotonic() + (mcd::cal::NextHour(meterTime) - meterTime) + 60;
  const time_t end = mcd::cal::PrevHour(meterTime);  // the last complete hour

  time_t from = mcd::cal::HourStart(end - Family().archive_depth);
  if (stamps.first_hour_arch > from) from = HourAtOrAfter(stamps.first_hour_arch);
  const long filed = client ? client->ReadMaxTimestamp(ARCH_HOURLY) : 0;
  if (filed > 0) from = std::max<time_t>(from, mcd::cal::NextHour(filed));

  // One block per local day: from its first hour asked to its last hour (or end).
  while (from <= end) {
    if (mcd::InterruptRequested()) return mcd::Monotonic();  // at a block boundary
    const time_t dayAfter = mcd::cal::NextDay(from);
    const time_t to = std::min<time_t>(mcd::cal::PrevHour(dayAfter), end);
    ParamValueList out;
    const int whole = get_arch_values(ARCH_HOURLY, from, to, out);
    if (!FileBlock(ARCH_HOURLY, from, to, out)) return mcd::Monotonic() + kRetrySeconds;
    if (!whole) {
      LOG_WARNING("CMcdBaseDriver::ReadHourlyArch - walk stopped at a failure in the block from %s; next cycle goes on.",
                  LabelText(from).c_str());
      return mcd::Monotonic() + kRetrySeconds;
    }
    from = dayAfter;
  }
  return next;
}

time_t CMcdBaseDriver::ReadDailyArch() {
  Timestamps stamps;
  if (!GetTimestamps(stamps) || !MeterClockUsable(stamps.meter_time)) return mcd::Monotonic() + kRetrySeconds;
  const time_t meterTime = stamps.meter_time;
  // Daily archives are checked hourly as well.
  const time_t next = mcd::Monotonic() + (mcd::cal::NextHour(meterTime) - meterTime) + 60;
  const time_t end = mcd::cal::PrevDay(meterTime);  // the start of yesterday

  time_t from = mcd::cal::DayStart(end - Family().archive_depth);
  if (stamps.first_day_arch > from) from = DayAtOrAfter(stamps.first_day_arch);
  const long filed = client ? client->ReadMaxTimestamp(ARCH_DAILY) : 0;
  if (filed > 0) from = std::max<time_t>(from, mcd::cal::NextDay(filed));

  if (from <= end && !mcd::InterruptRequested()) {
    ParamValueList out;
    const int whole = get_arch_values(ARCH_DAILY, from, end, out);
    if (!FileBlock(ARCH_DAILY, from, end, out)) return mcd::Monotonic() + kRetrySeconds;
    if (!whole) {
      LOG_WARNING("CMcdBaseDriver::ReadDailyArch - walk stopped at a failure in the block from %s; next cycle goes on.",
                  LabelText(from).c_str());
      return mcd::Monotonic() + kRetrySeconds;
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

bool CMcdBaseDriver::CheckReady(bool retry) {
  bool ready = IsReady();
  if (!ready && retry) {
    init();
    ready = IsReady();
  }
  if (static_cast<int>(ready) != readyState) {
    if (!ready)
      LOG_WARNING("CMcdBaseDriver::functionThread - driver not ready (values cannot be rendered yet): nothing filed, "
                  "init again next turn.");
    else if (readyState == 0)
      LOG_INFO("CMcdBaseDriver::functionThread - the driver is ready: values are filed from now on.");
    readyState = ready ? 1 : 0;
  }
  return ready;
}

void CMcdBaseDriver::WaitForTurn(unsigned step) {
  // While a stop or reload is pending the turn is still waited for, without spinning.
  while (!GetTurn()) {
    if (mcd::InterruptRequested())
      IdleWhileInterrupted();
    else
      mcd::Sleep(step);
  }
}

bool CMcdBaseDriver::ReadSystemValues() {
  ParamValueList system = get_all_system_values();
  if (system.empty()) {
    LOG_WARNING("CMcdBaseDriver::functionThread system info is absent.");
    return false;
  }
  client->WriteItems(system);
  return true;
}

bool CMcdBaseDriver::Connect() {
  init();
  bool systemRead = false;
  bool answered = false;
  if (CheckReady(false)) {
    answered = ReadSystemValues();
    systemRead = true;
  }
  client->SetConnectionState(answered);
  if (Family().hold_off == DriverFamily::kHoldOffVkt7) client->WriteVKT7Timestamp();
  if (Family().hold_off == DriverFamily::kHoldOffVkt9) client->WriteVKT9Timestamp();
  LOG_DEBUG("CMcdBaseDriver::functionThread - connecting to controller registered.");
  return systemRead;
}

void CMcdBaseDriver::PollCycle(time_t& nextHourly, time_t& nextDaily, bool& systemRead) {
  if (ClockStepped()) {
    // The meter's clock dates the records; only when they fall due is recomputed.
    const time_t now = mcd::Monotonic();
    nextHourly = std::min(nextHourly, now);
    nextDaily = std::min(nextDaily, now);
  }
  // The pause files are looked at anew before each step, so a pause that starts in
  // the middle of a cycle skips only what remains of it.
  if (MayPoll()) {
    if (CheckReady(true)) {
      if (!systemRead) {
        ReadSystemValues();
        systemRead = true;
      }
      LOG_INFO("CMcdBaseDriver::functionThread begin all current values.");
      ParamValueList current = get_all_curtime_cur_integ_values();
      client->WriteItems(current);
      LOG_INFO("CMcdBaseDriver::functionThread end all current values.");
      client->SetConnectionState(!current.empty());
    } else {
      client->SetConnectionState(false);
    }
  }
  const bool ready = readyState == 1;
  if (ready && !mcd::InterruptRequested() && mcd::Monotonic() >= nextHourly && MayPoll())
    nextHourly = ReadHourlyArch();
  if (ready && !mcd::InterruptRequested() && mcd::Monotonic() >= nextDaily && MayPoll())
    nextDaily = ReadDailyArch();
  if (!mcd::InterruptRequested()) archives_current.store(!ArchivesLag());
}

void CMcdBaseDriver::functionThread() {
  // Cancellation destroys the line lock and the value lists of this frame.
  CancellationUnwindGuard unwindGuard;
  LOG_INFO("CMcdBaseDriver::functionThread begin execute thread.");
  if (Family().hold_off == DriverFamily::kHoldOffVkt7) WaitVKT7();

  auto found = configuration.find("period_current");
  const int period = atoi(found == configuration.end() ? "" : found->second.c_str());
  // Due times are on the monotonic clock: a stepped calendar clock neither stops nor
  // skips archive reading.
  const time_t start = mcd::Monotonic();
  time_t nextHourly = period <= kFirstArchiveHoldBack ? start + kFirstArchiveHoldBack : start;
  time_t nextDaily = nextHourly;

  LineHold line;
  bool stateRecorded = false;
  for (;;) {
    WaitForTurn(5);
    line.lock();
    if (!stateRecorded) {
      client->SetConnectionState(false);
      LOG_DEBUG("CMcdBaseDriver::functionThread - the original state of the connection controller.");
      stateRecorded = true;
    }
    // The turn stays held while paused, so a pause at start-up stalls the supervision
    // too; a stop or reload gives the turn back at once.
    while (!MayPoll() && !mcd::InterruptRequested()) mcd::Sleep(1);
    if (MayPoll()) break;
    line.unlock();
    ClearTurn();
  }
  bool systemRead = Connect();
  line.unlock();
  ClockStepped();  // the first look

  for (;;) {
    WaitForTurn(25);
    line.lock();
    PollCycle(nextHourly, nextDaily, systemRead);
    line.unlock();
    ClearTurn();
    // Asked again after the turn is given back: outside the turn, but under the line lock.
    bool lag = false;
    if (!mcd::InterruptRequested()) {
      line.lock();
      lag = ArchivesLag();
      line.unlock();
    }
    Wait(period, lag);
  }
}
