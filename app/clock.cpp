#include "app/clock.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>

namespace mcd {
namespace {

std::mutex g_stopMutex;
std::condition_variable g_stopCv;
std::atomic<bool> g_stop{false};
std::atomic<bool> g_reload{false};

bool Interrupted() { return g_stop.load() || g_reload.load(); }

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

// A test's stepped controller clock: the calendar clock of another clock plus the
// seconds written in a file.
class SteppedClock : public Clock {
 public:
  SteppedClock(Clock* base, std::string path) : m_base(base), m_path(std::move(path)) {}
  time_t Now() override { return m_base->Now() + ReadOffset(); }
  time_t Monotonic() override { return m_base->Monotonic(); }
  void Sleep(unsigned seconds) override { m_base->Sleep(seconds); }

 private:
  long ReadOffset() const {
    FILE* file = fopen(m_path.c_str(), "r");
    if (!file) return 0;
    long offset = 0;
    if (fscanf(file, "%ld", &offset) != 1) offset = 0;
    fclose(file);
    return offset;
  }
  Clock* m_base;
  std::string m_path;
};

Clock& DefaultClock() {
  static Clock* clock = []() -> Clock* {
    const char* scale = getenv("MCD_TIME_SCALE");
    double value = scale ? atof(scale) : 0;
    Clock* base = value > 1 ? static_cast<Clock*>(new ScaledClock(value)) : new SystemClock();
    const char* offsetFile = getenv("MCD_CLOCK_OFFSET_FILE");
    if (offsetFile && *offsetFile) return new SteppedClock(base, offsetFile);
    return base;
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

void RequestReload() {
  {
    std::lock_guard<std::mutex> lock(g_stopMutex);
    g_reload.store(true);
  }
  g_stopCv.notify_all();
}

bool ReloadRequested() { return g_reload.load(); }

void ClearReloadRequest() {
  std::lock_guard<std::mutex> lock(g_stopMutex);
  g_reload.store(false);
}

void InterruptibleSleep(double seconds) {
  // A sleep is a cancellation point even when a pending stop makes it return at once:
  // a thread that loops on sleeps after a stop is still cancelled by its owner's stop().
  pthread_testcancel();
  if (seconds <= 0) return;
  const auto until = std::chrono::steady_clock::now() +
                     std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
  std::unique_lock<std::mutex> lock(g_stopMutex);
  g_stopCv.wait_until(lock, until, [] { return Interrupted(); });
}

void PauseMilliseconds(unsigned milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

}  // namespace mcd
