// Helpers shared by the ESKO tests: a captured log, an in-process connector that
// plays a scripted meter, and frame helpers.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "log/logger.h"
#include "support/test_support.h"
#include "transport/connector.h"

namespace eskotest {

typedef std::vector<unsigned char> Bytes;

// The process logger at Debug level, in one file for the whole test run.
inline const std::string& LogPath() {
  static const mcdtest::LogCapture capture(logger::TL_DEBUG);
  (void)capture;
  return mcdtest::LogCapture::Path();
}

// Marks the log's current end; Text() returns what was logged since.
class LogMark : public mcdtest::LogCapture {
 public:
  LogMark() : mcdtest::LogCapture((LogPath(), logger::TL_DEBUG)) {}
};

// Appends the 8-bit sum to body.
inline Bytes Framed(Bytes body) {
  unsigned sum = 0;
  for (unsigned char b : body) sum += b;
  body.push_back(static_cast<unsigned char>(sum));
  return body;
}

inline unsigned char Bcd(int v) { return static_cast<unsigned char>(((v / 10) << 4) | (v % 10)); }

inline void PutFloat(Bytes& b, size_t at, float f) {
  uint32_t bits;
  std::memcpy(&bits, &f, 4);
  b[at] = static_cast<unsigned char>(bits >> 24);
  b[at + 1] = static_cast<unsigned char>(bits >> 16);
  b[at + 2] = static_cast<unsigned char>(bits >> 8);
  b[at + 3] = static_cast<unsigned char>(bits);
}

// A connector whose meter is a function of the request. Writes hand the request to the
// responder; reads return the answer bytes queued for it, in chunks when asked.
class ScriptedConnector : public CConnector {
 public:
  // Returns the answer to a request (empty: no answer).
  std::function<Bytes(const Bytes&)> responder;
  // Sizes of the pieces in which the next answer is handed out (empty: all at once).
  std::vector<int> chunks;
  // Result of every read while set (e.g. -1 for a failing line).
  bool failReads = false;
  int shortWriteBy = 0;

  std::vector<Bytes> writes;
  int flushes = 0;

  int WriteBuffer(const unsigned char* buf, unsigned short len, bool) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    Bytes request(buf, buf + len);
    writes.push_back(request);
    m_pending.clear();
    if (responder) {
      Bytes answer = responder(request);
      m_pending.assign(answer.begin(), answer.end());
    }
    return len - shortWriteBy;
  }

  int ReadBuffer(unsigned char* buf, unsigned short len, bool) override {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (failReads) return -1;
    if (m_pending.empty()) return -1;  // the line stayed silent for the whole wait
    size_t n = std::min<size_t>(len, m_pending.size());
    if (!chunks.empty()) {
      n = std::min<size_t>(n, static_cast<size_t>(chunks.front()));
      chunks.erase(chunks.begin());
    }
    for (size_t i = 0; i < n; ++i) {
      buf[i] = m_pending.front();
      m_pending.pop_front();
    }
    return static_cast<int>(n);
  }

  int flush() override {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++flushes;
    m_pending.clear();
    return 0;
  }
  bool open_device() override { return true; }
  void close_device() override {}

 private:
  std::mutex m_mutex;
  std::deque<unsigned char> m_pending;
};

}  // namespace eskotest
