#include "support/scripted_meter.h"

#include <cstdio>
#include <stdexcept>
#include <thread>

namespace mcdtest {

// "text" with \r and \n escapes, for character links.
static Bytes ParseQuoted(const std::string& text) {
  Bytes out;
  const size_t end = text.rfind('"');
  for (size_t i = text.find('"') + 1; i < end; ++i) {
    if (text[i] == '\\' && i + 1 < end) {
      ++i;
      out.push_back(text[i] == 'r' ? '\r' : text[i] == 'n' ? '\n' : static_cast<unsigned char>(text[i]));
    } else {
      out.push_back(static_cast<unsigned char>(text[i]));
    }
  }
  return out;
}

Bytes ParseHex(const std::string& text) {
  const size_t first = text.find_first_not_of(" \t");
  if (first != std::string::npos && text[first] == '"') return ParseQuoted(text);
  Bytes out;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] == ' ' || text[i] == '\t') {
      ++i;
      continue;
    }
    size_t used = 0;
    const int value = std::stoi(text.substr(i, 2), &used, 16);
    if (used != 2) throw std::invalid_argument("hex pair expected: " + text.substr(i));
    i += 2;
    long repeat = 1;
    if (i < text.size() && text[i] == '*') {
      size_t digits = 0;
      repeat = std::stol(text.substr(i + 1), &digits, 10);
      i += 1 + digits;
    }
    out.insert(out.end(), static_cast<size_t>(repeat), static_cast<unsigned char>(value));
  }
  return out;
}

std::string HexText(const unsigned char* bytes, size_t count) {
  std::string out;
  char pair[4];
  for (size_t i = 0; i < count; ++i) {
    snprintf(pair, sizeof pair, i ? " %02X" : "%02X", bytes[i]);
    out += pair;
  }
  return out;
}

ScriptedMeter::ScriptedMeter(std::vector<Answer> script, const std::map<std::string, std::string>& params)
    : m_script(std::move(script)) {
  fd = 1000;  // looks open; never used
  this->params = params;
}

ScriptedMeter::~ScriptedMeter() { fd = -1; }

int ScriptedMeter::WriteBuffer(const unsigned char* buf, unsigned short len, bool) {
  m_writes.emplace_back(buf, buf + len);
  m_writeTimes.push_back(std::chrono::steady_clock::now());
  if (m_next < m_script.size()) {
    const Answer& answer = m_script[m_next++];
    m_pending.insert(m_pending.end(), answer.begin(), answer.end());
  } else if (m_responder) {
    Bytes answer = m_responder(m_writes.back());
    if (!answer.empty()) m_pending.push_back(Chunk{std::move(answer)});
  }
  return m_shortWrites && len > 0 ? len - 1 : len;
}

int ScriptedMeter::ReadBuffer(unsigned char* buf, unsigned short len, bool) {
  m_readStarts.push_back(std::chrono::steady_clock::now());
  int n = -1;
  if (!m_pending.empty() && len > 0) {
    Chunk& chunk = m_pending.front();
    if (chunk.delayMs > 0) std::this_thread::sleep_for(std::chrono::milliseconds(chunk.delayMs));
    chunk.delayMs = 0;
    n = static_cast<int>(std::min<size_t>(len, chunk.bytes.size()));
    std::copy(chunk.bytes.begin(), chunk.bytes.begin() + n, buf);
    chunk.bytes.erase(chunk.bytes.begin(), chunk.bytes.begin() + n);
    if (chunk.bytes.empty()) m_pending.erase(m_pending.begin());
  }
  m_readEnds.push_back(std::chrono::steady_clock::now());
  return n;
}

int ScriptedMeter::ReadBufferCycle(unsigned char* buf, unsigned short len, bool led, unsigned int) {
  int total = 0;
  while (total < len) {
    const int n = ReadBuffer(buf + total, static_cast<unsigned short>(len - total), led);
    if (n <= 0) break;
    total += n;
  }
  return total != 0 ? total : -1;
}

int ScriptedMeter::flush() {
  ++m_flushes;
  m_pending.clear();
  return 0;
}

}  // namespace mcdtest
