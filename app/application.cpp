#include "app/application.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <vector>

#include "app/clock.h"
#include "app/options.h"
#include "app/service_notify.h"
#include "app/signals.h"
#include "app/supervision.h"
#include "drivers/base/base_driver.h"
#include "drivers/base/driver_factory.h"
#include "log/logger.h"
#include "server/jsonrpc_connector.h"
#include "transport/connector.h"

namespace mcd {

namespace {

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

// Everything a configuration builds: the clients, the one serial connector and the
// drivers, in creation order.
struct Plant {
  CConnector* connector = nullptr;
  std::vector<CMcdBaseDriver*> drivers;
  std::vector<CJSONRPCConnector*> clients;
};

// Deletes the drivers (each thread cancelled and joined), then the connector (its lamp
// threads stopped, the line released) and the clients.
void TearDown(Plant& plant) {
  for (CMcdBaseDriver* driver : plant.drivers) delete driver;
  plant.drivers.clear();
  delete plant.connector;
  plant.connector = nullptr;
  for (CJSONRPCConnector* client : plant.clients) delete client;
  plant.clients.clear();
}

enum class SetUpResult { kDone, kStopped, kLineBusy };

// Fetches every identifier's configuration and builds the connector and the drivers.
// A reload requested meanwhile restarts the fetch of the identifier under way; a stop
// ends the set-up.
SetUpResult SetUp(const Options& options, Plant& plant) {
  for (const std::string& id : options.ids) {
    auto* client = new CJSONRPCConnector(id, 0);
    plant.clients.push_back(client);
    service::Status("waiting for the configuration of heat meter " + id);
    std::list<PortConfig> ports;
    for (;;) {
      ports = client->GetInitParameters1();
      if (StopRequested()) return SetUpResult::kStopped;
      if (!ReloadRequested()) break;
      ClearReloadRequest();
    }
    LogConfiguration(id, ports);
    for (const PortConfig& port : ports) {
      if (port.portParams.find("name") == port.portParams.end()) {
        LOG_WARNING("main - heat meter %s: port entry without \"name\", its meters are not served.", id.c_str());
        continue;
      }
      if (!plant.connector) {
        plant.connector = CConnector::CreateConnector(port.portParams);
        if (plant.connector->LineBusy()) {
          const std::string text = "main - " + plant.connector->BusyMessage();
          LOG_CRIT("%s", text.c_str());
          fprintf(stderr, "%s\n", text.c_str());
          return SetUpResult::kLineBusy;
        }
      }
      for (const ParamMap& meter : port.drivers) plant.drivers.push_back(CreateDriver(meter, plant.connector, client));
    }
  }
  return SetUpResult::kDone;
}

}  // namespace

int MainEntry(int argc, char** argv) {
  // Lines on standard output go out whole, whatever standard output is.
  setvbuf(stdout, nullptr, _IOLBF, 0);
  // Before any thread exists, so that every thread inherits the mask and only the
  // signal thread takes these signals.
  BlockControlSignals();

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

  InstallCrashHandler();
  SignalThread signals;
  LOG_INFO("main - mcd_main %s started.", MCD_VERSION_TEXT);
  // Ready as soon as signals are taken: a configuration server that is down keeps the
  // set-up waiting, and neither a start nor a package upgrade should wait with it.
  service::Ready();

  Plant plant;
  int status = 0;
  for (;;) {
    SetUpResult result = SetUp(options, plant);
    if (result == SetUpResult::kLineBusy) {
      status = 1;
      break;
    }
    if (result == SetUpResult::kStopped) break;

    LOG_INFO("main - set-up done: %zu driver(s), supervision begins.", plant.drivers.size());
    service::Status("reading meters");
    if (RunSupervision(plant.drivers) == SupervisionEnd::kStop) break;

    service::Reloading();
    LOG_NOTICE("main - reload: stopping %zu driver(s) to read the configuration again.", plant.drivers.size());
    TearDown(plant);
    ClearReloadRequest();
    service::Ready();
  }

  service::Stopping();
  LOG_INFO("main - shutdown: deleting %zu driver(s).", plant.drivers.size());
  TearDown(plant);
  LOG_INFO("main - shutdown done.");
  return status;
}

}  // namespace mcd
