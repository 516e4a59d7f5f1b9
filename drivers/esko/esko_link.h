// Link layer of the ESKO heat meters (MTR-06 and TM-3E).
//
// A request is a 13-byte image (byte 0 = 0, byte 1 = net address, byte 2 = command
// letter, bytes 3..12 parameters) followed by its 8-bit sum. The answer has a length
// fixed by the command: 14 bytes, 261 for an archive page ('A' with a parameter other
// than 3), 1 after a 'Q'. Its byte 2 is the command with bit 7 set on success, or an
// error code with bit 7 clear.
//
// Both meters speak the same link; the two classes differ only in their log prefix
// and in their raw and debug files under the storage root. The exchange itself (five
// attempts, 100 ms between request and answer, 500 ms before every flush after a
// failure) runs on the shared link exchange with the ESKO policy.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "drivers/base/byte_buffer.h"
#include "drivers/base/link_exchange.h"

class CConnector;

// A checked answer: a pointer into the link's receive buffer (valid until the next
// exchange) and the usable length (the answer without its checksum byte).
typedef mcd::LinkReply ReplyView;

class CEskoLowLevelConnector {
 public:
  static constexpr int kBufferSize = 272;
  static constexpr int kImageSize = 13;

  virtual ~CEskoLowLevelConnector();
  CEskoLowLevelConnector(const CEskoLowLevelConnector&) = delete;
  CEskoLowLevelConnector& operator=(const CEskoLowLevelConnector&) = delete;

  // Sends the image (length bytes, 13 in practice) and returns the checked answer.
  // Throws CDisconnectException or CWrongPacketException; with noThrow a time-out or
  // an error answer gives an empty view instead (a short write, an unknown answer
  // command and a wrong checksum always throw).
  ReplyView SendString(const unsigned char* image, int length, const char* funcName, bool noThrow);

  // True when exactly count bytes were read within 5 seconds.
  bool ReadCount(unsigned char* buffer, unsigned short count);

  // 0 when the answer's command is accepted, else the answer's byte 2 (or 0xFF for an
  // unknown command under noThrow).
  uint8_t CheckResult(const unsigned char* sent, const unsigned char* received, const char* funcName,
                      bool noThrow) const;

  static uint8_t CalcCS(const unsigned char* bytes, int count);

  void WriteRawLog(const unsigned char* bytes, int count, const char* label) const;
  void WriteDebugLog(int code, int number, const char* funcName) const;

  void SetNetAddress(uint8_t address) { m_ucNetAddr = address; }
  uint8_t GetNetAddress() const { return m_ucNetAddr; }
  uint8_t LastError() const { return m_ucLastError; }

 protected:
  CEskoLowLevelConnector(CConnector* connector, bool led, const char* prefix, const char* rawLog,
                         const char* debugLog);

 private:
  class Policy;

  bool m_bLed;
  uint8_t m_ucNetAddr = 0;
  uint8_t m_ucLastError = 0;
  std::unique_ptr<Policy> m_policy;
  mcd::LinkExchange m_exchange;
  unsigned char m_send[kBufferSize];
};

class CMTR06LowLevelConnector : public CEskoLowLevelConnector {
 public:
  CMTR06LowLevelConnector(CConnector* connector, bool led);
};

class CTM3ELowLevelConnector : public CEskoLowLevelConnector {
 public:
  CTM3ELowLevelConnector(CConnector* connector, bool led);
};

// Families of the answer cursors: a failed access writes a code-0 line to the
// meter's debug file.
extern const mcd::MeterFamily kMTR06Family;
extern const mcd::MeterFamily kTM3EFamily;

class CMTR06Buffer : public mcd::CMeterBuffer {
 public:
  CMTR06Buffer(const unsigned char* data, int count) : CMeterBuffer(&kMTR06Family, data, count) {
    SetNames("CMTR06Buffer []", "CMTR06Buffer +=");
  }
};

class CTM3EBuffer : public mcd::CMeterBuffer {
 public:
  CTM3EBuffer(const unsigned char* data, int count) : CMeterBuffer(&kTM3EFamily, data, count) {
    SetNames("CTM3EBuffer []", "CTM3EBuffer +=");
  }
};
