// A virtual clock and a scripted driver for the polling-loop tests.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <mutex>
#include <vector>

#include "app/clock.h"
#include "drivers/base/base_driver.h"

namespace mcdtest {

// Every Sleep moves the virtual time on at once; it is a cancellation point, and it
// yields the processor briefly so that a thread waiting for its turn does not spin.
class FakeClock : public mcd::Clock {
 public:
  explicit FakeClock(time_t start) : m_now(start) {}
  time_t Now() override { return m_now.load(); }
  void Sleep(unsigned seconds) override {
    pthread_testcancel();
    const time_t now = m_now.fetch_add(seconds) + seconds;
    m_sleeps.fetch_add(1);
    if (onSleep) onSleep(now);
    usleep(100);
    pthread_testcancel();
  }
  void Set(time_t t) { m_now.store(t); }
  long sleeps() const { return m_sleeps.load(); }

  // Called on the sleeping thread with the new time; set only while no loop thread runs.
  std::function<void(time_t)> onSleep;

 private:
  std::atomic<time_t> m_now;
  std::atomic<long> m_sleeps{0};
};

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
  std::atomic<int> failTimestamps{0};  // this many GetTimestamps calls fail first
  bool fillArchives = false;           // one record per archive call, stamped `to`
  bool systemValues = false;           // a serial number as system data
  std::function<void()> onSystem, onCurrent;
  std::function<void(const ArchCall&)> onArch;  // called before each archive answer

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
  ParamValueList get_all_system_values() override {
    systems.fetch_add(1);
    if (onSystem) onSystem();
    ParamValueList list;
    if (systemValues) list.emplace_back(34, 7, "SN-1001", "", 192, 0, 0, static_cast<int32_t>(stamps.meter_time));
    return list;
  }
  ParamValueList get_all_curtime_cur_integ_values() override {
    currents.fetch_add(1);
    if (onCurrent) onCurrent();
    ParamValueList list;
    list.emplace_back(6, 0, "55.5", "C", 192, 0, 0, static_cast<int32_t>(stamps.meter_time));
    return list;
  }
  int GetTimestamps(Timestamps& out) override {
    timestampCalls.fetch_add(1);
    if (failTimestamps.load() > 0) {
      failTimestamps.fetch_sub(1);
      return 0;
    }
    out = stamps;
    return 1;
  }
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override {
    {
      std::lock_guard<std::mutex> lock(m_mutex);
      m_calls.push_back({type, from, to});
    }
    if (onArch) onArch({type, from, to});
    // paramId 6 is A20 in the hourly and A48 in the daily archive.
    if (fillArchives) out.emplace_back(6, type, "1.5", "t", 192, 0, 0, static_cast<int32_t>(to));
    return fillArchives ? 0 : -1;
  }

 private:
  std::mutex m_mutex;
  std::vector<ArchCall> m_calls;
};

}  // namespace mcdtest
