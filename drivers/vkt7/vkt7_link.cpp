#include "drivers/vkt7/vkt7_link.h"

#include <cstdint>
#include <cstdlib>
#include <string>

#include "drivers/base/crc16.h"
#include "drivers/base/diag_files.h"
#include "log/logger.h"
#include "server/paths.h"
#include "transport/connector.h"

namespace vkt7 {

std::string FrameDumpPath() { return mcd::paths::Storage("vkt7log.log"); }
std::string DebugLogPath() { return mcd::paths::Storage("vkt7.debug.log"); }

void WriteFrameDump(const char* label, const unsigned char* bytes, size_t count) {
  mcd::AppendFrameDump(FrameDumpPath(), label, bytes, count);
}

void WriteDebugLine(int code, int type, int function, const char* name) {
  std::string text = " CVKT7LowLevelConnector::CheckResult - Error on return answer. Code error ";
  text += std::to_string(code);
  text += ". Type packet - ";
  text += std::to_string(type);
  text += ". function ";
  text += std::to_string(function);
  text += " Func name - ";
  text += name;
  mcd::AppendDebugLine(DebugLogPath(), text);
}

}  // namespace vkt7

namespace {

void WriteBufferFailure(const char* name) { vkt7::WriteDebugLine(0, 0, 0, name); }

}  // namespace

const mcd::MeterFamily CVKT7Buffer::kFamily = {&WriteBufferFailure};

CVKT7Buffer::CVKT7Buffer(const unsigned char* data, int count) : mcd::CMeterBuffer(&kFamily, data, count) {
  SetNames("CVKT7Buffer []", "CVKT7Buffer +=");
}

namespace {

// Answers: FF FF is not echoed; address, type, count or register, data, CRC-16 over
// everything before it (low byte first). Error answers (type 0x83 or 0x90) carry one
// byte, the error code.
class Vkt7Policy : public mcd::LinkPolicy {
 public:
  explicit Vkt7Policy(int lineSpeed) {
    baud = lineSpeed;
    flushBeforeSend = true;
    texts.shortWrite = "CVKT7LowLevelConnector::SendString - Sended not full string";
    texts.readFailed =
        "CVKT7LowLevelConnector::ReadCount - readed -1 - need to read - \"%d\", already readed - \"%d\"!!!";
    texts.readMore = "CVKT7LowLevelConnector::ReadCount - readed more!!!";
    texts.readPartial = "CVKT7LowLevelConnector::ReadCount - Readed not full string";
    texts.wrongType = "CVKT7LowLevelConnector::SendString - WrongTypePacket";
    texts.resend = "CVKT7LowLevelConnector::Resend %d time";
  }

  int HeaderLength(const unsigned char*, int) const override { return 3; }

  int RestLength(const unsigned char*, const unsigned char* header) const override {
    switch (header[1]) {
      case 0x10:
        return 3 + 2;
      case 0x03:
        return header[2] + 2;
      case 0x83:
      case 0x90:
        return 1 + 2;
      default:
        return -1;
    }
  }

  bool CheckReply(const unsigned char* reply, int length) const override {
    if (mcd::CheckCrc16(reply, static_cast<size_t>(length - 2))) return true;
    LOG_CRIT("CVKT7LowLevelConnector::SendString - WRONG CRC");
    return false;
  }

  int Verdict(const unsigned char*, unsigned char* reply, int, const char* funcName) const override {
    if ((reply[1] & 0x80) == 0) return -1;
    vkt7::WriteDebugLine(reply[2], reply[1], reply[2] | (reply[3] << 8), funcName);
    LOG_ERR("CVKT7LowLevelConnector::CheckResult - Error on return answer. Code error %X. Type packet - %X. function %X",
            reply[2], reply[1], reply[2]);
    return reply[2];
  }

  int ViewLength(const unsigned char* reply, int) const override { return reply[2] + 3; }
};

}  // namespace

CVKT7LowLevelConnector::CVKT7LowLevelConnector(CConnector* connector, bool led)
    : m_policy(new Vkt7Policy(mcd::LineSpeed(connector))), m_exchange(new mcd::LinkExchange(connector, led, *m_policy)) {}

CVKT7LowLevelConnector::~CVKT7LowLevelConnector() = default;

unsigned char CVKT7LowLevelConnector::LastError() const {
  return static_cast<unsigned char>(m_exchange->LastError());
}

const unsigned char* CVKT7LowLevelConnector::Answer() const { return m_exchange->Answer(); }

CVKT7Buffer CVKT7LowLevelConnector::SendString(unsigned char* request, unsigned short length, const char* func_name,
                                               bool tolerate_error) {
  // The preamble FF FF is not covered by the checksum. Stale input (the tail of a
  // broken answer, or an answer that came after its time-out) is dropped before every
  // send, else every later exchange would stay out of step with the meter.
  mcd::AppendCrc16(request + 2, static_cast<size_t>(length) - 4);
  mcd::LinkReply reply = m_exchange->Exchange(request, length, func_name, tolerate_error);
  if (reply.empty()) return CVKT7Buffer();
  return CVKT7Buffer(reply.data, reply.length);
}
