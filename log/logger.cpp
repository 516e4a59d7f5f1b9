#include "log/logger.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <algorithm>
#include <string>

std::atomic<logger*> logger::s_instance{nullptr};

namespace {

const char* const kLineNames[] = {"Emerg", "Alert", "Crit", "Err", "Warning", "Notice", "Info", "Debug"};

constexpr int kPrefixSize = 40;

// write(2) until everything is out; false on the first failure.
bool writeAll(int fd, const char* data, size_t size) {
  while (size > 0) {
    ssize_t n = ::write(fd, data, size);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// "<what><strerror>\n" on standard error.
void writeError(const char* what, int error) {
  char text[256];
  int n = snprintf(text, sizeof text, "%s%s\n", what, strerror(error));
  if (n > 0) writeAll(STDERR_FILENO, text, std::min(static_cast<size_t>(n), sizeof text - 1));
}

int openLogFile(const char* path) {
  int fd = ::open(path, O_WRONLY | O_CREAT | O_APPEND, 0644);
  if (fd < 0) {
    printf("Can't open file %s\n", path);
    fflush(stdout);
    perror("addError: ");
  }
  return fd;
}

}  // namespace

logger::logger(const char* name, bool syslog)
    : m_name(strdup(name ? name : "Unnamed")),
      m_syslog(syslog),
      m_level(TL_INFO),
      m_stderr(false),
      m_maxSize(0) {
  if (m_syslog) openlog(m_name, LOG_CONS | LOG_PID, LOG_USER);
}

logger::~logger() {
  logger* self = this;
  s_instance.compare_exchange_strong(self, nullptr);
  if (m_syslog) closelog();
  free(m_name);
}

logger* logger::getInstance(const char* name, bool syslog) {
  logger* current = s_instance.load();
  if (current) return current;
  logger* created = new logger(name, syslog);
  if (s_instance.compare_exchange_strong(current, created)) return created;
  delete created;
  return current;
}

void logger::makePrefix(char* out, size_t size, int level) {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  struct tm tmv;
  time_t secs = tv.tv_sec;
  localtime_r(&secs, &tmv);
  snprintf(out, size, "%02d:%02d:%02d.%03ld.%03ld %s: ", tmv.tm_hour, tmv.tm_min, tmv.tm_sec,
           static_cast<long>(tv.tv_usec / 1000), static_cast<long>(tv.tv_usec % 1000), kLineNames[level]);
}

void logger::write(int level, const char* fmt, va_list args) {
  if (level > this->level()) return;
  // Each call formats into its own stack buffers: threads never share message text, and
  // nothing here allocates, so the signal handler may log through the same path.
  char message[kMessageSize];
  char prefix[kPrefixSize];
  if (m_stderr.load(std::memory_order_relaxed)) {
    vsnprintf(message, sizeof message, fmt, args);
    makePrefix(prefix, sizeof prefix, level);
    char line[kPrefixSize + kMessageSize + 1];
    int n = snprintf(line, sizeof line, "%s%s\n", prefix, message);
    if (n > 0) writeAll(STDERR_FILENO, line, static_cast<size_t>(n));
  } else if (m_syslog) {
    vsyslog(level, fmt, args);
  } else {
    vsnprintf(message, sizeof message, fmt, args);
    makePrefix(prefix, sizeof prefix, level);
    saveToFile(prefix, message);
  }
}

void logger::saveToFile(const char* prefix, const char* message) {
  int fd = openLogFile(m_name);
  if (fd < 0) return;
  // prefix + message + "\n" and the terminating zero byte, which goes into the file too
  char line[kPrefixSize + kMessageSize + 1];
  int n = snprintf(line, sizeof line, "%s%s\n", prefix, message);
  if (n > 0 && !writeAll(fd, line, static_cast<size_t>(n) + 1)) {
    writeError("[logger::saveToFile()] Can't write to file: ", errno);
  }
  fsync(fd);
  close(fd);
  int limit = m_maxSize.load(std::memory_order_relaxed);
  if (limit > 0) {
    struct stat st;
    if (stat(m_name, &st) == 0 && st.st_size > limit) unlink(m_name);
  }
}

void logger::dump(const char* title, const unsigned char* bytes, size_t count) {
  if (level() != TL_DEBUG) return;
  static const char kHex[] = "0123456789abcdef";
  std::string text;
  text.reserve((title ? strlen(title) : 0) + count * 5 + 2);
  text += title ? title : "";
  text += '\n';
  for (size_t i = 0; i < count; ++i) {  // "0x%02x " per byte
    const char item[5] = {'0', 'x', kHex[bytes[i] >> 4], kHex[bytes[i] & 0x0F], ' '};
    text.append(item, sizeof item);
  }
  text += '\n';
  if (m_stderr.load(std::memory_order_relaxed)) {
    writeAll(STDERR_FILENO, text.data(), text.size());
  } else if (m_syslog) {
    syslog(TL_DEBUG, "%s", text.c_str());
  } else {
    int fd = openLogFile(m_name);
    if (fd < 0) return;
    if (::write(fd, text.data(), text.size()) < 0) writeError("[logger::dump()] Can't write to file: ", errno);
    fsync(fd);
    close(fd);
  }
}

#define MCD_LOGGER_LEVEL_FUNCTION(method, lvl) \
  void logger::method(const char* fmt, ...) {  \
    va_list args;                              \
    va_start(args, fmt);                       \
    write(lvl, fmt, args);                     \
    va_end(args);                              \
  }

MCD_LOGGER_LEVEL_FUNCTION(Emerg, TL_EMERG)
MCD_LOGGER_LEVEL_FUNCTION(Alert, TL_ALERT)
MCD_LOGGER_LEVEL_FUNCTION(Crit, TL_CRIT)
MCD_LOGGER_LEVEL_FUNCTION(Err, TL_ERR)
MCD_LOGGER_LEVEL_FUNCTION(Warning, TL_WARNING)
MCD_LOGGER_LEVEL_FUNCTION(Notice, TL_NOTICE)
MCD_LOGGER_LEVEL_FUNCTION(Info, TL_INFO)
MCD_LOGGER_LEVEL_FUNCTION(Debug, TL_DEBUG)
