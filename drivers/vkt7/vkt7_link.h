// Link layer of the VKT-7 heat calculator: Modbus-style binary frames with a two-byte
// preamble and a CRC-16, carried over the shared serial connector.
#pragma once

#include <cstddef>
#include <string>

#include "drivers/base/byte_buffer.h"
#include "drivers/base/exceptions.h"

class CConnector;

// Read cursor over a VKT-7 answer. Failed accesses leave a line in the VKT-7 debug
// file ("CVKT7Buffer []" / "CVKT7Buffer +=") and throw CDisconnectException.
class CVKT7Buffer : public mcd::CMeterBuffer {
 public:
  CVKT7Buffer() : CVKT7Buffer(nullptr, 0) {}
  CVKT7Buffer(const unsigned char* data, int count);

  static const mcd::MeterFamily kFamily;
};

namespace vkt7 {

// The frame dump and the error-line file of the VKT-7 link, under the storage root.
std::string FrameDumpPath();  // "vkt7log.log"
std::string DebugLogPath();   // "vkt7.debug.log"

// Appends label and bytes to the frame dump (removed once past 5242880 bytes).
void WriteFrameDump(const char* label, const unsigned char* bytes, size_t count);
// Appends the error line: raw local time, code, type, function word and name.
void WriteDebugLine(int code, int type, int function, const char* name);

}  // namespace vkt7

class CVKT7LowLevelConnector {
 public:
  CVKT7LowLevelConnector(CConnector* connector, bool led);
  virtual ~CVKT7LowLevelConnector() = default;
  CVKT7LowLevelConnector(const CVKT7LowLevelConnector&) = delete;
  CVKT7LowLevelConnector& operator=(const CVKT7LowLevelConnector&) = delete;

  // Completes the request's checksum, sends it and reads the answer, up to three
  // times when the answer does not arrive. Returns a view on the answer from its
  // address byte on (answer[2] + 3 bytes), or an empty view for a tolerated error
  // answer. The view is valid until the next exchange.
  CVKT7Buffer SendString(unsigned char* request, unsigned short length, const char* func_name,
                         bool tolerate_error);

  // Reads exactly count bytes or throws CWrongPacketException.
  bool ReadCount(unsigned char* dest, unsigned short count);

  // The error code of an error answer (0 for any other answer); throws
  // CDisconnectException for an error answer unless tolerate_error is set.
  unsigned char CheckResult(const unsigned char* request, const unsigned char* answer, const char* func_name,
                            bool tolerate_error);

  unsigned char LastError() const { return m_ucLastError; }
  const unsigned char* Answer() const { return m_answer; }

  static constexpr size_t kAnswerSize = 267;

  // Microseconds to wait after a partial read for the bytes still due: their wire
  // time at the line's speed (10 bits a byte) plus 10 % and 20 ms.
  static long PartialReadPause(int bytesDue, int baud);

 private:
  unsigned char m_ucLastError = 0;
  unsigned char m_answer[kAnswerSize] = {};
  CConnector* m_connector;
  bool m_led;
  int m_baud;  // the line's speed, from the port's "speed" (9600 when missing)
};
