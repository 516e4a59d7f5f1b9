#include "app/clock.h"

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace mcd {
namespace {

class SystemClock : public Clock {
 public:
  time_t Now() override { return time(nullptr); }
  void Sleep(unsigned seconds) override { sleep(seconds); }
};

// Fast-forward clock: sleeps are shortened by the scale and the skipped part is
// added to an offset that Now() reports on top of the real time.
class ScaledClock : public Clock {
 public:
  explicit ScaledClock(double scale) : m_scale(scale) {}
  time_t Now() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    return time(nullptr) + static_cast<time_t>(m_offset);
  }
  void Sleep(unsigned seconds) override {
    double real = seconds / m_scale;
    usleep(static_cast<useconds_t>(real * 1e6));
    std::lock_guard<std::mutex> lock(m_mutex);
    m_offset += seconds - real;
  }

 private:
  double m_scale;
  std::mutex m_mutex;
  double m_offset = 0;
};

Clock& DefaultClock() {
  static Clock* clock = [] () -> Clock* {
    const char* scale = getenv("MCD_TIME_SCALE");
    double value = scale ? atof(scale) : 0;
    if (value > 1) return new ScaledClock(value);
    return new SystemClock();
  }();
  return *clock;
}

std::atomic<Clock*> g_clock{nullptr};

}  // namespace

Clock& GetClock() {
  Clock* clock = g_clock.load(std::memory_order_acquire);
  return clock ? *clock : DefaultClock();
}

void SetClock(Clock* clock) { g_clock.store(clock, std::memory_order_release); }

}  // namespace mcd
