#include "drivers/vkt9/vkt9_link.h"

#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "drivers/base/crc16.h"
#include "drivers/base/diag_files.h"
#include "drivers/base/exceptions.h"
#include "log/logger.h"
#include "server/paths.h"
#include "transport/connector.h"

namespace {

constexpr useconds_t kPauseAfterWrite = 100000;
constexpr useconds_t kPausePartialRead = 100000;
constexpr useconds_t kPauseErrorReply = 100000;
constexpr useconds_t kPauseWrongCrc = 100000;
constexpr useconds_t kPauseWrongType = 500000;
constexpr useconds_t kPauseGiveUp = 500000;

const char* const kRawLogName = "VKT9log.log";
const char* const kDebugLogName = "VKT9.debug.log";

}  // namespace

CVKT9LowLevelConnector::CVKT9LowLevelConnector(CConnector* connector, bool led)
    : connector(connector), led(led), net_addr(0), m_ucLastError(0), m_frameLength(0) {
  memset(m_answer, 0, sizeof m_answer);
  memset(m_frame, 0, sizeof m_frame);
}

CVKT9LowLevelConnector::~CVKT9LowLevelConnector() = default;

void CVKT9LowLevelConnector::ClearAnswer() { memset(m_answer, 0, sizeof m_answer); }

int CVKT9LowLevelConnector::HeaderLength(unsigned char request_function) { return request_function == 0x41 ? 4 : 3; }

int CVKT9LowLevelConnector::DataLength(const unsigned char* header) {
  switch (header[1]) {
    case 0x03:
    case 0x04:
    case 0x11:
      return header[2];
    case 0x06:
      return 3;
    case 0x41: {
      // the flag byte sizes the reply: a short or a long base block and up to two
      // additional blocks of 106 bytes
      unsigned char flag = header[3];
      int n = (flag & 0x08) ? 47 : 3;
      if (flag & 0x10) n += 106;
      if (flag & 0x20) n += 106;
      return n;
    }
    case 0x42:
      return 5;
    default:
      return -1;
  }
}

CVKT9LowLevelConnector::ReplyView CVKT9LowLevelConnector::SendString(const unsigned char* body, unsigned short length,
                                                                     const char* func_name, bool no_throw) {
  if (length == 0 || static_cast<size_t>(length) + 3 > kBufferSize) {
    LOG_CRIT("CVKT9LowLevelConnector::SendString - wrong request size %u\r", static_cast<unsigned>(length));
    throw CDisconnectException();
  }
  // address, body, CRC over both (low byte first)
  memset(m_frame, 0, sizeof m_frame);
  m_frame[0] = net_addr;
  memcpy(m_frame + 1, body, length);
  mcd::AppendCrc16(m_frame, static_cast<size_t>(length) + 1);
  m_frameLength = static_cast<unsigned short>(length + 3);
  LOG_DEBUG("CVKT9LowLevelConnector::SendString: net_addr %d, buff size %u\r", net_addr,
            static_cast<unsigned>(m_frameLength));

  const int header = HeaderLength(body[0]);
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    try {
      ClearAnswer();
      int written = connector->WriteBuffer(m_frame, m_frameLength, led);
      if (written != static_cast<int>(m_frameLength)) {
        ClearAnswer();
        LOG_CRIT("CVKT9LowLevelConnector::SendString failed - Sent not full string\r");
        throw CDisconnectException();
      }

      usleep(kPauseAfterWrite);
      ReadCount(m_answer, static_cast<unsigned short>(header));
      LOG_DEBUG("CVKT9LowLevelConnector::SendString: got %d bytes:\r", header);
      LOG_DUMP("CVKT9LowLevelConnector::SendString: header", m_answer, static_cast<size_t>(header));
      LOG_DEBUG("Check and read the rest\r");

      if (m_answer[1] & 0x80) {
        // error reply: the function with bit 7 set, the code behind it
        unsigned char code = m_answer[2];
        unsigned char function = m_answer[1];
        WriteDebugLog(code, function, func_name);
        LOG_ERR("CVKT9LowLevelConnector::CheckResult - Error on return answer. Code error %X. Function %X\r\n", code,
                function);
        m_ucLastError = code;
        usleep(kPauseErrorReply);
        connector->flush();
        ClearAnswer();
        if (no_throw) return ReplyView();
        throw CDisconnectException();
      }

      int data = DataLength(m_answer);
      if (data < 0) {
        LOG_CRIT("CVKT9LowLevelConnector::SendString - Wrong Packet Type\r\n");
        usleep(kPauseWrongType);
        connector->flush();
        ClearAnswer();
        throw CDisconnectException();
      }

      ReadCount(m_answer + header, static_cast<unsigned short>(data + 2));
      const int total = header + data + 2;
      LOG_DEBUG("CVKT9LowLevelConnector::SendString: ret %d:\r", total);
      LOG_DUMP("CVKT9LowLevelConnector::SendString: reply", m_answer, static_cast<size_t>(total));
      LOG_DEBUG("Check CRC\r\n");

      uint16_t crc = mcd::Crc16(m_answer, static_cast<size_t>(header + data));
      unsigned char lo = static_cast<unsigned char>(crc & 0xFF);
      unsigned char hi = static_cast<unsigned char>(crc >> 8);
      if (m_answer[header + data] != lo || m_answer[header + data + 1] != hi) {
        LOG_CRIT("CVKT9LowLevelConnector::SendString - WRONG CRC: x%02x%02x(LH)\r\n", lo, hi);
        usleep(kPauseWrongCrc);
        connector->flush();
        ClearAnswer();
        throw CDisconnectException();
      }

      m_ucLastError = CheckResult(m_frame, m_answer, func_name, no_throw);
      LOG_DEBUG("CVKT9LowLevelConnector::SendString: Done, m_ucLastError = %d.\r\n", m_ucLastError);
      if (m_ucLastError != 0) {
        connector->flush();
        return ReplyView();
      }
      ReplyView view;
      view.data = m_answer;
      view.length = header + data;
      return view;
    } catch (const CWrongPacketException&) {
      connector->flush();
      ClearAnswer();
      LOG_CRIT("CVKT9LowLevelConnector::Resend %d time\r\n", attempt);
    }
  }
  usleep(kPauseGiveUp);
  connector->flush();
  ClearAnswer();
  throw CWrongPacketException();
}

bool CVKT9LowLevelConnector::ReadCount(unsigned char* buffer, unsigned short count) {
  LOG_DEBUG("CVKT9LowLevelConnector::ReadCount: want read %d bytes\r\n", count);
  int got = 0;
  while (true) {
    int n = connector->ReadBuffer(buffer + got, static_cast<unsigned short>(count - got), led);
    if (n < 0) {
      LOG_ERR("CVKT9LowLevelConnector::ReadCount: ret -1, need to read - \"%d\", already read - \"%d\"!!!\r\n", count,
              got);
      throw CWrongPacketException();
    }
    got += n;
    if (got > count) {
      LOG_ERR("CVKT9LowLevelConnector::ReadCount - read more!!!\r\n");
      throw CWrongPacketException();
    }
    if (got == count) return true;
    LOG_WARNING("CVKT9LowLevelConnector::ReadCount - Read not full string\r\n");
    usleep(kPausePartialRead);
  }
}

unsigned char CVKT9LowLevelConnector::CheckResult(const unsigned char* frame, const unsigned char* reply,
                                                  const char* func_name, bool no_throw) {
  if (reply[1] & 0x80) {
    WriteDebugLog(reply[2], reply[1], func_name);
    LOG_ERR("CVKT9LowLevelConnector::CheckResult - Error on return answer. Code error %X. Function %X\r\n", reply[2],
            reply[1]);
    if (!no_throw) throw CDisconnectException();
    return reply[2];
  }
  switch (reply[1]) {
    case 0x03:
    case 0x04:
    case 0x06:
    case 0x11:
    case 0x41:
    case 0x42:
      return 0;
    default:
      break;
  }
  // the reply's function goes in the "sent" place and the request's in the "ret"
  // place: that is how this line has always read, and log readers expect it
  LOG_ERR("CVKT9LowLevelConnector::CheckResult - Error on return answer. Wrong function: sent %X, ret %X\r\n", reply[1],
          frame[1]);
  if (!no_throw) throw CDisconnectException();
  return 0xFF;
}

void CVKT9LowLevelConnector::WriteRawLog(const unsigned char* bytes, size_t count, const char* label) {
  mcd::AppendFrameDump(mcd::paths::Storage(kRawLogName), label ? label : "", bytes, count);
}

void CVKT9LowLevelConnector::WriteDebugLog(unsigned code, unsigned function, const char* func_name) {
  std::string text = " CVKT9LowLevelConnector::CheckResult - Error on return answer. Code error ";
  text += std::to_string(code);
  text += ". function ";
  text += std::to_string(function);
  text += " Func name - ";
  text += func_name ? func_name : "";
  mcd::AppendDebugLine(mcd::paths::Storage(kDebugLogName), text);
}
