#include "app/thread_attached.h"

#include <limits.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>

#include "log/logger.h"

#if defined(__SANITIZE_ADDRESS__)
#define MCD_THREAD_ASAN 1
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define MCD_THREAD_ASAN 1
#endif
#endif
#ifdef MCD_THREAD_ASAN
#include <sanitizer/asan_interface.h>
#endif
#if defined(MCD_THREAD_ASAN) || defined(__SANITIZE_THREAD__)
#define MCD_THREAD_SANITIZED 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define MCD_THREAD_SANITIZED 1
#endif
#endif

namespace {

constexpr size_t kWorkerStack = 64 * 1024;
constexpr size_t kSanitizedStack = 1024 * 1024;

// The worker threads take turns on the one line and allocate little; one malloc arena
// for all of them saves the arena (and its resident pages) that glibc would otherwise
// create for each thread that allocates. Set before the first worker exists.
void OneMallocArena() {
  static std::once_flag once;
  std::call_once(once, [] { mallopt(M_ARENA_MAX, 1); });
}

}  // namespace

CancellationUnwindGuard::~CancellationUnwindGuard() {
#ifdef MCD_THREAD_ASAN
  pthread_attr_t attr;
  if (pthread_getattr_np(pthread_self(), &attr) != 0) return;
  void* low = nullptr;
  size_t size = 0;
  if (pthread_attr_getstack(&attr, &low, &size) == 0 && low) {
    char* here = static_cast<char*>(__builtin_frame_address(0));
    char* bottom = static_cast<char*>(low);
    if (here > bottom && here <= bottom + size) __asan_unpoison_memory_region(bottom, here - bottom);
  }
  pthread_attr_destroy(&attr);
#endif
}


size_t myThreadAttached::StackSize() {
#ifdef MCD_THREAD_SANITIZED
  const size_t wanted = kSanitizedStack;
#else
  const size_t wanted = kWorkerStack;
#endif
  return std::max(wanted, static_cast<size_t>(PTHREAD_STACK_MIN));
}

myThreadAttached::myThreadAttached() {
  pthread_attr_init(&m_attr);
  pthread_attr_setstacksize(&m_attr, StackSize());
}

myThreadAttached::~myThreadAttached() {
  stop();
  pthread_attr_destroy(&m_attr);
}

void myThreadAttached::start(void* argument, const std::string& name) {
  if (m_running.load()) {
    LOG_CRIT("\e[1;31m\t====> Attempting to restart thread \"%s\"!\n\e[0m", name.c_str());
    return;
  }
  m_name = name;
  OneMallocArena();
  // The flag is raised before the thread exists so that stop() from another thread
  // never misses it; it is lowered again if creation fails.
  m_running.store(true);
  // Worker threads inherit a mask that blocks the termination signals, so their handler
  // always runs on the main thread and never interrupts a worker in the middle of a log
  // line or an allocation.
  sigset_t blocked, previous;
  sigemptyset(&blocked);
  sigaddset(&blocked, SIGINT);
  sigaddset(&blocked, SIGQUIT);
  sigaddset(&blocked, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &blocked, &previous);
  int created = pthread_create(&m_thread, &m_attr, &myThreadAttached::trampoline, argument);
  pthread_sigmask(SIG_SETMASK, &previous, nullptr);
  if (created != 0) {
    m_running.store(false);
    LOG_CRIT("\e[1;31m\t====> Error while thread \"%s\" creation!\n\e[0m", name.c_str());
  }
}

void myThreadAttached::stop() {
  if (!m_running.exchange(false)) return;
  pthread_cancel(m_thread);
  pthread_join(m_thread, nullptr);
}

void* myThreadAttached::trampoline(void* argument) {
  CancellationUnwindGuard unwindGuard;
  auto* self = static_cast<myThreadAttached*>(argument);
  self->m_pid.store(getpid());
  LOG_CRIT("\e[1;35mA new thread \"%s\" has been STARTED with PID = %d.\n\e[0m", self->m_name.c_str(),
           self->m_pid.load());
  self->functionThread();
  LOG_CRIT("\e[1;35mThread \"%s\" (PID = %d) has been STOPED.\n\e[0m", self->m_name.c_str(), self->m_pid.load());
  return nullptr;
}
