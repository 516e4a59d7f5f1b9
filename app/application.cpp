#include "app/application.h"

#include <execinfo.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <vector>

#include "app/options.h"
#include "app/supervision.h"
#include "drivers/base/base_driver.h"
#include "drivers/base/driver_factory.h"
#include "log/logger.h"
#include "server/jsonrpc_connector.h"
#include "transport/connector.h"

namespace mcd {

namespace {

// Set while the process is setting up and again once a termination signal arrived;
// main clears it when every driver exists. The signal handler touches only this flag
// and the logger.
std::atomic<bool> g_exitFlag{true};
static_assert(std::atomic<bool>::is_always_lock_free, "the exit flag is written by a signal handler");

#define MCD_RED "\e[1;31m"
#define MCD_RESET "\e[0m"
const char kSeparator[] = "---------------------------------------------------------";  // 57 hyphens
static_assert(sizeof kSeparator == 58, "separator is 57 hyphens");

constexpr int kBacktraceDepth = 100;

// strsignal() texts of the handled signals, taken at install time so the handler does
// not call into the locale machinery.
struct SignalName {
  int number;
  char text[64];
};
SignalName g_signalNames[4];

const char* SignalText(int sig) {
  for (const SignalName& name : g_signalNames)
    if (name.number == sig) return name.text;
  return "Unknown signal";
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

void LogSeparator() { LOG_CRIT(MCD_RED "%s" MCD_RESET, kSeparator); }

void SignalHandler(int sig, siginfo_t* info, void* context) {
  (void)info;
  const unsigned long pc = ProgramCounter(context);
  LogSeparator();
  LOG_CRIT(MCD_RED "System signal number %d (%s) is received from address %lx." MCD_RESET, sig, SignalText(sig), pc);

  if (sig == SIGSEGV) {
    LOG_CRIT(MCD_RED "Application done due to SIGSEGV." MCD_RESET);
    void* frames[kBacktraceDepth];
    int count = backtrace(frames, kBacktraceDepth);
    if (count > 1) frames[1] = reinterpret_cast<void*>(pc);
    char** symbols = backtrace_symbols(frames, count);
    LOG_CRIT(MCD_RED "backtrace:" MCD_RESET);
    if (symbols) {
      for (int i = 1; i < count; ++i) LOG_CRIT(MCD_RED "%s" MCD_RESET, symbols[i]);
      free(symbols);
    }
    LogSeparator();
    abort();
  }

  if (sig == SIGINT && g_exitFlag.load()) {
    LOG_CRIT(MCD_RED "Application done due to SIGINT. Immediate exit!");
    LogSeparator();
    _exit(1);
  }

  g_exitFlag.store(true);
  LogSeparator();
}

void InstallSignalHandler() {
  const int signals[] = {SIGINT, SIGQUIT, SIGTERM, SIGSEGV};
  for (size_t i = 0; i < 4; ++i) {
    g_signalNames[i].number = signals[i];
    snprintf(g_signalNames[i].text, sizeof g_signalNames[i].text, "%s", strsignal(signals[i]));
  }
  // The first backtrace() loads the unwinder; do it now rather than inside the handler.
  void* warmup[2];
  backtrace(warmup, 2);

  struct sigaction action;
  memset(&action, 0, sizeof action);
  action.sa_sigaction = &SignalHandler;
  action.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&action.sa_mask);
  for (int sig : signals) sigaction(sig, &action, nullptr);
}

void CloseDescriptors(rlim_t limit) {
#ifdef SYS_close_range
  // rlim_t is 32 bits on armhf: widen before comparing with the 32-bit maximum.
  const unsigned long long wide = limit;
  if (limit > 0 && syscall(SYS_close_range, 0U, static_cast<unsigned>(wide > 0xffffffffULL ? 0xffffffffULL : wide - 1),
                           0U) == 0)
    return;
#endif
  // Without close_range: one close per descriptor number. An unlimited hard limit is
  // bounded by the largest descriptor number the kernel hands out.
  const unsigned long long bound = limit == RLIM_INFINITY ? (1ULL << 20) : static_cast<unsigned long long>(limit);
  for (unsigned long long fd = 0; fd < bound; ++fd) close(static_cast<int>(fd));
}

// Detaches from the terminal: the parent exits 0, the child goes on in a new session
// with every descriptor closed and 0, 1, 2 on /dev/null. Exits 255 on failure.
void Daemonize() {
  if (getpid() != 1) {
    signal(SIGTTOU, SIG_IGN);
    signal(SIGTTIN, SIG_IGN);
    signal(SIGTSTP, SIG_IGN);
  }
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid < 0) {
    fputs("\nCan't fork for daemon mode.\n", stderr);
    exit(255);
  }
  if (pid > 0) _exit(0);
  umask(0);
  if (setsid() < 0) exit(255);
  struct rlimit limit;
  if (getrlimit(RLIMIT_NOFILE, &limit) == 0) CloseDescriptors(limit.rlim_max);
  int fd = open("/dev/null", O_RDWR);
  if (fd >= 0) {
    if (fd != 0) dup2(fd, 0);
    dup2(0, 1);
    dup2(0, 2);
    if (fd > 2) close(fd);
  }
}

void LogConfiguration(const std::string& id, const std::list<PortConfig>& ports) {
  if (ports.empty()) {
    LOG_WARNING("main - heat meter %s: no configuration received.", id.c_str());
    return;
  }
  int portIndex = 0;
  for (const PortConfig& port : ports) {
    LOG_INFO("main - heat meter %s: port entry %d with %zu meter(s).", id.c_str(), portIndex, port.drivers.size());
    for (const auto& kv : port.portParams)
      LOG_INFO("main - heat meter %s: port %s = %s", id.c_str(), kv.first.c_str(), kv.second.c_str());
    int meterIndex = 0;
    for (const ParamMap& meter : port.drivers) {
      for (const auto& kv : meter)
        LOG_INFO("main - heat meter %s: meter %d %s = %s", id.c_str(), meterIndex, kv.first.c_str(),
                 kv.second.c_str());
      ++meterIndex;
    }
    ++portIndex;
  }
}

}  // namespace

int MainEntry(int argc, char** argv) {
  // Lines on standard output go out whole, whatever standard output is.
  setvbuf(stdout, nullptr, _IOLBF, 0);

  ParseResult parsed = ParseOptions(argc, argv);
  if (!parsed.err.empty()) fputs(parsed.err.c_str(), stderr);
  if (!parsed.out.empty()) fputs(parsed.out.c_str(), stdout);
  if (parsed.exit) {
    fflush(stdout);
    return parsed.status;
  }
  const Options& options = parsed.options;

  if (options.daemon) Daemonize();

  logger* log = options.logName.empty() ? logger::getInstance("mcd_main", true)
                                        : logger::getInstance(options.logName.c_str(), false);
  log->setLevel(options.level);
  log->setStderr(options.toStderr);
  log->setMaxSize(options.maxLogSize);

  InstallSignalHandler();
  LOG_INFO("main - mcd_main %s started.", MCD_VERSION_TEXT);

  CConnector* connector = nullptr;
  std::vector<CMcdBaseDriver*> drivers;
  std::vector<CJSONRPCConnector*> clients;
  for (const std::string& id : options.ids) {
    auto* client = new CJSONRPCConnector(id, 0);
    std::list<PortConfig> ports = client->GetInitParameters1();
    LogConfiguration(id, ports);
    for (const PortConfig& port : ports) {
      if (port.portParams.find("name") == port.portParams.end()) {
        LOG_WARNING("main - heat meter %s: port entry without \"name\", its meters are not served.", id.c_str());
        continue;
      }
      if (!connector) connector = CConnector::CreateConnector(port.portParams);
      for (const ParamMap& meter : port.drivers) drivers.push_back(CreateDriver(meter, connector, client));
    }
    clients.push_back(client);
  }

  g_exitFlag.store(false);
  LOG_INFO("main - set-up done: %zu driver(s), supervision begins.", drivers.size());

  RunSupervision(drivers, g_exitFlag);

  LOG_INFO("main - shutdown: deleting %zu driver(s).", drivers.size());
  for (CMcdBaseDriver* driver : drivers) delete driver;
  drivers.clear();
  // The drivers were the connector's only users; deleting it stops the lamp threads
  // before the process tears down.
  delete connector;
  for (CJSONRPCConnector* client : clients) delete client;
  clients.clear();
  LOG_INFO("main - shutdown done.");
  return 0;
}

}  // namespace mcd
