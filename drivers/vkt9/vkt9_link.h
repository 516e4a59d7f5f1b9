// Link layer of the VKT-9 heat calculator: Modbus-RTU-like binary frames that carry
// the meter's network address in front and a CRC-16 behind. The caller hands over the
// request body (its first byte is the function code); this class frames it, sends it,
// reads the reply in two pieces (a header whose length follows from the request's
// function and the rest whose length follows from the reply's function), checks the
// CRC, interprets an error reply and retries a reply that did not arrive.
#pragma once

#include <cstddef>
#include <cstdint>

class CConnector;

class CVKT9LowLevelConnector {
 public:
  static constexpr size_t kBufferSize = 272;
  static constexpr int kAttempts = 3;

  // A reply as it stands in the receive buffer: address, function, header and data
  // (the CRC is not counted). Valid until the next exchange; empty on failure.
  struct ReplyView {
    const unsigned char* data = nullptr;
    int length = 0;
    bool empty() const { return data == nullptr; }
  };

  CVKT9LowLevelConnector(CConnector* connector, bool led);
  virtual ~CVKT9LowLevelConnector();
  CVKT9LowLevelConnector(const CVKT9LowLevelConnector&) = delete;
  CVKT9LowLevelConnector& operator=(const CVKT9LowLevelConnector&) = delete;

  // One exchange. body[0] is the function code. Throws CDisconnectException (short
  // write, error reply, unknown reply function, wrong CRC) or CWrongPacketException
  // (no complete reply in three attempts). With no_throw an error reply or a wrong
  // function gives an empty view instead.
  ReplyView SendString(const unsigned char* body, unsigned short length, const char* func_name, bool no_throw = false);

  // Reads exactly count bytes into buffer or throws CWrongPacketException.
  bool ReadCount(unsigned char* buffer, unsigned short count);

  // frame: the request as sent (address first); reply: the received frame.
  // 0 for a good reply, the error code for an error reply, 0xFF for a function
  // outside the accepted set. Throws CDisconnectException on failure unless no_throw.
  unsigned char CheckResult(const unsigned char* frame, const unsigned char* reply, const char* func_name,
                            bool no_throw);

  // Frame dump to the VKT-9 raw log: the label, then every byte as "0x%02X ".
  void WriteRawLog(const unsigned char* bytes, size_t count, const char* label);
  // One line to the VKT-9 debug log for an error reply.
  void WriteDebugLog(unsigned code, unsigned function, const char* func_name);

  // Header length for a request with this function code: 4 for 0x41, else 3.
  static int HeaderLength(unsigned char request_function);
  // Data length N behind the header, from the reply's function code (header[1]) and,
  // for 0x41, its flag byte (header[3]); -1 for a function the link does not know.
  static int DataLength(const unsigned char* header);

  void SetNetAddr(uint8_t addr) { net_addr = addr; }
  uint8_t GetNetAddr() const { return net_addr; }
  uint8_t GetLastError() const { return m_ucLastError; }
  // The frame of the last SendString call (address, body, CRC) and its length.
  const unsigned char* GetFrame() const { return m_frame; }
  unsigned short GetFrameLength() const { return m_frameLength; }

 protected:
  void ClearAnswer();

  CConnector* connector;
  bool led;
  uint8_t net_addr;
  uint8_t m_ucLastError;
  unsigned char m_answer[kBufferSize];
  unsigned char m_frame[kBufferSize];
  unsigned short m_frameLength;
};
