// A scripted driver for the polling-loop tests.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "app/clock.h"
#include "drivers/base/base_driver.h"
#include "drivers/base/calendar.h"
#include "support/test_support.h"

namespace mcdtest {

struct ArchCall {
  int type;
  time_t from;
  time_t to;
};

// Answers from a script set before its thread starts and records what the loop asked.
class FakeDriver : public CMcdBaseDriver {
 public:
  ~FakeDriver() override { stop(); }

  using CMcdBaseDriver::ArchivesLag;
  using CMcdBaseDriver::MayPoll;
  using CMcdBaseDriver::ReadDailyArch;
  using CMcdBaseDriver::ReadHourlyArch;
  using CMcdBaseDriver::Wait;
  using CMcdBaseDriver::WaitVKT7;
  using CMcdBaseDriver::WaitVKT9;

  // --- script ---
  Timestamps stamps;
  std::function<time_t()> meterClock;  // the meter's time when set, else stamps.meter_time
  std::atomic<int> failTimestamps{0};  // this many GetTimestamps calls fail first
  bool fillArchives = false;           // one record per archive call, stamped `to`
  bool systemValues = false;           // a serial number as system data
  std::atomic<bool> silent{false};     // current values come back empty
  std::atomic<int> readyAfterInits{0};  // not ready until init() ran this often
  // A meter with an archive: when set, an archive call walks the local hours (days)
  // from..to; a record the meter holds gives one value (id 6), one it does not hold is
  // skipped as the meter's explicit "no record" answer, and a record in failAt ends the
  // call with 0 (once) as a link failure would.
  std::function<bool(int type, time_t t)> holds;
  std::set<std::pair<int, time_t>> failAt;
  // Replaces the answer of an archive call when set.
  std::function<int(const ArchCall&, ParamValueList&)> answer;
  std::function<void()> onSystem, onCurrent;
  std::function<void(const ArchCall&)> onArch;  // called before each archive answer

  // The value text the meter gives for a record.
  static std::string ValueOf(int type, time_t t) { return std::to_string(type) + "." + std::to_string(t / 60); }

  // --- record ---
  std::atomic<int> inits{0}, currents{0}, systems{0}, timestampCalls{0};
  std::vector<ArchCall> Calls() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
  }
  std::vector<ArchCall> Calls(int type) {
    std::vector<ArchCall> out;
    for (const auto& call : Calls())
      if (call.type == type) out.push_back(call);
    return out;
  }

  void SaveConnector(CConnector*) override {}
  void init() override { inits.fetch_add(1); }
  bool IsReady() const override { return inits.load() >= readyAfterInits.load(); }
  ParamValueList get_all_system_values() override {
    systems.fetch_add(1);
    if (onSystem) onSystem();
    ParamValueList list;
    if (systemValues) list.emplace_back(34, 7, "SN-1001", "", 192, 0, 0, static_cast<int32_t>(MeterTime()));
    return list;
  }
  ParamValueList get_all_curtime_cur_integ_values() override {
    currents.fetch_add(1);
    if (onCurrent) onCurrent();
    ParamValueList list;
    if (!silent.load()) list.emplace_back(6, 0, "55.5", "C", 192, 0, 0, static_cast<int32_t>(MeterTime()));
    return list;
  }
  int GetTimestamps(Timestamps& out) override {
    timestampCalls.fetch_add(1);
    if (failTimestamps.load() > 0) {
      failTimestamps.fetch_sub(1);
      return 0;
    }
    out = stamps;
    out.meter_time = static_cast<int32_t>(MeterTime());
    return 1;
  }
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_calls.push_back({type, from, to});
    }
    if (onArch) onArch({type, from, to});
    if (answer) return answer({type, from, to}, out);
    if (holds) {
      for (time_t t = from; t <= to; t = type == ARCH_HOURLY ? mcd::cal::NextHour(t) : mcd::cal::NextDay(t)) {
        if (failAt.erase({type, t})) return 0;
        if (holds(type, t)) out.emplace_back(6, type, ValueOf(type, t), "", 192, 0, 0, static_cast<int32_t>(t));
      }
      return 1;
    }
    // paramId 6 is A20 in the hourly and A48 in the daily archive.
    if (fillArchives) out.emplace_back(6, type, "1.5", "t", 192, 0, 0, static_cast<int32_t>(to));
    return 1;
  }

 private:
  time_t MeterTime() { return meterClock ? meterClock() : stamps.meter_time; }

  std::mutex m_mutex;
  std::vector<ArchCall> m_calls;
};

}  // namespace mcdtest
