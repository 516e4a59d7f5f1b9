#include "app/clock.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>

namespace mcd {
namespace {

std::mutex g_stopMutex;
std::condition_variable g_stopCv;
std::atomic<bool> g_stop{false};

time_t SteadySeconds() {
  using namespace std::chrono;
  return static_cast<time_t>(duration_cast<seconds>(steady_clock::now().time_since_epoch()).count());
}

class SystemClock : public Clock {
 public:
  time_t Now() override { return time(nullptr); }
  time_t Monotonic() override { return SteadySeconds(); }
  void Sleep(unsigned seconds) override { InterruptibleSleep(seconds); }
};

// Fast-forward clock: sleeps are shortened by the scale and the skipped part is
// added to an offset that both clocks report on top of the real ones.
class ScaledClock : public Clock {
 public:
  explicit ScaledClock(double scale) : m_scale(scale) {}
  time_t Now() override { return time(nullptr) + Offset(); }
  time_t Monotonic() override { return SteadySeconds() + Offset(); }
  void Sleep(unsigned seconds) override {
    const double real = seconds / m_scale;
    const auto begin = std::chrono::steady_clock::now();
    InterruptibleSleep(real);
    const double slept = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    // The clock moves on by what was really slept, scaled: a sleep cut short by a
    // stop does not pretend the whole time went by.
    const double skipped = std::min(slept, real) * (m_scale - 1);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_offset += skipped;
  }

 private:
  time_t Offset() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return static_cast<time_t>(m_offset);
  }
  double m_scale;
  std::mutex m_mutex;
  double m_offset = 0;
};

Clock& DefaultClock() {
  static Clock* clock = []() -> Clock* {
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

void RequestStop() {
  {
    std::lock_guard<std::mutex> lock(g_stopMutex);
    g_stop.store(true);
  }
  g_stopCv.notify_all();
}

bool StopRequested() { return g_stop.load(); }

void ClearStopRequest() {
  std::lock_guard<std::mutex> lock(g_stopMutex);
  g_stop.store(false);
}

void InterruptibleSleep(double seconds) {
  if (seconds <= 0) return;
  const auto until = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
  std::unique_lock<std::mutex> lock(g_stopMutex);
  g_stopCv.wait_until(lock, until, [] { return g_stop.load(); });
}

}  // namespace mcd
