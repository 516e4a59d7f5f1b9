// Helpers shared by the transport tests: a file logger at debug level whose text
// the test can search.
#pragma once

#include <string>

#include "log/logger.h"
#include "support/test_support.h"

namespace transporttest {

// Installs the process logger on a file for the lifetime of the object. Every
// thread that might log must be stopped before it goes away.
class LogCapture {
 public:
  explicit LogCapture(const std::string& path) : m_path(path) {
    m_log = logger::getInstance(m_path.c_str(), false);
    m_log->setLevel(logger::TL_DEBUG);
  }
  ~LogCapture() { delete m_log; }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::string Text() const { return mcdtest::ReadFile(m_path); }
  // How often the text occurs in the log.
  int Count(const std::string& needle) const {
    std::string text = Text();
    int count = 0;
    for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + needle.size()))
      ++count;
    return count;
  }

 private:
  std::string m_path;
  logger* m_log;
};

}  // namespace transporttest
