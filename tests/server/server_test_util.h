// Helpers shared by the server-link tests.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <functional>
#include <string>

#include "app/clock.h"
#include "server/param_value.h"
#include "server/paths.h"
#include "support/test_support.h"

namespace servertest {

// A clock whose sleeps return at once; it counts them and may run a hook on each.
class InstantClock : public mcd::Clock {
 public:
  time_t Now() override { return m_now.load(); }
  void Sleep(unsigned seconds) override {
    m_now += seconds;
    m_sleeps++;
    m_slept += seconds;
    if (onSleep) onSleep();
  }
  int sleeps() const { return m_sleeps.load(); }
  unsigned slept() const { return m_slept.load(); }
  std::function<void()> onSleep;

 private:
  std::atomic<time_t> m_now{1500000000};
  std::atomic<int> m_sleeps{0};
  std::atomic<unsigned> m_slept{0};
};

// Points the server endpoint of this process at url.
inline void UseServer(const std::string& url) {
  setenv("MCD_SERVER_URL", url.c_str(), 1);
  mcd::paths::Reset();
}

inline ParamValue Value(int32_t paramId, int32_t kind, const std::string& value, int32_t timestamp,
                        uint8_t sys = 0, int32_t quality = 192, uint8_t error = 0, const std::string& dim = "") {
  return ParamValue(paramId, kind, value, dim, quality, error, sys, timestamp);
}

}  // namespace servertest
