// Process signals: termination and reload requests taken by one thread, and the crash
// handler.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <atomic>

namespace mcd {

// Blocks SIGINT, SIGQUIT, SIGTERM and SIGHUP in the calling thread. Called first thing
// in main, before any other thread exists, so that every thread inherits the mask and
// only the signal thread ever takes them.
void BlockControlSignals();

// The one thread that takes the blocked signals (through a signalfd; it sleeps until a
// signal or its own end comes). SIGTERM, SIGQUIT and
// SIGINT request a stop (a second SIGINT after a stop was requested ends the process at
// once with status 1); SIGHUP requests a reload. It logs each signal from its own
// ordinary context, so no logging ever happens inside a signal handler.
class SignalThread {
 public:
  SignalThread();
  ~SignalThread();
  SignalThread(const SignalThread&) = delete;
  SignalThread& operator=(const SignalThread&) = delete;

 private:
  static void* Run(void* self);
  int NextSignal(pid_t& sender);
  pthread_t m_thread{};
  int m_signalFd = -1;
  int m_wakeFd = -1;
  bool m_started = false;
  std::atomic<bool> m_done{false};
};

// Installs the handler of SIGSEGV, SIGBUS, SIGILL and SIGFPE: it writes the signal, the
// faulting address and a backtrace to the log's descriptor (the log file, else standard
// error) with async-signal-safe calls only, then aborts. Call after the logger exists.
void InstallCrashHandler();

}  // namespace mcd
