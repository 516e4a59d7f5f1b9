// Shared pieces of the fuzz targets: a private file-system root and a connector double
// through which the fuzzer plays the meter.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "server/paths.h"
#include "transport/connector.h"

// The links pause between attempts and after failures; the meter here answers at once,
// so the pauses only slow the fuzzer down. This program's own usleep replaces the C
// library's for all code linked into it.
extern "C" int usleep(useconds_t) { return 0; }

namespace mcdfuzz {

// Moves the volatile, storage and lamp roots into a fresh directory, once.
inline void UsePrivateRoot() {
  static bool done = [] {
    // Under TMPDIR when set (scripts/fuzz.sh points it into the build folder), so that
    // runs leave nothing behind in /tmp.
    const char* base = getenv("TMPDIR");
    std::string pattern = std::string(base && *base ? base : "/tmp") + "/mcdfuzz.XXXXXX";
    std::string root = mkdtemp(&pattern[0]) ? pattern : "/tmp";
    for (const char* sub : {"/tmp", "/storage", "/leds"}) mkdir((root + sub).c_str(), 0755);
    setenv("MCD_TMP_DIR", (root + "/tmp/").c_str(), 1);
    setenv("MCD_STORAGE_DIR", (root + "/storage/").c_str(), 1);
    setenv("MCD_LEDS_DIR", (root + "/leds/").c_str(), 1);
    mcd::paths::Reset();
    return true;
  }();
  (void)done;
}

// A line that looks open and has nothing to open, flush or drain; a read with a time
// limit is a plain read. Subclasses play the meter in WriteBuffer / ReadBuffer.
class FuzzLine : public CConnector {
 public:
  FuzzLine() { fd = 1000; }  // looks open; never used
  ~FuzzLine() override { fd = -1; }
  int ReadBufferCycle(unsigned char* buf, unsigned short len, bool led, unsigned int) override {
    return ReadBuffer(buf, len, led);
  }
  bool open_device() override { return true; }
  void close_device() override {}
  int flush() override { return 0; }
  int drain() override { return 0; }
};

// Serves the fuzz input as the meter's answers, a read at a time, and swallows writes.
// When the input is used up it keeps failing reads (-1), or, with a filler byte set,
// answers that byte for ever (for character-driven links that wait out gaps).
class FuzzConnector : public FuzzLine {
 public:
  FuzzConnector(const uint8_t* data, size_t size, int filler = -1) : m_data(data), m_size(size), m_filler(filler) {}

  int WriteBuffer(const unsigned char*, unsigned short len, bool) override { return len; }
  int ReadBuffer(unsigned char* buf, unsigned short len, bool) override {
    if (len == 0) return 0;
    if (m_pos >= m_size) {
      if (m_filler < 0) return -1;
      buf[0] = static_cast<unsigned char>(m_filler);
      return 1;
    }
    // The first byte of what is left chooses how much of it one read hands over.
    size_t left = m_size - m_pos;
    size_t n = 1 + m_data[m_pos] % 16;
    if (n > len) n = len;
    if (n > left) n = left;
    for (size_t i = 0; i < n; ++i) buf[i] = m_data[m_pos + i];
    m_pos += n;
    return static_cast<int>(n);
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_pos = 0;
  int m_filler;
};

}  // namespace mcdfuzz
