// Helpers of the VKT-7 tests: frames written in hex, answer images, and a meter played
// on a pseudo-terminal by a thread that answers requests through a script.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "drivers/base/value_text.h"
#include "drivers/vkt7/vkt7_link.h"
#include "log/logger.h"
#include "support/test_support.h"

namespace vkt7test {

using Bytes = std::vector<unsigned char>;

// An answer as the link stores it: address, type, count and data in a buffer as large
// as the link's own, so reads one past the answer stay inside it.
struct Image {
  std::array<unsigned char, 272> bytes{};
  int length = 0;

  explicit Image(const Bytes& data) {
    bytes[0] = 0x00;
    bytes[1] = 0x03;
    bytes[2] = static_cast<unsigned char>(data.size());
    for (size_t i = 0; i < data.size(); ++i) bytes[3 + i] = data[i];
    length = static_cast<int>(data.size()) + 3;
  }
  CVKT7Buffer View() const { return CVKT7Buffer(bytes.data(), length); }
};

// Bytes written as hexadecimal pairs separated by blanks: "00 03 01 7E 71 94".
inline Bytes Hex(const std::string& text) {
  Bytes out;
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == ' ') continue;
    out.push_back(static_cast<unsigned char>(std::stoi(text.substr(i, 2), nullptr, 16)));
    ++i;
  }
  return out;
}

using mcdtest::LogCapture;

// The simulator's value of an integer element: base + n % 100, with the digits.
inline std::string SimValue(int base, long n, int digits) {
  double raw = base + n % 100;
  for (int i = 0; i < digits; ++i) raw /= 10;
  return mcd::StreamText(raw);
}

// Plays the meter on the master side of a pty. Requests are split by length: a read
// is 10 bytes, a write 11 + its count byte (the session opening: 15). The script answers each request with a
// list of chunks, written with a pause between them.
class Peer {
 public:
  using Script = std::function<std::vector<Bytes>(size_t index, const Bytes& request)>;

  Peer(int master, Script script) : m_master(master), m_script(std::move(script)) {
    m_thread = std::thread([this] { Run(); });
  }
  ~Peer() {
    m_stop = true;
    m_thread.join();
  }
  std::vector<Bytes> Requests() {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
  }

 private:
  static size_t Length(const Bytes& buf) {
    if (buf.size() < 4) return 0;
    if (buf[3] == 0x03) return 10;
    if (buf.size() < 9) return 0;
    if (buf[4] == 0x3F && buf[5] == 0xFF && buf[8] == 0xCC) return 15;  // the session opening
    return 11 + buf[8];
  }

  void Run() {
    Bytes buf;
    while (!m_stop) {
      pollfd p{m_master, POLLIN, 0};
      if (poll(&p, 1, 20) > 0) {
        unsigned char chunk[512];
        ssize_t n = ::read(m_master, chunk, sizeof chunk);
        if (n > 0) buf.insert(buf.end(), chunk, chunk + n);
      }
      size_t len;
      while ((len = Length(buf)) != 0 && buf.size() >= len) {
        Bytes request(buf.begin(), buf.begin() + static_cast<long>(len));
        buf.erase(buf.begin(), buf.begin() + static_cast<long>(len));
        size_t index;
        {
          std::lock_guard<std::mutex> lock(m_mutex);
          index = m_requests.size();
          m_requests.push_back(request);
        }
        std::vector<Bytes> chunks = m_script(index, request);
        for (size_t i = 0; i < chunks.size(); ++i) {
          if (i > 0) std::this_thread::sleep_for(std::chrono::milliseconds(150));
          ssize_t done = ::write(m_master, chunks[i].data(), chunks[i].size());
          (void)done;
        }
      }
    }
  }

  int m_master;
  Script m_script;
  std::atomic<bool> m_stop{false};
  std::mutex m_mutex;
  std::vector<Bytes> m_requests;
  std::thread m_thread;
};

}  // namespace vkt7test
