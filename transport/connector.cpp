#include "transport/connector.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "app/clock.h"
#include "log/logger.h"
#include "server/paths.h"
#include "transport/led.h"
#include "transport/modbus_connector.h"
#include "transport/serial_lock.h"

namespace {

constexpr unsigned int kLedFlashMicros = 150000;
constexpr uint32_t kFixedTimeoutMs = 1500;

// Decimal rate -> termios speed constant. A rate missing here means 9600.
const std::map<int, speed_t>& BaudTable() {
  static const std::map<int, speed_t> table = {
      {0, B0},
      {50, B50},
      {75, B75},
      {110, B110},
      {134, B134},
      {150, B150},
      {200, B200},
      {300, B300},
      {600, B600},
      {1200, B1200},
      {1800, B1800},
      {2400, B2400},
      {4800, B4800},
      {9600, B9600},
      {19200, B19200},
      {38400, B38400},
      {57600, B57600},
      {115200, B115200},
      {230400, B230400},
      {460800, B460800},
      {500000, B500000},
      {576000, B576000},
      {921600, B921600},
      {1000000, B1000000},
      {1152000, B1152000},
      {1500000, B1500000},
      {2000000, B2000000},
      {2500000, B2500000},
      {3000000, B3000000},
      {3500000, B3500000},
      {4000000, B4000000},
  };
  return table;
}

const std::string* Find(const std::map<std::string, std::string>& params, const char* key) {
  auto it = params.find(key);
  return it == params.end() ? nullptr : &it->second;
}

// Waits until fd is readable or timeout_ms passes. A signal restarts the wait with
// the full time-out. Returns select's result; errno is kept for the caller.
int WaitReadable(int fd, uint32_t timeout_ms) {
  if (fd < 0 || fd >= FD_SETSIZE) {
    // select cannot watch such a descriptor; report it like select would.
    errno = EBADF;
    return -1;
  }
  for (;;) {
    struct timeval tv;
    tv.tv_sec = timeout_ms / 1000;
    tv.tv_usec = (timeout_ms % 1000) * 1000;
    fd_set readSet;
    FD_ZERO(&readSet);
    FD_SET(fd, &readSet);
    int rc = select(fd + 1, &readSet, nullptr, nullptr, &tv);
    if (rc == -1 && errno == EINTR) continue;
    return rc;
  }
}

}  // namespace

CConnector::CConnector() : fd(-1), ledA(nullptr), ledB(nullptr), timeout(kFixedTimeoutMs) {
  // Recursive: a Modbus transaction that finds its line absent opens it again while
  // holding the line's mutex, and opening takes the mutex to install the new context.
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex, &attributes);
  pthread_mutexattr_destroy(&attributes);
  ledA = new CLed(mcd::paths::Led("kr_red"), kLedFlashMicros);
  ledB = new CLed(mcd::paths::Led("lan"), kLedFlashMicros);
}

CConnector::~CConnector() {
  delete ledA;
  ledA = nullptr;
  delete ledB;
  ledB = nullptr;
  close_device();
  pthread_mutex_destroy(&mutex);
}

CConnector* CConnector::CreateConnector(const std::map<std::string, std::string>& port_params) {
  CConnector* connector;
  const std::string* protocol = Find(port_params, "protocol");
  if (protocol && *protocol == "modbus") {
    connector = new CModbusConnector();
    LOG_DEBUG("The CConnector is created in the \"Modbus\" mode.");
  } else {
    connector = new CConnector();
    LOG_DEBUG("The CConnector is created in as simple UART.");
  }
  connector->params = port_params;
  const std::string* name = Find(port_params, "name");
  connector->name = name ? *name : "/dev/ttyS1";
  // The configured time-out is parsed but the fixed one always wins.
  if (const std::string* timeout = Find(port_params, "timeout")) connector->timeout = atoi(timeout->c_str());
  connector->timeout = kFixedTimeoutMs;

  connector->ledA->start(connector->ledA, "manager LED \"A\"");
  connector->ledB->start(connector->ledB, "manager LED \"B\"");

  // A port that does not open is not fatal here: later transfers fail instead.
  connector->open_device();
  return connector;
}

void CConnector::MarkLineBusy(const std::string& holder) {
  if (!lineBusy) {
    busyMessage = "Device " + name + " is in use by " + holder + "; one process serves every meter of a line.";
    LOG_CRIT("CConnector::open_device - %s", busyMessage.c_str());
  }
  lineBusy = true;
  absent = true;
  nextOpen = mcd::Monotonic() + kReopenSeconds;
}

bool CConnector::ReopenDue() {
  if (mcd::Monotonic() < nextOpen) return false;
  nextOpen = mcd::Monotonic() + kReopenSeconds;
  return true;
}

bool CConnector::open_device() {
  // Re-opening an open port replaces its descriptor rather than leaking it.
  close_device();
  bool busy = false;
  std::string holder;
  fd = mcd::OpenSerialExclusive(name, busy, holder);
  if (busy) {
    // Taken by another process while it was away: tried again like an absent device.
    MarkLineBusy(holder);
    return false;
  }
  if (fd <= 0) {
    const int error = errno;
    // One line per change: the first failure is logged, the retries are not.
    if (!absent) {
      LOG_CRIT("CConnector::open_device - Unable open device %s.", name.c_str());
      LOG_ERR("CConnector::open_device - %s: %s; opening again every %ld sec.", name.c_str(), strerror(error),
              kReopenSeconds);
    }
    absent = true;
    nextOpen = mcd::Monotonic() + kReopenSeconds;
    return false;
  }
  if (absent) LOG_NOTICE("CConnector::open_device - device %s is open again.", name.c_str());
  absent = false;
  lineBusy = false;

  speed_t speed = B9600;
  if (const std::string* value = Find(params, "speed")) {
    auto it = BaudTable().find(atoi(value->c_str()));
    if (it != BaudTable().end()) speed = it->second;
  }

  struct termios tio;
  memset(&tio, 0, sizeof tio);
  cfsetispeed(&tio, speed);
  cfsetospeed(&tio, speed);
  tio.c_cflag |= CREAD | CLOCAL;

  tcflag_t size = CS8;
  if (const std::string* value = Find(params, "data")) {
    switch (atoi(value->c_str())) {
      case 5:
        size = CS5;
        break;
      case 6:
        size = CS6;
        break;
      case 7:
        size = CS7;
        break;
      default:
        size = CS8;
        break;
    }
  }
  tio.c_cflag |= size;

  if (const std::string* value = Find(params, "parity")) {
    if (*value == "E")
      tio.c_cflag |= PARENB;
    else if (*value == "O")
      tio.c_cflag |= PARENB | PARODD;
  }
  if (const std::string* value = Find(params, "stop")) {
    if (*value == "2") tio.c_cflag |= CSTOPB;
  }

  tio.c_cc[VTIME] = static_cast<cc_t>(timeout / 100);
  tio.c_cc[VMIN] = 0;
  tcsetattr(fd, TCSAFLUSH, &tio);
  return true;
}

void CConnector::close_device() {
  if (fd > 0) {
    mcd::UnlockSerialLine(fd);
    ::close(fd);
    fd = -1;
  }
}

bool CConnector::EnsureOpen() {
  // A port closed on purpose (close_device) stays closed and fails as such.
  if (fd > 0 || !absent) return true;
  if (mcd::Monotonic() < nextOpen) return false;
  return open_device();
}

namespace {

// Errors by which a serial device tells that it is gone (unplugged adapter, closed
// pseudo-terminal).
bool DeviceGone(int error) { return error == EIO || error == ENXIO || error == ENODEV; }

}  // namespace

void CConnector::Lost(const char* what, int error) {
  LOG_ERR("CConnector - device %s lost (%s%s%s); opening again every %ld sec.", name.c_str(), what, error ? ": " : "",
          error ? strerror(error) : "", kReopenSeconds);
  close_device();
  absent = true;
  nextOpen = mcd::Monotonic() + kReopenSeconds;
}

int CConnector::WriteBuffer(const unsigned char* buf, unsigned short len, bool led) {
  if (!EnsureOpen()) return -1;
  if (led) ledA->SwichLED(true);
  int rc = static_cast<int>(::write(fd, buf, len));
  if (rc < 0 && DeviceGone(errno)) Lost("write", errno);
  return rc;
}

int CConnector::ReadBuffer(unsigned char* buf, unsigned short len, bool led) {
  if (!EnsureOpen()) return -1;
  int rc = WaitReadable(fd, timeout);
  if (rc <= 0) {
    int error = errno;
    LOG_ERR("CConnector::ReadBuffer - Timeout receiving data. %d - %d", rc, error);
    return -1;
  }
  if (led) ledB->SwichLED(true);
  int n = static_cast<int>(::read(fd, buf, len));
  // Readable with nothing to read is the end of the device.
  if (n == 0 && len > 0) {
    Lost("end of file", 0);
    return -1;
  }
  if (n < 0 && DeviceGone(errno)) Lost("read", errno);
  return n;
}

int CConnector::ReadBufferCycle(unsigned char* buf, unsigned short len, bool led, unsigned int timeout_ms) {
  int total = 0;
  unsigned char* p = buf;
  unsigned short remaining = len;
  const uint32_t wait = timeout_ms != 0 ? timeout_ms : timeout;
  if (!EnsureOpen()) return -1;
  for (;;) {
    if (WaitReadable(fd, wait) <= 0) {
      LOG_ERR("CConnector::ReadBufferCycle - Timeout receiving data.");
      return total != 0 ? total : -1;
    }
    if (led) ledB->SwichLED(true);
    int n = static_cast<int>(::read(fd, p, remaining));
    if (n == 0 && remaining > 0) {
      Lost("end of file", 0);
      return total != 0 ? total : -1;
    }
    if (n < 0) {
      if (DeviceGone(errno)) Lost("read", errno);
      return n;
    }
    total += n;
    if (n == remaining) return total;
    p += n;
    remaining = static_cast<unsigned short>(remaining - n);
  }
}

long long CConnector::NowUs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long long>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

void CConnector::SleepUs(long long us) {
  if (us <= 0) return;
  struct timespec ts;
  ts.tv_sec = static_cast<time_t>(us / 1000000);
  ts.tv_nsec = static_cast<long>(us % 1000000) * 1000;
  while (nanosleep(&ts, &ts) == -1 && errno == EINTR) {
  }
}

int CConnector::CharacterBits(const std::map<std::string, std::string>& params) {
  int bits = 1 + 8 + 1;
  if (const std::string* value = Find(params, "data")) {
    const int data = atoi(value->c_str());
    if (data >= 5 && data <= 7) bits = 1 + data + 1;
  }
  const std::string* parity = Find(params, "parity");
  if (parity && (*parity == "E" || *parity == "O")) ++bits;
  const std::string* stop = Find(params, "stop");
  if (stop && *stop == "2") ++bits;
  return bits;
}

bool CConnector::WaitForBytes(int count, long timeout_us, bool blind) {
  const long long deadline = NowUs() + (timeout_us > 0 ? timeout_us : 0);
  int pending = 0;
  if (fd < 0 || ioctl(fd, FIONREAD, &pending) == -1) {
    // A descriptor that cannot tell its waiting bytes: the whole time.
    if (blind && timeout_us > 0) usleep(static_cast<useconds_t>(timeout_us));
    return false;
  }
  int baud = 9600;
  if (const std::string* value = Find(params, "speed")) {
    const int configured = atoi(value->c_str());
    if (BaudTable().count(configured) && configured > 0) baud = configured;
  }
  const long long characterUs = 1000000LL * CharacterBits(params) / baud;
  bool slept = false;
  for (;;) {
    if (ioctl(fd, FIONREAD, &pending) == -1) pending = 0;
    if (pending >= count) return true;
    const long long left = deadline - NowUs();
    if (left <= 0) return false;
    if (pending == 0) {
      // Nothing yet: sleep until the first byte comes (or the time is up).
      struct pollfd watch = {fd, POLLIN, 0};
      struct timespec ts = {static_cast<time_t>(left / 1000000), static_cast<long>(left % 1000000) * 1000};
      const int rc = ppoll(&watch, 1, &ts, nullptr);
      if (rc == -1 && errno != EINTR) return false;
      if (rc > 0 && (watch.revents & (POLLERR | POLLHUP | POLLNVAL))) return false;
      continue;
    }
    // Part of them: the rest cannot come before its wire time. Once that has passed
    // (a receiver hands bytes over in pieces, a little late), look again every
    // character time.
    const long long due = slept ? characterUs : characterUs * (count - pending);
    SleepUs(due < left ? due : left);
    slept = true;
  }
}

int CConnector::flush() { return tcflush(fd, TCIOFLUSH); }

int CConnector::drain() { return tcdrain(fd); }
