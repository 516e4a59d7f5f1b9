#include "app/signals.h"

#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdlib>

#include "app/clock.h"
#include "log/logger.h"

#define MCD_RED "\e[1;31m"
#define MCD_RESET "\e[0m"

namespace mcd {

namespace {

const char kSeparator[] = "---------------------------------------------------------";  // 57 hyphens
static_assert(sizeof kSeparator == 58, "separator is 57 hyphens");

const int kControlSignals[] = {SIGINT, SIGQUIT, SIGTERM, SIGHUP};

sigset_t ControlSet() {
  sigset_t set;
  sigemptyset(&set);
  for (int sig : kControlSignals) sigaddset(&set, sig);
  return set;
}

void LogSeparator() { LOG_CRIT(MCD_RED "%s" MCD_RESET, kSeparator); }

// ---- crash handler: async-signal-safe calls only (write, open, backtrace*, abort) ----

constexpr int kBacktraceDepth = 100;

// Where the crash report goes, fixed when the handler is installed: the log file's path
// (opened by the handler, since the logger keeps no descriptor), else standard error.
char g_crashPath[512];
bool g_crashToFile = false;

struct CrashName {
  int number;
  const char* abbrev;
  const char* text;
};
const CrashName kCrashSignals[] = {{SIGSEGV, "SIGSEGV", "Segmentation fault"},
                                   {SIGBUS, "SIGBUS", "Bus error"},
                                   {SIGILL, "SIGILL", "Illegal instruction"},
                                   {SIGFPE, "SIGFPE", "Floating point exception"}};

void PutText(int fd, const char* text) {
  size_t left = strlen(text);
  while (left > 0) {
    ssize_t n = write(fd, text, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return;
    text += n;
    left -= static_cast<size_t>(n);
  }
}

// Writes value in the given base (10 or 16) without the C library's formatting.
void PutNumber(int fd, unsigned long value, unsigned base) {
  char digits[32];
  int at = sizeof digits;
  digits[--at] = '\0';
  do {
    digits[--at] = "0123456789abcdef"[value % base];
    value /= base;
  } while (value != 0 && at > 0);
  PutText(fd, digits + at);
}

// One report line: level name, text, and the line end of the log's own lines (a file
// line ends with a newline and a zero byte).
void BeginLine(int fd) { PutText(fd, "Crit: " MCD_RED); }
void EndLine(int fd) {
  PutText(fd, MCD_RESET "\n");
  if (g_crashToFile) write(fd, "", 1);
}

unsigned long ProgramCounter(void* context) {
  if (!context) return 0;
  auto* uc = static_cast<ucontext_t*>(context);
#if defined(__x86_64__)
  return static_cast<unsigned long>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__i386__)
  return static_cast<unsigned long>(uc->uc_mcontext.gregs[REG_EIP]);
#elif defined(__aarch64__)
  return static_cast<unsigned long>(uc->uc_mcontext.pc);
#elif defined(__arm__)
  return static_cast<unsigned long>(uc->uc_mcontext.arm_pc);
#else
  (void)uc;
  return 0;
#endif
}

void CrashHandler(int sig, siginfo_t* info, void* context) {
  const int savedErrno = errno;
  (void)info;
  const CrashName* name = nullptr;
  for (const CrashName& candidate : kCrashSignals)
    if (candidate.number == sig) name = &candidate;
  int fd = STDERR_FILENO;
  if (g_crashToFile) {
    int file = open(g_crashPath, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (file >= 0) fd = file;
  }
  const unsigned long pc = ProgramCounter(context);

  BeginLine(fd);
  PutText(fd, kSeparator);
  EndLine(fd);
  BeginLine(fd);
  PutText(fd, "System signal number ");
  PutNumber(fd, static_cast<unsigned long>(sig), 10);
  PutText(fd, " (");
  PutText(fd, name ? name->text : "?");
  PutText(fd, ") is received from address ");
  PutNumber(fd, pc, 16);
  PutText(fd, ".");
  EndLine(fd);
  BeginLine(fd);
  PutText(fd, "Application done due to ");
  PutText(fd, name ? name->abbrev : "?");
  PutText(fd, ".");
  EndLine(fd);

  void* frames[kBacktraceDepth];
  int count = backtrace(frames, kBacktraceDepth);
  // Frame 0 is this handler; frame 1 is the signal trampoline, replaced by the place of
  // the fault.
  if (count > 1) frames[1] = reinterpret_cast<void*>(pc);
  BeginLine(fd);
  PutText(fd, "backtrace:");
  EndLine(fd);
  if (count > 1) backtrace_symbols_fd(frames + 1, count - 1, fd);
  BeginLine(fd);
  PutText(fd, kSeparator);
  EndLine(fd);
  if (fd != STDERR_FILENO) fsync(fd);
  errno = savedErrno;
  abort();
}

// ---- the signal thread ----

const char* ControlName(int sig) {
  switch (sig) {
    case SIGINT:
      return "Interrupt";
    case SIGQUIT:
      return "Quit";
    case SIGTERM:
      return "Terminated";
    case SIGHUP:
      return "Hangup";
    default:
      return "?";
  }
}

}  // namespace

void BlockControlSignals() {
  sigset_t set = ControlSet();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

SignalThread::SignalThread() {
  BlockControlSignals();
  const sigset_t set = ControlSet();
  m_signalFd = signalfd(-1, &set, SFD_CLOEXEC);
  m_wakeFd = eventfd(0, EFD_CLOEXEC);
  m_started = pthread_create(&m_thread, nullptr, &SignalThread::Run, this) == 0;
  if (!m_started) LOG_CRIT(MCD_RED "main - the signal thread could not be started." MCD_RESET);
}

SignalThread::~SignalThread() {
  m_done.store(true);
  if (m_wakeFd >= 0) {
    const uint64_t one = 1;
    while (write(m_wakeFd, &one, sizeof one) < 0 && errno == EINTR) {
    }
  }
  if (m_started) pthread_join(m_thread, nullptr);
  if (m_signalFd >= 0) close(m_signalFd);
  if (m_wakeFd >= 0) close(m_wakeFd);
}

// The next control signal and its sender, or 0 once the thread is to end. Sleeps until
// one of the two comes; without the descriptors (never seen on Linux) it looks at the
// end flag a few times a second instead.
int SignalThread::NextSignal(pid_t& sender) {
  while (!m_done.load()) {
    if (m_signalFd < 0 || m_wakeFd < 0) {
      const sigset_t set = ControlSet();
      const struct timespec step = {0, 200 * 1000 * 1000};
      siginfo_t info;
      const int sig = sigtimedwait(&set, &info, &step);
      if (sig > 0) {
        sender = info.si_pid;
        return sig;
      }
      continue;
    }
    struct pollfd fds[2] = {{m_signalFd, POLLIN, 0}, {m_wakeFd, POLLIN, 0}};
    if (poll(fds, 2, -1) < 0) continue;  // EINTR
    if (fds[1].revents != 0) break;
    struct signalfd_siginfo info;
    if (fds[0].revents != 0 && read(m_signalFd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      sender = static_cast<pid_t>(info.ssi_pid);
      return static_cast<int>(info.ssi_signo);
    }
  }
  return 0;
}

void* SignalThread::Run(void* arg) {
  auto* self = static_cast<SignalThread*>(arg);
  pid_t sender = 0;
  while (const int sig = self->NextSignal(sender)) {
    const bool stopping = StopRequested();
    LogSeparator();
    LOG_CRIT(MCD_RED "System signal number %d (%s) is received from process %d." MCD_RESET, sig, ControlName(sig),
             static_cast<int>(sender));
    if (sig == SIGHUP) {
      LOG_NOTICE("main - reload requested: the configuration is read again at the next block boundary.");
      RequestReload();
    } else if (sig == SIGINT && stopping) {
      LOG_CRIT(MCD_RED "Application done due to SIGINT. Immediate exit!");
      LogSeparator();
      _exit(1);
    } else {
      RequestStop();
    }
    LogSeparator();
  }
  return nullptr;
}

void InstallCrashHandler() {
  logger* log = logger::get();
  const char* path = log ? log->filePath() : nullptr;
  g_crashToFile = path && strlen(path) < sizeof g_crashPath;
  if (g_crashToFile) memcpy(g_crashPath, path, strlen(path) + 1);

  // The first backtrace() loads the unwinder; do it now rather than inside the handler.
  void* warmup[2];
  backtrace(warmup, 2);

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = &CrashHandler;
  // A fault inside the handler itself takes the default action.
  action.sa_flags = SA_SIGINFO | SA_RESETHAND;
  sigemptyset(&action.sa_mask);
  for (const CrashName& name : kCrashSignals) sigaction(name.number, &action, nullptr);
}

}  // namespace mcd
