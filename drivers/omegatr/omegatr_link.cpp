#include "drivers/omegatr/omegatr_link.h"

#include <unistd.h>

#include <chrono>
#include <cstring>
#include <string>

#include "drivers/base/diag_files.h"
#include "drivers/base/exceptions.h"
#include "drivers/base/link_exchange.h"
#include "log/logger.h"
#include "server/paths.h"
#include "transport/connector.h"

namespace {

constexpr useconds_t kPauseBeforeWrite = 10000;
constexpr useconds_t kPauseAfterWrite = 100000;
constexpr useconds_t kPauseIdleRead = 10000;
constexpr useconds_t kPauseFailure = 1000000;
constexpr useconds_t kPauseErrorReply = 900000;
constexpr auto kCharGap = std::chrono::seconds(2);

const char* const kRawLogName = "OMEGATRlog.log";
const char* const kDebugLogName = "OMEGATR.debug.log";

const char kHexDigits[] = "0123456789ABCDEF";

int HexValue(unsigned char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return 0;
}

}  // namespace

COMEGATRLowLevelConnector::COMEGATRLowLevelConnector(CConnector* connector, bool led)
    : connector(connector), led(led), net_addr(0), m_ucLastError(0), m_sendLength(0) {
  memset(m_answer, 0, sizeof m_answer);
  memset(m_send, 0, sizeof m_send);
}

COMEGATRLowLevelConnector::~COMEGATRLowLevelConnector() = default;

void COMEGATRLowLevelConnector::ClearAnswer() { memset(m_answer, 0, sizeof m_answer); }

void COMEGATRLowLevelConnector::Recover(unsigned pause_us) {
  usleep(pause_us);
  connector->flush();
  ClearAnswer();
}

unsigned char COMEGATRLowLevelConnector::CalcLRC(const unsigned char* text, size_t count) {
  unsigned sum = 0;
  for (size_t i = 0; i < count; ++i) sum += text[i];
  return static_cast<unsigned char>((256 - (sum % 256)) % 256);
}

void COMEGATRLowLevelConnector::EncodeHex(const unsigned char* bytes, size_t count, unsigned char* out) {
  for (size_t i = 0; i < count; ++i) {
    out[2 * i] = static_cast<unsigned char>(kHexDigits[bytes[i] >> 4]);
    out[2 * i + 1] = static_cast<unsigned char>(kHexDigits[bytes[i] & 0x0F]);
  }
}

unsigned char COMEGATRLowLevelConnector::DecodeHexByte(unsigned char high, unsigned char low) {
  return static_cast<unsigned char>((HexValue(high) << 4) | HexValue(low));
}

int COMEGATRLowLevelConnector::ReplyTimeLimit(unsigned char function) {
  // the reads may make the meter collect data first; everything else answers at once
  return (function == 4 || function == 20) ? 5 : 4;
}

int COMEGATRLowLevelConnector::ExpectedReplyChars(const unsigned char* request, unsigned short length) {
  if (length < 2) return 7;
  switch (request[1]) {
    case 4:
    case 20:
      return 15;
    case 104:
      return 13;
    case 100:
    case 101:
    case 102:
    case 103:
      return 9;
    default:
      return 7;
  }
}

namespace {

// Every lost reply costs a second's pause and a flush, and so does the give-up after
// the fifth attempt.
class OmegaRetryPolicy : public mcd::RetryPolicy {
 public:
  OmegaRetryPolicy() {
    attempts = 5;
    texts.resend = "COMEGATRLowLevelConnector::Resend %d time\r\n";
  }
  void AfterFailure(mcd::LinkEvent, const unsigned char*, CConnector& line) const override {
    usleep(kPauseFailure);
    line.flush();
  }
};

}  // namespace

COMEGATRLowLevelConnector::ReplyView COMEGATRLowLevelConnector::SendString(unsigned char* request,
                                                                           unsigned short length,
                                                                           const char* func_name, bool no_throw) {
  const int frameLength = 2 * static_cast<int>(length) + 5;
  if (length < 2 || frameLength > static_cast<int>(kBufferSize)) {
    LOG_CRIT("COMEGATRLowLevelConnector::SendString - wrong request size %u\r", static_cast<unsigned>(length));
    throw CDisconnectException();
  }
  request[0] = net_addr;
  memset(m_send, 0, sizeof m_send);
  m_send[0] = ':';
  EncodeHex(request, length, m_send + 1);
  unsigned char lrc = CalcLRC(m_send + 1, 2 * static_cast<size_t>(length));
  EncodeHex(&lrc, 1, m_send + 1 + 2 * length);
  m_send[frameLength - 2] = '\r';
  m_send[frameLength - 1] = '\n';
  m_sendLength = frameLength;
  LOG_DEBUG("COMEGATRLowLevelConnector::SendString: net_addr %d, buff size %u, pack size %d\r", net_addr,
            static_cast<unsigned>(length), frameLength);
  m_ucLastError = 0;
  static const OmegaRetryPolicy kPolicy;
  return mcd::RunAttempts(kPolicy, *connector, m_send, [&](int) { return Attempt(request, length, func_name, no_throw); });
}

void COMEGATRLowLevelConnector::QuietRetry() {
  Recover(kPauseFailure);
  m_ucLastError = 0;
  throw mcd::LinkQuietRetry();
}

COMEGATRLowLevelConnector::ReplyView COMEGATRLowLevelConnector::Attempt(const unsigned char* request,
                                                                        unsigned short length, const char* func_name,
                                                                        bool no_throw) {
  const unsigned char function = request[1];
  ClearAnswer();
  LOG_DUMP("COMEGATRLowLevelConnector::WriteBuffer: \r\n", m_send, static_cast<size_t>(m_sendLength));
  usleep(kPauseBeforeWrite);
  if (connector->WriteBuffer(m_send, static_cast<unsigned short>(m_sendLength), false) != m_sendLength) {
    LOG_CRIT("COMEGATRLowLevelConnector::SendString failed - Sent not full string\r");
    QuietRetry();
  }
  usleep(kPauseAfterWrite);
  int got = 0;
  if (!ReadCount(m_answer, ExpectedReplyChars(request, length), got, ReplyTimeLimit(function))) {
    LOG_DEBUG("COMEGATRLowLevelConnector::SendString: cmd x%X failed!!!\r", function);
    QuietRetry();
  }
  LOG_DEBUG("COMEGATRLowLevelConnector::SendString: got %d bytes:\r", got);
  LOG_DUMP("COMEGATRLowLevelConnector::SendString: reply", m_answer, static_cast<size_t>(got));
  LOG_DEBUG("Check and read the rest\r");
  if ((m_answer[0] & 0x3A) == 0) {
    WriteDebugLog(m_answer[0], function, func_name);
    LOG_ERR("COMEGATRLowLevelConnector::CheckResult - Error on return answer. Func x%X\r\n", function);
    m_ucLastError = 0xFF;
    Recover(kPauseFailure);
    if (no_throw) return ReplyView();
    throw CDisconnectException();
  }
  // colon, body, two LRC characters, CR, LF
  const int bodyChars = got >= 5 ? got - 5 : 0;
  if (got > kShortReplyChars) {
    LOG_DEBUG("Check LRC\r\n");
    unsigned char computed = CalcLRC(m_answer + 1, static_cast<size_t>(bodyChars));
    unsigned char received = DecodeHexByte(m_answer[got - 4], m_answer[got - 3]);
    if (computed != received) {
      LOG_CRIT("COMEGATRLowLevelConnector::SendString - WRONG CS: x%02x, got x%02x\r\n", computed, received);
      QuietRetry();
    }
  }
  return Accept(request, bodyChars / 2, func_name, no_throw);
}

COMEGATRLowLevelConnector::ReplyView COMEGATRLowLevelConnector::Accept(const unsigned char* request,
                                                                       int decodedLength, const char* func_name,
                                                                       bool no_throw) {
  unsigned char decoded[kBufferSize / 2];
  memset(decoded, 0, sizeof decoded);
  for (int i = 0; i < decodedLength; ++i) decoded[i] = DecodeHexByte(m_answer[1 + 2 * i], m_answer[2 + 2 * i]);
  LOG_DEBUG("COMEGATRLowLevelConnector::SendString: has %d bytes from response\n", decodedLength);
  try {
    CheckResult(request, decoded, decodedLength, func_name, no_throw);
  } catch (const CDisconnectException&) {
    Recover(kPauseErrorReply);
    throw;
  }
  LOG_DEBUG("COMEGATRLowLevelConnector::SendString: Done, m_ucLastError = %d.\r\n", m_ucLastError);
  if (m_ucLastError != 0) {
    Recover(kPauseErrorReply);
    return ReplyView();
  }
  memcpy(m_answer, decoded, static_cast<size_t>(decodedLength));
  LOG_DEBUG("COMEGATRLowLevelConnector::SendString: dump %d bytes:\r", decodedLength);
  LOG_DUMP("COMEGATRLowLevelConnector::SendString: decoded", m_answer, static_cast<size_t>(decodedLength));
  ReplyView view;
  view.data = m_answer;
  view.length = decodedLength;
  return view;
}

bool COMEGATRLowLevelConnector::ReadCount(unsigned char* buffer, int expected, int& got, int timeout_s) {
  using SteadyClock = std::chrono::steady_clock;
  LOG_DEBUG("COMEGATRLowLevelConnector::ReadCount: want read %d bytes\r\n", expected);
  auto deadline = SteadyClock::now() + std::chrono::seconds(timeout_s);
  int count = 0;
  bool colon = false;
  bool cr = false;
  got = 0;

  auto broken = [&](const char* what) {
    LOG_ERR("COMEGATRLowLevelConnector::ReadCount - broken frame (%s), cnt %d\r\n", what, count);
    got = count;
    return false;
  };

  while (true) {
    unsigned char c = 0;
    int n = connector->ReadBuffer(&c, 1, false);
    // a character that arrives after the deadline is too late as well
    if (SteadyClock::now() > deadline) {
      LOG_ERR("COMEGATRLowLevelConnector::ReadCount: ret -1, already read - \"%d\"!!!\r\n", count);
      got = count;
      return false;
    }
    if (n <= 0) {
      usleep(kPauseIdleRead);
      continue;
    }
    deadline = SteadyClock::now() + kCharGap;

    if (c == ':') {
      if (colon) return broken("second colon");
      colon = true;
      count = 0;
      buffer[count++] = c;
      LOG_WARNING("COMEGATRLowLevelConnector::ReadCount - got 0x3a(:), cnt %d \r\n", count);
      continue;
    }
    if (count >= kMaxReplyChars) return broken("too long");
    if (c == '\r') {
      LOG_WARNING("COMEGATRLowLevelConnector::ReadCount - got 0x0d(CR), cnt %d \r\n", count);
      if (!colon) return broken("CR before colon");
      if (cr) return broken("second CR");
      cr = true;
      buffer[count++] = c;
      continue;
    }
    if (c == '\n') {
      LOG_WARNING("COMEGATRLowLevelConnector::ReadCount - got 0x0a(LF), cnt %d \r\n", count);
      if (!colon || !cr) return broken("LF before colon and CR");
      buffer[count++] = c;
      got = count;
      LOG_DEBUG("COMEGATRLowLevelConnector::ReadCount - Read full string %d\r\n", count);
      return true;
    }
    buffer[count++] = c;
  }
}

int COMEGATRLowLevelConnector::Result(int value) {
  m_ucLastError = static_cast<uint8_t>(value);
  return value;
}

int COMEGATRLowLevelConnector::Refuse(int value, bool no_throw) {
  m_ucLastError = static_cast<uint8_t>(value);
  if (!no_throw) throw CDisconnectException();
  return value;
}

int COMEGATRLowLevelConnector::CheckResult(const unsigned char* sent, const unsigned char* received,
                                           int received_length, const char* func_name, bool no_throw) {
  const unsigned at0 = received_length > 0 ? received[0] : 0u;
  const unsigned at1 = received_length > 1 ? received[1] : 0u;
  const unsigned function = sent[1];
  if (at0 != sent[0]) {
    LOG_ERR("COMEGATRLowLevelConnector::CheckResult - Error on return answer. Wrong addr: sent %X, ret %X\r\n", sent[0],
            at0);
    return Refuse(-1, no_throw);
  }
  if (at1 != function) {
    LOG_ERR("COMEGATRLowLevelConnector::CheckResult - Error on return answer. Wrong func: sent %X, ret %X\r\n",
            function, at1);
    return Refuse(-1, no_throw);
  }
  return CheckData(function, received, received_length, func_name, no_throw);
}

int COMEGATRLowLevelConnector::CheckData(unsigned function, const unsigned char* received, int received_length,
                                         const char* func_name, bool no_throw) {
  auto at = [&](int i) -> unsigned { return i < received_length ? received[i] : 0u; };
  switch (function) {
    case 4:
    case 20:
      // address, function, count of data bytes, data
      if (received_length < 3 || at(2) == 0) {
        LOG_ERR("COMEGATRLowLevelConnector::CheckResult - No data in returned answer. Func %02X\r\n", function);
        return Result(-1);
      }
      if (received_length < static_cast<int>(at(2)) + 3) {
        LOG_ERR("COMEGATRLowLevelConnector::CheckResult:Func %02X - wrong data len, need x%02x+3, got x%02x\r\n",
                function, at(2), static_cast<unsigned>(received_length));
        return Result(-1);
      }
      return Result(0);
    case 104:
      if (received_length < 4) {
        LOG_ERR("COMEGATRLowLevelConnector::CheckResult:Func %02X - wrong data len, need 4, got x%02x\r\n", function,
                static_cast<unsigned>(received_length));
        return Result(-1);
      }
      return Result(0);
    case 100:
    case 101:
    case 102:
    case 103:
      // a command is confirmed by address and function; a longer reply carries an
      // error byte at position 3
      if (received_length >= 4 && at(3) != 0) {
        WriteDebugLog(at(3), function, func_name);
        LOG_ERR("COMEGATRLowLevelConnector::CheckResult - Error on return answer. Code error %X. Function %X\r\n", at(3),
                function);
        return Refuse(static_cast<int>(at(3)), no_throw);
      }
      return Result(0);
    default:
      LOG_ERR("COMEGATRLowLevelConnector::CheckResult - Error on return answer. Wrong cmd: sent %X, ret %X\r\n", function,
              at(1));
      return Refuse(-1, no_throw);
  }
}

void COMEGATRLowLevelConnector::WriteRawLog(const unsigned char* bytes, size_t count, const char* label) {
  mcd::AppendFrameDump(mcd::paths::Storage(kRawLogName), label ? label : "", bytes, count);
}

void COMEGATRLowLevelConnector::WriteDebugLog(unsigned code, unsigned number, const char* func_name) {
  std::string text = " COMEGATRLowLevelConnector::CheckResult - Error on return answer. Code error ";
  text += std::to_string(code);
  text += ". function ";
  text += std::to_string(number);
  text += " Func name - ";
  text += func_name ? func_name : "";
  mcd::AppendDebugLine(mcd::paths::Storage(kDebugLogName), text);
}
