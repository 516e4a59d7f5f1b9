// Link layer of the VKT-9 heat calculator: Modbus-RTU-like binary frames that carry
// the meter's network address in front and a CRC-16 behind. The caller hands over the
// request body (its first byte is the function code); this class frames it, sends it,
// reads the reply in two pieces (a header whose length follows from the request's
// function and the rest whose length follows from the reply's function), checks the
// CRC, interprets an error reply and retries a reply that did not arrive.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "drivers/base/link_exchange.h"

class CConnector;

class CVKT9LowLevelConnector {
 public:
  // A reply as it stands in the receive buffer: address, function, header and data
  // (the CRC is not counted). Valid until the next exchange; empty on failure.
  using ReplyView = mcd::LinkReply;

  CVKT9LowLevelConnector(CConnector* connector, bool led);
  ~CVKT9LowLevelConnector();
  CVKT9LowLevelConnector(const CVKT9LowLevelConnector&) = delete;
  CVKT9LowLevelConnector& operator=(const CVKT9LowLevelConnector&) = delete;

  // One exchange. body[0] is the function code. Throws CDisconnectException (short
  // write, error reply, unknown reply function, wrong CRC) or CWrongPacketException
  // (no complete reply in three attempts). With no_throw an error reply or a wrong
  // function gives an empty view instead; GetLastError() tells its code (0xFF for a
  // function outside the accepted set).
  ReplyView SendString(const unsigned char* body, unsigned short length, const char* func_name, bool no_throw = false);

  // Frame dump to the VKT-9 raw log: the label, then every byte as "0x%02X ".
  void WriteRawLog(const unsigned char* bytes, size_t count, const char* label);

  void SetNetAddr(uint8_t addr) { net_addr = addr; }
  uint8_t GetNetAddr() const { return net_addr; }
  uint8_t GetLastError() const { return static_cast<uint8_t>(m_exchange->LastError()); }

 private:
  static constexpr size_t kFrameSize = 272;

  uint8_t net_addr = 0;
  std::unique_ptr<mcd::LinkPolicy> m_policy;
  std::unique_ptr<mcd::LinkExchange> m_exchange;
  unsigned char m_frame[kFrameSize] = {};
};
