// The one scripted test meter: a connector double that answers the link's writes with
// scripted bytes at once (no serial line, no waiting out time-outs) and records what
// was written, and when every write and read happened.
//
// Each write takes the next scripted answer: a list of chunks. A read hands over at
// most the rest of the current chunk, so a chunk boundary is a partial read for the
// link. A read with nothing left is the connector's time-out: -1 at once. A chunk may
// carry a delay: the read that reaches it sleeps that long first, as a read on a slow
// line would. flush() drops whatever is still unread. Writes beyond the script are
// recorded and answered by the responder when one is set (a meter that answers from
// its records), else with silence.
#pragma once

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "transport/connector.h"

namespace mcdtest {

using Bytes = std::vector<unsigned char>;
using SteadyTime = std::chrono::steady_clock::time_point;

// "01 03 A0" -> bytes; "AB*3" repeats a byte; "\":01\\r\\n\"" (in quotes, with \\r and \\n
// escapes) is taken as characters. Throws std::invalid_argument on bad text.
Bytes ParseHex(const std::string& text);
// Bytes as upper-case pairs separated by blanks.
std::string HexText(const unsigned char* bytes, size_t count);
inline std::string HexText(const Bytes& bytes) { return HexText(bytes.data(), bytes.size()); }

struct Chunk {
  Bytes bytes;
  int delayMs = 0;
};
using Answer = std::vector<Chunk>;  // empty: the meter stays silent

class ScriptedMeter : public CConnector {
 public:
  explicit ScriptedMeter(std::vector<Answer> script = {}, const std::map<std::string, std::string>& params = {});
  ~ScriptedMeter() override;

  // Appends an answer to the script.
  void Then(Answer answer) { m_script.push_back(std::move(answer)); }
  // Answers every write beyond the script with responder(request), in one chunk (empty: silence).
  void Respond(std::function<Bytes(const Bytes&)> responder) { m_responder = std::move(responder); }
  // A write of only part of every frame from now on.
  void ShortWrites() { m_shortWrites = true; }

  const std::vector<Bytes>& Writes() const { return m_writes; }
  const std::vector<SteadyTime>& WriteTimes() const { return m_writeTimes; }
  // Start and end of every read call.
  const std::vector<SteadyTime>& ReadStarts() const { return m_readStarts; }
  const std::vector<SteadyTime>& ReadEnds() const { return m_readEnds; }
  int Flushes() const { return m_flushes; }

  int WriteBuffer(const unsigned char* buf, unsigned short len, bool led) override;
  int ReadBuffer(unsigned char* buf, unsigned short len, bool led) override;
  int ReadBufferCycle(unsigned char* buf, unsigned short len, bool led, unsigned int timeout_ms) override;
  bool open_device() override { return true; }
  void close_device() override {}
  int flush() override;
  int drain() override { return 0; }

 private:
  std::vector<Answer> m_script;
  size_t m_next = 0;
  Answer m_pending;  // chunks not yet read, front first
  std::function<Bytes(const Bytes&)> m_responder;
  bool m_shortWrites = false;
  std::vector<Bytes> m_writes;
  std::vector<SteadyTime> m_writeTimes, m_readStarts, m_readEnds;
  int m_flushes = 0;
};

}  // namespace mcdtest
