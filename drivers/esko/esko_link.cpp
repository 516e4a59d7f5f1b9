#include "drivers/esko/esko_link.h"

#include <time.h>
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

void MTR06Failure(const char* name) {
  mcd::AppendDebugLine(mcd::paths::Storage("MTR06.debug.log"), EskoDebugLineText(kMTR06Prefix, 0, 0, name));
}

void TM3EFailure(const char* name) {
  mcd::AppendDebugLine(mcd::paths::Storage("TM3E.debug.log"), EskoDebugLineText(kTM3EPrefix, 0, 0, name));
}

// Whole seconds of a clock that does not jump with the wall clock.
long MonotonicSeconds() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return static_cast<long>(ts.tv_sec);
}

void PauseMs(unsigned ms) { usleep(ms * 1000u); }

}  // namespace

const mcd::MeterFamily kMTR06Family = {&MTR06Failure};
const mcd::MeterFamily kTM3EFamily = {&TM3EFailure};

std::string EskoDebugLineText(const char* prefix, int code, int number, const char* funcName) {
  char text[256];
  snprintf(text, sizeof text, " %sCheckResult - Error on return answer. Code error %d. function %d Func name - %s", prefix,
           code, number, funcName ? funcName : "");
  return text;
}

CEskoLowLevelConnector::CEskoLowLevelConnector(CConnector* connector, bool led, const char* prefix,
                                               const std::string& rawLog, const std::string& debugLog,
                                               const mcd::MeterFamily* family)
    : m_connector(connector), m_bLed(led), m_prefix(prefix), m_rawLog(rawLog), m_debugLog(debugLog), m_family(family) {
  std::memset(m_recv, 0, sizeof m_recv);
  std::memset(m_send, 0, sizeof m_send);
}

CEskoLowLevelConnector::~CEskoLowLevelConnector() = default;

CMTR06LowLevelConnector::CMTR06LowLevelConnector(CConnector* connector, bool led)
    : CEskoLowLevelConnector(connector, led, kMTR06Prefix, mcd::paths::Storage("MTR06log.log"),
                             mcd::paths::Storage("MTR06.debug.log"), &kMTR06Family) {}

CTM3ELowLevelConnector::CTM3ELowLevelConnector(CConnector* connector, bool led)
    : CEskoLowLevelConnector(connector, led, kTM3EPrefix, mcd::paths::Storage("TM3Elog.log"),
                             mcd::paths::Storage("TM3E.debug.log"), &kTM3EFamily) {}

uint8_t CEskoLowLevelConnector::CalcCS(const unsigned char* bytes, int count) {
  uint8_t sum = 0;
  for (int i = 0; i < count; ++i) sum = static_cast<uint8_t>(sum + bytes[i]);
  return sum;
}

bool CEskoLowLevelConnector::IsAcceptedCommand(unsigned char command) {
  return command != 0 && std::strchr("AGLNOQRSTW", command) != nullptr;
}

void CEskoLowLevelConnector::WriteRawLog(const unsigned char* bytes, int count, const char* label) {
  mcd::AppendFrameDump(m_rawLog, label ? label : "", bytes, count > 0 ? static_cast<size_t>(count) : 0);
}

void CEskoLowLevelConnector::WriteDebugLog(int code, int number, const char* funcName) {
  mcd::AppendDebugLine(m_debugLog, EskoDebugLineText(m_prefix, code, number, funcName));
}

void CEskoLowLevelConnector::ClearReceive() { std::memset(m_recv, 0, sizeof m_recv); }

// After a failed exchange: let late bytes arrive, then drop them.
void CEskoLowLevelConnector::FailurePause() {
  PauseMs(500);
  m_connector->flush();
  ClearReceive();
}

ReplyView CEskoLowLevelConnector::SendString(const unsigned char* image, int length, const char* funcName,
                                             bool noThrow) {
  if (length < 3) length = 3;
  if (length > kImageSize) length = kImageSize;
  std::memset(m_send, 0, sizeof m_send);
  std::memcpy(m_send, image, static_cast<size_t>(length));
  m_send[1] = m_ucNetAddr;
  m_send[length] = CalcCS(m_send, length);
  const unsigned short frameLength = static_cast<unsigned short>(length + 1);
  m_ucLastError = 0;

  LOG_DEBUG("%sSendString: net_addr %d, buff size %u\r", m_prefix, m_ucNetAddr, frameLength);

  const unsigned char command = m_send[2];
  unsigned short replyLength = 14;
  if (command == 'A')
    replyLength = m_send[3] == 3 ? 14 : 261;
  else if (command == 'Q')
    replyLength = 1;

  int attempt = 0;
  while (attempt <= 4) {
    try {
      ClearReceive();
      char title[64];
      snprintf(title, sizeof title, "%sWriteBuffer: \r\n", m_prefix);
      LOG_DUMP(title, m_send, frameLength);
      const int written = m_connector->WriteBuffer(m_send, frameLength, 0);
      if (written < frameLength) {
        ClearReceive();
        LOG_CRIT("%sSendString failed - Sent not full string\r", m_prefix);
        throw CDisconnectException();
      }
      PauseMs(100);

      if (!ReadCount(m_recv, replyLength)) {
        LOG_DEBUG("%sSendString: cmd x%X(%c) failed!!!\r", m_prefix, command, command);
        FailurePause();
        if (noThrow) return ReplyView();
        throw CDisconnectException();
      }

      LOG_DEBUG("%sSendString: got %d bytes:\r", m_prefix, replyLength);
      LOG_DUMP("", m_recv, replyLength);
      LOG_DEBUG("Check and read the rest\r");

      if ((m_recv[2] & 0x80) == 0) {
        WriteDebugLog(m_recv[2], m_recv[1], funcName);
        LOG_ERR("%sCheckResult - Error on return answer. Cmd x%X\r\n", m_prefix, command);
        m_ucLastError = m_recv[2];
        FailurePause();
        if (noThrow) return ReplyView();
        throw CDisconnectException();
      }

      if (!IsAcceptedCommand(m_recv[2] & 0x7F)) {
        LOG_CRIT("%sSendString - Wrong Packet Type\r\n", m_prefix);
        FailurePause();
        throw CDisconnectException();
      }

      if (replyLength >= 2) {
        LOG_DEBUG("Check CS\r\n");
        const uint8_t cs = CalcCS(m_recv, replyLength - 1);
        if (cs != m_recv[replyLength - 1]) {
          LOG_CRIT("%sSendString - WRONG CS: x%02x, got x%02x\r\n", m_prefix, cs, m_recv[replyLength - 1]);
          FailurePause();
          throw CDisconnectException();
        }
        m_ucLastError = CheckResult(m_send, m_recv, funcName, noThrow);
      } else {
        // A one-byte answer carries no header of its own: take the request's.
        std::memcpy(m_recv, m_send, 3);
        m_recv[2] |= 0x80;
      }

      LOG_DEBUG("%sSendString: Done, m_ucLastError = %d.\r\n", m_prefix, m_ucLastError);
      if (m_ucLastError != 0) {
        PauseMs(500);
        m_connector->flush();
        return ReplyView();
      }
      ReplyView view;
      view.data = m_recv;
      view.length = replyLength - 1;
      return view;
    } catch (const CWrongPacketException&) {
      PauseMs(500);
      m_connector->flush();
      ClearReceive();
      LOG_CRIT("%sResend %d time\r\n", m_prefix, attempt);
      ++attempt;
    }
  }
  FailurePause();
  throw CWrongPacketException();
}

bool CEskoLowLevelConnector::ReadCount(unsigned char* buffer, unsigned short count) {
  const long start = MonotonicSeconds();
  LOG_DEBUG("%sReadCount: want read %d bytes\r\n", m_prefix, count);
  unsigned short got = 0;
  for (;;) {
    if (MonotonicSeconds() - start >= 5) return false;
    const int result = m_connector->ReadBuffer(buffer + got, static_cast<unsigned short>(count - got), 0);
    if (result < 0) {
      LOG_ERR("%sReadCount: ret -1, need to read - \"%d\", already read - \"%d\"!!!\r\n", m_prefix, count, got);
      throw CWrongPacketException();
    }
    if (result > 0) {
      if (result > count - got) {
        LOG_ERR("%sReadCount - read more!!!\r\n", m_prefix);
        throw CWrongPacketException();
      }
      got = static_cast<unsigned short>(got + result);
    }
    if (got == count) return true;
    LOG_WARNING("%sReadCount - Read not full string, got %d, need %d \r\n", m_prefix, got, count);
    PauseMs(10);
  }
}

uint8_t CEskoLowLevelConnector::CheckResult(const unsigned char* sent, const unsigned char* received,
                                            const char* funcName, bool noThrow) {
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
