// Process-wide log sink with eight syslog-style levels.
//
// One instance per process, reached through logger::get(); every log call is
// skipped while no instance exists (use the LOG_* macros, which do that test).
// Output goes to exactly one of: standard error (when the stderr flag is set), syslog
// (when constructed with the syslog flag), or a log file opened, written, synced and
// closed for every single line.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstddef>

class logger {
 public:
  enum Level { TL_EMERG = 0, TL_ALERT, TL_CRIT, TL_ERR, TL_WARNING, TL_NOTICE, TL_INFO, TL_DEBUG };

  // name: syslog identity when syslog is on, otherwise the log file path;
  // a null name becomes "Unnamed".
  logger(const char* name, bool syslog);
  virtual ~logger();
  logger(const logger&) = delete;
  logger& operator=(const logger&) = delete;

  // Create-once: constructs the global instance when there is none and returns it.
  static logger* getInstance(const char* name, bool syslog);
  // The global instance, or null.
  static logger* get() { return s_instance.load(std::memory_order_acquire); }

  void setLevel(int level) { m_level.store(level, std::memory_order_relaxed); }
  int level() const { return m_level.load(std::memory_order_relaxed); }
  void setStderr(bool on) { m_stderr.store(on, std::memory_order_relaxed); }
  void setMaxSize(int bytes) { m_maxSize.store(bytes, std::memory_order_relaxed); }
  bool isWritable(int level) const { return level <= this->level(); }
  // The log file's path while lines go to a file; null while they go to standard
  // error or syslog.
  const char* filePath() const { return m_syslog || m_stderr.load() ? nullptr : m_name; }

  void Emerg(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Alert(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Crit(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Err(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Warning(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Notice(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Info(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  void Debug(const char* fmt, ...) __attribute__((format(printf, 2, 3)));

  // Hex dump at Debug level: the title, a newline, "0x%02x " per byte, a newline.
  void dump(const char* title, const unsigned char* bytes, size_t count);

  static constexpr int kMessageSize = 128;  // a message is cut to 127 characters

 private:
  void write(int level, const char* fmt, va_list args);
  void saveToFile(const char* prefix, const char* message);
  static void makePrefix(char* out, size_t size, int level);

  char* m_name;
  bool m_syslog;
  std::atomic<int> m_level;
  std::atomic<bool> m_stderr;
  std::atomic<int> m_maxSize;

  static std::atomic<logger*> s_instance;
};

// The level is tested before the arguments are evaluated: a line that is not written at
// the current level costs no formatting, no time conversion and no string building.
#define MCD_LOG_AT(lvl, method, ...)                                                  \
  do {                                                                                \
    logger* mcd_log_instance_ = logger::get();                                        \
    if (mcd_log_instance_ && mcd_log_instance_->isWritable(logger::lvl))              \
      mcd_log_instance_->method(__VA_ARGS__);                                         \
  } while (0)

#define LOG_EMERG(...) MCD_LOG_AT(TL_EMERG, Emerg, __VA_ARGS__)
#define LOG_ALERT(...) MCD_LOG_AT(TL_ALERT, Alert, __VA_ARGS__)
#define LOG_CRIT(...) MCD_LOG_AT(TL_CRIT, Crit, __VA_ARGS__)
#define LOG_ERR(...) MCD_LOG_AT(TL_ERR, Err, __VA_ARGS__)
#define LOG_WARNING(...) MCD_LOG_AT(TL_WARNING, Warning, __VA_ARGS__)
#define LOG_NOTICE(...) MCD_LOG_AT(TL_NOTICE, Notice, __VA_ARGS__)
#define LOG_INFO(...) MCD_LOG_AT(TL_INFO, Info, __VA_ARGS__)
#define LOG_DEBUG(...) MCD_LOG_AT(TL_DEBUG, Debug, __VA_ARGS__)
#define LOG_DUMP(title, bytes, count) MCD_LOG_AT(TL_DEBUG, dump, title, bytes, count)
