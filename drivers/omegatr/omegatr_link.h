// Link layer of the OMEGA-TR heat meter: ASCII frames. Every binary byte travels as
// two upper-case hexadecimal characters between a colon and CR LF; the LRC behind
// the body is the two's complement of the 8-bit sum of the body's ASCII characters
// (not of the binary bytes: the meter checks it that way). Replies are read one
// character at a time, framed by the colon and CR LF.
#pragma once

#include <cstddef>
#include <cstdint>

#include "drivers/base/link_exchange.h"

class CConnector;

class COMEGATRLowLevelConnector {
 public:
  // The decoded binary reply (address, function, data; no LRC) at the start of the
  // receive buffer. Valid until the next exchange; empty on failure.
  using ReplyView = mcd::LinkReply;

  COMEGATRLowLevelConnector(CConnector* connector, bool led);
  virtual ~COMEGATRLowLevelConnector();
  COMEGATRLowLevelConnector(const COMEGATRLowLevelConnector&) = delete;
  COMEGATRLowLevelConnector& operator=(const COMEGATRLowLevelConnector&) = delete;

  // One exchange. request[0] is overwritten with the net address, request[1] is the
  // function code, request[2..] the data. Five attempts; a missing, broken or
  // wrongly summed reply is retried after a second's pause, CWrongPacketException
  // after the fifth. A reply that fails the result check throws CDisconnectException
  // unless no_throw (then the view is empty and GetLastError() tells the code).
  ReplyView SendString(unsigned char* request, unsigned short length, const char* func_name, bool no_throw = false);

  void WriteRawLog(const unsigned char* bytes, size_t count, const char* label);

  void SetNetAddr(uint8_t addr) { net_addr = addr; }
  uint8_t GetNetAddr() const { return net_addr; }
  uint8_t GetLastError() const { return m_ucLastError; }

 private:
  static constexpr size_t kBufferSize = 272;
  // Longest reply accepted by ReadCount, in characters.
  static constexpr int kMaxReplyChars = 271;
  // Replies of at most this many characters are not LRC-checked.
  static constexpr int kShortReplyChars = 9;

  // Reads one frame character by character into buffer (kBufferSize bytes). expected
  // is only logged. Fails on a second colon, a CR before the colon or a second CR, an
  // LF before colon and CR, more than kMaxReplyChars characters, no complete frame
  // within timeout_s seconds, or more than 2 seconds between two characters.
  // got: the characters stored.
  bool ReadCount(unsigned char* buffer, int expected, int& got, int timeout_s);

  // sent: the binary request; received: the decoded reply of received_length bytes.
  // 0 when good, else an error value (-1, or the error byte of a command reply); it is
  // also stored in m_ucLastError. Throws CDisconnectException for a wrong address,
  // wrong function, unexpected code or command error unless no_throw.
  int CheckResult(const unsigned char* sent, const unsigned char* received, int received_length, const char* func_name,
                  bool no_throw);

  // The checks of CheckResult that depend on the function.
  int CheckData(unsigned function, const unsigned char* received, int received_length, const char* func_name,
                bool no_throw);
  // Stores value as the last error and returns it; Refuse throws as well unless no_throw.
  int Result(int value);
  int Refuse(int value, bool no_throw);

  void WriteDebugLog(unsigned code, unsigned number, const char* func_name);

  // (256 - sum of text[0..count) mod 256) mod 256.
  static unsigned char CalcLRC(const unsigned char* text, size_t count);
  // Writes 2 * count upper-case hex characters to out.
  static void EncodeHex(const unsigned char* bytes, size_t count, unsigned char* out);
  // Two hex characters (either case) to a byte; a character that is not a hex digit
  // counts as 0.
  static unsigned char DecodeHexByte(unsigned char high, unsigned char low);
  // Seconds ReadCount may take for the reply to a request with this function code.
  static int ReplyTimeLimit(unsigned char function);
  // Characters the reply to this request is expected to have (only logged).
  static int ExpectedReplyChars(const unsigned char* request, unsigned short length);

  void ClearAnswer();
  // Pause, flush the line, clear the receive buffer: the end of every failed attempt.
  void Recover(unsigned pause_us);
  // Recovers and throws mcd::LinkQuietRetry: the attempt failed, the next one follows.
  [[noreturn]] void QuietRetry();
  // One attempt of SendString on the frame in m_send.
  ReplyView Attempt(const unsigned char* request, unsigned short length, const char* func_name, bool no_throw);
  // Decodes the checked reply of decodedLength bytes and judges it.
  ReplyView Accept(const unsigned char* request, int decodedLength, const char* func_name, bool no_throw);

  CConnector* connector;
  bool led;
  uint8_t net_addr;
  uint8_t m_ucLastError;
  unsigned char m_answer[kBufferSize];
  unsigned char m_send[kBufferSize];
  int m_sendLength;
};
