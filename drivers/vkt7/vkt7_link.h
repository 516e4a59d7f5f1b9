// Link layer of the VKT-7 heat calculator: Modbus-style binary frames with a two-byte
// preamble and a CRC-16, carried over the shared serial connector.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "drivers/base/byte_buffer.h"
#include "drivers/base/exceptions.h"
#include "drivers/base/link_exchange.h"

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
  ~CVKT7LowLevelConnector();
  CVKT7LowLevelConnector(const CVKT7LowLevelConnector&) = delete;
  CVKT7LowLevelConnector& operator=(const CVKT7LowLevelConnector&) = delete;

  // Completes the request's checksum, sends it and reads the answer, up to three
  // times when the answer does not arrive. Returns a view on the answer from its
  // address byte on (answer[2] + 3 bytes), or an empty view for a tolerated error
  // answer. The view is valid until the next exchange. Stale input is dropped before
  // every send; after a partial read the link waits the wire time of the missing
  // bytes at the port's "speed" (9600 when missing) plus 10 % and 20 ms.
  CVKT7Buffer SendString(unsigned char* request, unsigned short length, const char* func_name,
                         bool tolerate_error);

  unsigned char LastError() const;
  const unsigned char* Answer() const;

 private:
  std::unique_ptr<mcd::LinkPolicy> m_policy;
  std::unique_ptr<mcd::LinkExchange> m_exchange;
};
