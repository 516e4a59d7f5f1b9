#include "drivers/esko/esko_link.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "drivers/base/diag_files.h"
#include "drivers/base/exceptions.h"
#include "log/logger.h"
#include "server/paths.h"
#include "transport/connector.h"

namespace {

const char kMTR06Prefix[] = "CMTR06LowLevelConnector::";
const char kTM3EPrefix[] = "CTM3ELowLevelConnector::";

// The text of a debug-file line after its time prefix.
std::string DebugLineText(const char* prefix, int code, int number, const char* funcName) {
  char text[256];
  snprintf(text, sizeof text, " %sCheckResult - Error on return answer. Code error %d. function %d Func name - %s",
           prefix, code, number, funcName ? funcName : "");
  return text;
}

void MTR06Failure(const char* name) {
  mcd::AppendDebugLine(mcd::paths::Storage("MTR06.debug.log"), DebugLineText(kMTR06Prefix, 0, 0, name));
}

void TM3EFailure(const char* name) {
  mcd::AppendDebugLine(mcd::paths::Storage("TM3E.debug.log"), DebugLineText(kTM3EPrefix, 0, 0, name));
}

bool IsAcceptedCommand(unsigned char command) {
  return command != 0 && std::strchr("AGLNOQRSTW", command) != nullptr;
}

std::string Texted(const char* prefix, const char* text) { return std::string(prefix) + text; }

}  // namespace

const mcd::MeterFamily kMTR06Family = {&MTR06Failure};
const mcd::MeterFamily kTM3EFamily = {&TM3EFailure};

// The ESKO rules on the shared exchange. The whole answer is read at once, its length
// following from the request; an answer whose byte 2 has bit 7 clear is an error answer
// (checked before the command letter and the sum); every failure but a short write is
// followed by 500 ms, a flush of the line and a cleared receive buffer.
class CEskoLowLevelConnector::Policy : public mcd::LinkPolicy {
 public:
  Policy(const char* prefix, const char* rawLog, const char* debugLog, int lineSpeed)
      : m_prefix(prefix), m_rawLog(mcd::paths::Storage(rawLog)), m_debugLog(mcd::paths::Storage(debugLog)) {
    attempts = 5;
    baud = lineSpeed;
    pauseAfterWriteUs = 100000;
    readLimitSeconds = 5;
    texts.shortWrite = Texted(prefix, "SendString failed - Sent not full string\r");
    texts.readWant = Texted(prefix, "ReadCount: want read %d bytes\r\n");
    texts.readFailed = Texted(prefix, "ReadCount: ret -1, need to read - \"%d\", already read - \"%d\"!!!\r\n");
    texts.readMore = Texted(prefix, "ReadCount - read more!!!\r\n");
    texts.readPartial = Texted(prefix, "ReadCount - Read not full string, got %d, need %d \r\n");
    texts.wrongType = Texted(prefix, "SendString - Wrong Packet Type\r\n");
    texts.resend = Texted(prefix, "Resend %d time\r\n");
  }

  int HeaderLength(const unsigned char* frame, int) const override {
    if (frame[2] == 'A') return frame[3] == 3 ? 14 : 261;
    return frame[2] == 'Q' ? 1 : 14;
  }

  // Nothing follows the answer read whole; an unknown command letter is refused.
  int RestLength(const unsigned char*, const unsigned char* header) const override {
    return IsAcceptedCommand(header[2] & 0x7F) ? 0 : -1;
  }

  // A 'Q' answer is one byte, so its byte 2 is still cleared here: it always ends as an
  // error answer with the code 0.
  int EarlyError(const unsigned char* frame, const unsigned char* header, const char* funcName) const override {
    if (header[2] & 0x80) return -1;
    WriteDebugLog(header[2], header[1], funcName);
    LOG_ERR("%sCheckResult - Error on return answer. Cmd x%X\r\n", m_prefix, frame[2]);
    return header[2];
  }

  bool CheckReply(const unsigned char* reply, int length) const override {
    LOG_DEBUG("Check CS\r\n");
    const uint8_t cs = CalcCS(reply, length - 1);
    if (cs == reply[length - 1]) return true;
    LOG_CRIT("%sSendString - WRONG CS: x%02x, got x%02x\r\n", m_prefix, cs, reply[length - 1]);
    return false;
  }

  int Verdict(const unsigned char* frame, unsigned char* reply, int, const char* funcName) const override {
    const uint8_t code = Check(frame, reply, funcName, true);
    return code == 0 ? -1 : code;
  }

  int ViewLength(const unsigned char*, int length) const override { return length - 1; }

  void AfterFailure(mcd::LinkEvent event, const unsigned char* frame, CConnector& connector) const override {
    if (event == mcd::LinkEvent::kShortWrite) return;
    if (event == mcd::LinkEvent::kReadTimeLimit)
      LOG_DEBUG("%sSendString: cmd x%X(%c) failed!!!\r", m_prefix, frame[2], frame[2]);
    usleep(500000);
    connector.flush();
  }

  void Trace(mcd::LinkStep step, const unsigned char* bytes, int count) const override {
    if (step == mcd::LinkStep::kWrite) {
      LOG_DUMP(Texted(m_prefix, "WriteBuffer: \r\n").c_str(), bytes, static_cast<size_t>(count));
    } else if (step == mcd::LinkStep::kHeader) {
      LOG_DEBUG("%sSendString: got %d bytes:\r", m_prefix, count);
      LOG_DUMP("", bytes, static_cast<size_t>(count));
      LOG_DEBUG("Check and read the rest\r");
    } else if (step == mcd::LinkStep::kDone) {
      LOG_DEBUG("%sSendString: Done, m_ucLastError = %d.\r\n", m_prefix, count);
    }
  }

  uint8_t Check(const unsigned char* sent, const unsigned char* received, const char* funcName, bool noThrow) const {
    if (received[2] & 0x80) {
      if (IsAcceptedCommand(received[2] & 0x7F)) return 0;
      // The answered command is printed first, the requested one second.
      LOG_ERR("%sCheckResult - Error on return answer. Wrong cmd: sent %X, ret %X\r\n", m_prefix, received[2] & 0x7F,
              sent[2]);
      if (!noThrow) throw CDisconnectException();
      return 0xFF;
    }
    WriteDebugLog(received[2], received[1], funcName);
    LOG_ERR("%sCheckResult - Wrong cmd in returned answer. Cmd %02X\r\n", m_prefix, received[2]);
    if (!noThrow) throw CDisconnectException();
    return received[2];
  }

  void WriteDebugLog(int code, int number, const char* funcName) const {
    mcd::AppendDebugLine(m_debugLog, DebugLineText(m_prefix, code, number, funcName));
  }

  void WriteRawLog(const unsigned char* bytes, int count, const char* label) const {
    mcd::AppendFrameDump(m_rawLog, label ? label : "", bytes, count > 0 ? static_cast<size_t>(count) : 0);
  }

  const char* Prefix() const { return m_prefix; }

 private:
  const char* m_prefix;
  std::string m_rawLog;
  std::string m_debugLog;
};

CEskoLowLevelConnector::CEskoLowLevelConnector(CConnector* connector, bool led, const char* prefix,
                                               const char* rawLog, const char* debugLog)
    : m_bLed(led), m_policy(new Policy(prefix, rawLog, debugLog, mcd::LineSpeed(connector))), m_exchange(connector, false, *m_policy) {
  std::memset(m_send, 0, sizeof m_send);
}

CEskoLowLevelConnector::~CEskoLowLevelConnector() = default;

CMTR06LowLevelConnector::CMTR06LowLevelConnector(CConnector* connector, bool led)
    : CEskoLowLevelConnector(connector, led, kMTR06Prefix, "MTR06log.log", "MTR06.debug.log") {}

CTM3ELowLevelConnector::CTM3ELowLevelConnector(CConnector* connector, bool led)
    : CEskoLowLevelConnector(connector, led, kTM3EPrefix, "TM3Elog.log", "TM3E.debug.log") {}

uint8_t CEskoLowLevelConnector::CalcCS(const unsigned char* bytes, int count) {
  uint8_t sum = 0;
  for (int i = 0; i < count; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
  return sum;
}

void CEskoLowLevelConnector::WriteRawLog(const unsigned char* bytes, int count, const char* label) const {
  m_policy->WriteRawLog(bytes, count, label);
}

void CEskoLowLevelConnector::WriteDebugLog(int code, int number, const char* funcName) const {
  m_policy->WriteDebugLog(code, number, funcName);
}

uint8_t CEskoLowLevelConnector::CheckResult(const unsigned char* sent, const unsigned char* received,
                                            const char* funcName, bool noThrow) const {
  return m_policy->Check(sent, received, funcName, noThrow);
}

bool CEskoLowLevelConnector::ReadCount(unsigned char* buffer, unsigned short count) {
  return m_exchange.ReadCount(buffer, count);
}

ReplyView CEskoLowLevelConnector::SendString(const unsigned char* image, int length, const char* funcName,
                                             bool noThrow) {
  if (length < 3) length = 3;
  if (length > kImageSize) length = kImageSize;
  std::memset(m_send, 0, sizeof m_send);
  std::memcpy(m_send, image, static_cast<size_t>(length));
  m_send[1] = m_ucNetAddr;
  m_send[length] = CalcCS(m_send, length);
  LOG_DEBUG("%sSendString: net_addr %d, buff size %u\r", m_policy->Prefix(), m_ucNetAddr,
            static_cast<unsigned>(length + 1));
  m_ucLastError = 0;
  try {
    const ReplyView view = m_exchange.Exchange(m_send, length + 1, funcName, noThrow);
    m_ucLastError = static_cast<uint8_t>(m_exchange.LastError());
    return view;
  } catch (...) {
    m_ucLastError = static_cast<uint8_t>(m_exchange.LastError());
    throw;
  }
}
