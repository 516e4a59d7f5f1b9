#include "drivers/vkt9/vkt9_link.h"

#include <unistd.h>

#include <cstring>
#include <string>

#include "drivers/base/crc16.h"
#include "drivers/base/diag_files.h"
#include "drivers/base/exceptions.h"
#include "log/logger.h"
#include "server/paths.h"
#include "transport/connector.h"

namespace {

const char* const kRawLogName = "VKT9log.log";
const char* const kDebugLogName = "VKT9.debug.log";

void WriteDebugLog(unsigned code, unsigned function, const char* func_name) {
  std::string text = " CVKT9LowLevelConnector::CheckResult - Error on return answer. Code error ";
  text += std::to_string(code);
  text += ". function ";
  text += std::to_string(function);
  text += " Func name - ";
  text += func_name ? func_name : "";
  mcd::AppendDebugLine(mcd::paths::Storage(kDebugLogName), text);
}

void PauseAndFlush(useconds_t us, CConnector& connector) {
  if (us > 0) usleep(us);
  connector.flush();
}

class Vkt9Policy : public mcd::LinkPolicy {
 public:
  Vkt9Policy() {
    texts.shortWrite = "CVKT9LowLevelConnector::SendString failed - Sent not full string\r";
    texts.readWant = "CVKT9LowLevelConnector::ReadCount: want read %d bytes\r\n";
    texts.readFailed = "CVKT9LowLevelConnector::ReadCount: ret -1, need to read - \"%d\", already read - \"%d\"!!!\r\n";
    texts.readMore = "CVKT9LowLevelConnector::ReadCount - read more!!!\r\n";
    texts.readPartial = "CVKT9LowLevelConnector::ReadCount - Read not full string\r\n";
    texts.wrongType = "CVKT9LowLevelConnector::SendString - Wrong Packet Type\r\n";
    texts.resend = "CVKT9LowLevelConnector::Resend %d time\r\n";
  }

  // The block read (0x41) answers with a flag byte in its header.
  int HeaderLength(const unsigned char* frame, int) const override { return frame[1] == 0x41 ? 4 : 3; }

  // An error reply is the function with bit 7 set and the code behind it; the rest of
  // it is dropped with the line's input.
  int EarlyError(const unsigned char*, const unsigned char* header, const char* funcName) const override {
    if ((header[1] & 0x80) == 0) return -1;
    WriteDebugLog(header[2], header[1], funcName);
    LOG_ERR("CVKT9LowLevelConnector::CheckResult - Error on return answer. Code error %X. Function %X\r\n", header[2],
            header[1]);
    return header[2];
  }

  int RestLength(const unsigned char*, const unsigned char* header) const override {
    switch (header[1]) {
      case 0x03:
      case 0x04:
      case 0x11:
        return header[2] + 2;
      case 0x06:
        return 3 + 2;
      case 0x41: {
        // the flag byte sizes the reply: a short or a long base block and up to two
        // additional blocks of 106 bytes
        const unsigned char flag = header[3];
        int n = (flag & 0x08) ? 47 : 3;
        if (flag & 0x10) n += 106;
        if (flag & 0x20) n += 106;
        return n + 2;
      }
      case 0x42:
        return 5 + 2;
      default:
        return -1;
    }
  }

  bool CheckReply(const unsigned char* reply, int length) const override {
    const uint16_t crc = mcd::Crc16(reply, static_cast<size_t>(length - 2));
    const unsigned char lo = static_cast<unsigned char>(crc & 0xFF);
    const unsigned char hi = static_cast<unsigned char>(crc >> 8);
    if (reply[length - 2] == lo && reply[length - 1] == hi) return true;
    LOG_CRIT("CVKT9LowLevelConnector::SendString - WRONG CRC: x%02x%02x(LH)\r\n", lo, hi);
    return false;
  }

  int Verdict(const unsigned char* frame, unsigned char* reply, int, const char*) const override {
    switch (reply[1]) {
      case 0x03:
      case 0x04:
      case 0x06:
      case 0x11:
      case 0x41:
      case 0x42:
        return -1;
      default:
        break;
    }
    // the reply's function goes in the "sent" place and the request's in the "ret"
    // place: that is how this line has always read, and log readers expect it
    LOG_ERR("CVKT9LowLevelConnector::CheckResult - Error on return answer. Wrong function: sent %X, ret %X\r\n",
            reply[1], frame[1]);
    return 0xFF;
  }

  int ViewLength(const unsigned char*, int length) const override { return length - 2; }

  void AfterFailure(mcd::LinkEvent event, const unsigned char*, CConnector& connector) const override {
    switch (event) {
      case mcd::LinkEvent::kErrorAnswer:
      case mcd::LinkEvent::kWrongChecksum:
        PauseAndFlush(100000, connector);
        break;
      case mcd::LinkEvent::kWrongType:
      case mcd::LinkEvent::kGiveUp:
        PauseAndFlush(500000, connector);
        break;
      case mcd::LinkEvent::kTolerated:
      case mcd::LinkEvent::kResend:
        PauseAndFlush(0, connector);
        break;
      default:
        break;
    }
  }

  void Trace(mcd::LinkStep step, const unsigned char* bytes, int count) const override {
    if (step == mcd::LinkStep::kHeader) {
      LOG_DEBUG("CVKT9LowLevelConnector::SendString: got %d bytes:\r", count);
      LOG_DUMP("CVKT9LowLevelConnector::SendString: header", bytes, static_cast<size_t>(count));
      LOG_DEBUG("Check and read the rest\r");
    } else if (step == mcd::LinkStep::kReply) {
      LOG_DEBUG("CVKT9LowLevelConnector::SendString: ret %d:\r", count);
      LOG_DUMP("CVKT9LowLevelConnector::SendString: reply", bytes, static_cast<size_t>(count));
      LOG_DEBUG("Check CRC\r\n");
    } else if (step == mcd::LinkStep::kDone) {
      LOG_DEBUG("CVKT9LowLevelConnector::SendString: Done, m_ucLastError = %d.\r\n", count);
    }
  }
};

}  // namespace

CVKT9LowLevelConnector::CVKT9LowLevelConnector(CConnector* connector, bool led)
    : m_policy(new Vkt9Policy()), m_exchange(new mcd::LinkExchange(connector, led, *m_policy)) {
  m_policy->baud = mcd::LineSpeed(connector);
}

CVKT9LowLevelConnector::~CVKT9LowLevelConnector() = default;

CVKT9LowLevelConnector::ReplyView CVKT9LowLevelConnector::SendString(const unsigned char* body, unsigned short length,
                                                                     const char* func_name, bool no_throw) {
  if (length == 0 || static_cast<size_t>(length) + 3 > kFrameSize) {
    LOG_CRIT("CVKT9LowLevelConnector::SendString - wrong request size %u\r", static_cast<unsigned>(length));
    throw CDisconnectException();
  }
  // address, body, CRC over both (low byte first)
  memset(m_frame, 0, sizeof m_frame);
  m_frame[0] = net_addr;
  memcpy(m_frame + 1, body, length);
  mcd::AppendCrc16(m_frame, static_cast<size_t>(length) + 1);
  const int frameLength = length + 3;
  LOG_DEBUG("CVKT9LowLevelConnector::SendString: net_addr %d, buff size %u\r", net_addr,
            static_cast<unsigned>(frameLength));
  return m_exchange->Exchange(m_frame, frameLength, func_name, no_throw);
}

void CVKT9LowLevelConnector::WriteRawLog(const unsigned char* bytes, size_t count, const char* label) {
  mcd::AppendFrameDump(mcd::paths::Storage(kRawLogName), label ? label : "", bytes, count);
}
