// ESKO tests: hex frames, the link pauses (this program takes over usleep, so the
// 100 ms and 500 ms pauses cost nothing and are recorded) and a connector that plays a
// meter answering each request with a function of it.
#pragma once

#include <cstdlib>
#include <deque>
#include <functional>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "transport/connector.h"

namespace eskotest {

typedef std::vector<unsigned char> Bytes;

// "00 07 52" -> {0x00, 0x07, 0x52}.
inline Bytes Hex(const std::string& text) {
  Bytes out;
  std::istringstream in(text);
  std::string byte;
  while (in >> byte) out.push_back(static_cast<unsigned char>(std::strtoul(byte.c_str(), nullptr, 16)));
  return out;
}

// The pauses (microseconds) the code under test asked for since the last call.
std::vector<unsigned> TakePauses();

class ScriptedConnector : public CConnector {
 public:
  std::function<Bytes(const Bytes&)> meter;  // the answer to a request (empty: silence)
  std::vector<int> chunks;                   // sizes in which the next answer is read
  std::vector<Bytes> writes;
  int flushes = 0;

  int WriteBuffer(const unsigned char* buf, unsigned short len, bool) override {
    writes.emplace_back(buf, buf + len);
    const Bytes answer = meter ? meter(writes.back()) : Bytes();
    m_pending.assign(answer.begin(), answer.end());
    return len;
  }
  int ReadBuffer(unsigned char* buf, unsigned short len, bool) override {
    if (m_pending.empty()) return -1;  // the line stayed silent for the whole wait
    size_t n = std::min<size_t>(len, m_pending.size());
    if (!chunks.empty()) n = std::min<size_t>(n, static_cast<size_t>(chunks.front())), chunks.erase(chunks.begin());
    for (size_t i = 0; i < n; ++i) buf[i] = m_pending.front(), m_pending.pop_front();
    return static_cast<int>(n);
  }
  int flush() override { return ++flushes, m_pending.clear(), 0; }
  bool open_device() override { return true; }
  void close_device() override {}

 private:
  std::deque<unsigned char> m_pending;
};

}  // namespace eskotest
