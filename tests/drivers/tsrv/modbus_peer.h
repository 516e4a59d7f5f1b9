// A scripted Modbus meter on the master side of a pseudo-terminal, and a Modbus
// connector on its slave side: each step names the request bytes the driver must send
// and the answer bytes (CRC written out) the meter gives, or none for silence.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"
#include "transport/modbus_connector.h"

namespace mbtest {

inline std::vector<unsigned char> Hex(const std::string& text) {
  std::vector<unsigned char> bytes;
  std::istringstream in(text);
  std::string two;
  while (in >> two) bytes.push_back(static_cast<unsigned char>(std::stoul(two, nullptr, 16)));
  return bytes;
}

struct Step {
  std::string request;
  std::string answer;  // empty: the meter stays silent
};

class ScriptedMeter {
 public:
  ScriptedMeter() {
    std::map<std::string, std::string> params{{"protocol", "modbus"}, {"name", m_pty.slaveName()},
                                              {"speed", "19200"}};
    m_connector.reset(static_cast<CModbusConnector*>(CConnector::CreateConnector(params)));
  }
  ~ScriptedMeter() { Join(); }
  CModbusConnector* connector() { return m_connector.get(); }

  // Plays the steps in a thread of its own; checks each request as it comes.
  void Play(std::vector<Step> steps) {
    Join();
    m_thread = std::thread([this, steps] {
      for (const Step& step : steps) {
        const std::vector<unsigned char> want = Hex(step.request);
        const std::vector<unsigned char> got = m_pty.Read(want.size(), std::chrono::milliseconds(5000));
        EXPECT_EQ(got, want) << "request for step answered with " << step.answer;
        if (got != want) return;
        if (!step.answer.empty()) m_pty.Write(Hex(step.answer));
      }
    });
  }
  void Join() {
    if (m_thread.joinable()) m_thread.join();
  }

 private:
  mcdtest::PtyPair m_pty;
  std::unique_ptr<CModbusConnector> m_connector;
  std::thread m_thread;
};

}  // namespace mbtest
