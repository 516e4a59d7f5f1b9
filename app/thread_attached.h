// Thread wrapper from which every driver and lamp thread derives.
#pragma once

#include <pthread.h>

#include <atomic>
#include <string>

// A thread stopped with pthread_cancel unwinds without returning through its frames, so
// AddressSanitizer keeps the guard zones of the frames that were cut off marked, and
// trips over them when later code on the unwinding path reuses that stack. Declared
// first in a thread function, this guard's destructor runs after the function's other
// objects and clears the unused part of the stack below it (in AddressSanitizer builds
// only; elsewhere it does nothing). The trampoline has one; a thread function whose own
// objects are destroyed by a cancellation declares another.
struct CancellationUnwindGuard {
  CancellationUnwindGuard() = default;
  CancellationUnwindGuard(const CancellationUnwindGuard&) = delete;
  CancellationUnwindGuard& operator=(const CancellationUnwindGuard&) = delete;
  ~CancellationUnwindGuard();
};

// Keeps the calling thread from being cancelled for its lifetime (code that is not
// safe to unwind: streams, library calls, a log file opened per line). Nests: the
// previous state is restored.
class NoCancel {
 public:
  NoCancel() { pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &m_old); }
  ~NoCancel() { pthread_setcancelstate(m_old, nullptr); }
  NoCancel(const NoCancel&) = delete;
  NoCancel& operator=(const NoCancel&) = delete;

 private:
  int m_old = PTHREAD_CANCEL_ENABLE;
};

class myThreadAttached {
 public:
  myThreadAttached();
  virtual ~myThreadAttached();
  myThreadAttached(const myThreadAttached&) = delete;
  myThreadAttached& operator=(const myThreadAttached&) = delete;

  // The thread body, provided by the subclass.
  virtual void functionThread() = 0;

  // Starts the thread under the given name; the argument is handed to the trampoline
  // (callers pass the object itself). A second start is refused with a log line.
  void start(void* argument, const std::string& name);
  // Cancels and joins a running thread. Idempotent. Subclasses whose functionThread
  // uses their own members call it first thing in their destructor, so the thread
  // never runs on a half-destroyed object.
  void stop();

  bool isRunning() const { return m_running.load(); }
  const std::string& threadName() const { return m_name; }
  int threadPid() const { return m_pid.load(); }

  // Stack of every worker thread: 64 KiB. The deepest, a driver thread at debug level
  // through a whole backfill, touched 12 KiB of its stack (thread control block and
  // thread-local storage included), a lamp thread 8 KiB; the size leaves five times
  // that and never goes below what the C library accepts (PTHREAD_STACK_MIN), below
  // which it would silently hand out its 8 MiB default. Sanitizer builds get 1 MiB:
  // their instrumentation widens every frame.
  static size_t StackSize();

 private:
  static void* trampoline(void* argument);

  pthread_t m_thread{};
  pthread_attr_t m_attr;
  std::atomic<bool> m_running{false};
  std::atomic<int> m_pid{0};
  std::string m_name;
};
