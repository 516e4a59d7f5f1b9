// Test helpers for the meter link layers: a meter played on the master side of a
// pseudo-terminal by a thread that splits what the link sends into requests and
// answers each one through a script, the link's connector on the slave side, and a
// capture of the process log.
#pragma once

#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "log/logger.h"
#include "support/test_support.h"
#include "transport/connector.h"

namespace linktest {

using Bytes = std::vector<unsigned char>;

inline Bytes FromText(const std::string& text) { return Bytes(text.begin(), text.end()); }
inline std::string ToText(const Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// Link tests look at warnings and worse unless they ask for more.
class LogCapture : public mcdtest::LogCapture {
 public:
  explicit LogCapture(int level = logger::TL_WARNING) : mcdtest::LogCapture(level) {}
};

// Plays the meter. The splitter returns the length of the first complete request in
// the bytes received so far (0: not complete yet); the script gets the request's
// index (from 0) and its bytes and answers through Send / SendSlowly.
class ScriptedPeer {
 public:
  using Splitter = std::function<size_t(const Bytes&)>;
  using Script = std::function<void(size_t index, const Bytes& request, ScriptedPeer& peer)>;

  ScriptedPeer(int master, Splitter splitter, Script script)
      : m_master(master), m_splitter(std::move(splitter)), m_script(std::move(script)) {
    m_thread = std::thread([this] { Run(); });
  }
  ~ScriptedPeer() {
    m_stop = true;
    m_thread.join();
  }

  void Send(const Bytes& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      ssize_t n = ::write(m_master, bytes.data() + done, bytes.size() - done);
      if (n <= 0) break;
      done += static_cast<size_t>(n);
    }
  }
  void Send(const std::string& text) { Send(FromText(text)); }
  // One byte at a time with a pause between bytes.
  void SendSlowly(const Bytes& bytes, std::chrono::milliseconds gap) {
    for (size_t i = 0; i < bytes.size() && !m_stop; ++i) {
      if (i) std::this_thread::sleep_for(gap);
      Send(Bytes{bytes[i]});
    }
  }

  std::vector<Bytes> Requests() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_requests;
  }

 private:
  void Run() {
    Bytes pending;
    while (!m_stop) {
      pollfd p{m_master, POLLIN, 0};
      if (poll(&p, 1, 20) <= 0) continue;
      unsigned char buf[512];
      ssize_t n = ::read(m_master, buf, sizeof buf);
      if (n <= 0) continue;
      pending.insert(pending.end(), buf, buf + n);
      while (size_t len = m_splitter(pending)) {
        Bytes request(pending.begin(), pending.begin() + static_cast<long>(len));
        pending.erase(pending.begin(), pending.begin() + static_cast<long>(len));
        size_t index;
        {
          std::lock_guard<std::mutex> lock(m_mutex);
          index = m_requests.size();
          m_requests.push_back(request);
        }
        m_script(index, request, *this);
      }
    }
  }

  int m_master;
  Splitter m_splitter;
  Script m_script;
  std::atomic<bool> m_stop{false};
  mutable std::mutex m_mutex;
  std::vector<Bytes> m_requests;
  std::thread m_thread;
};

// A serial connector opened on the slave side of a fresh pseudo-terminal, with the
// file roots relocated.
struct LinkBench {
  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  std::unique_ptr<CConnector> connector;

  LinkBench() : connector(CConnector::CreateConnector({{"name", pty.slaveName()}})) {}
  explicit LinkBench(const std::string& device) : connector(CConnector::CreateConnector({{"name", device}})) {}
};

}  // namespace linktest
