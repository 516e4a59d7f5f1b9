#include "drivers/vkt7/vkt7_link.h"

#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

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

int LineSpeed(const CConnector* connector) {
  if (connector == nullptr) return 9600;
  auto found = connector->GetParams().find("speed");
  const int baud = found == connector->GetParams().end() ? 0 : atoi(found->second.c_str());
  return baud > 0 ? baud : 9600;
}

}  // namespace

CVKT7LowLevelConnector::CVKT7LowLevelConnector(CConnector* connector, bool led)
    : m_connector(connector), m_led(led), m_baud(LineSpeed(connector)) {}

long CVKT7LowLevelConnector::PartialReadPause(int bytesDue, int baud) {
  // 64-bit: 267 bytes of 10 bits in microseconds pass the 32-bit range of the controller
  const int64_t wire = static_cast<int64_t>(bytesDue) * 10 * 1000000 / (baud > 0 ? baud : 9600);
  return static_cast<long>(wire + wire / 10 + 20000);
}

CVKT7Buffer CVKT7LowLevelConnector::SendString(unsigned char* request, unsigned short length, const char* func_name,
                                               bool tolerate_error) {
  // The preamble FF FF is not covered by the checksum.
  mcd::AppendCrc16(request + 2, static_cast<size_t>(length) - 4);

  for (int attempt = 0; attempt < 3; ++attempt) {
    // Bytes still waiting from an earlier exchange (the tail of a broken answer, or an
    // answer that came after its time-out) would otherwise be taken for the head of
    // this answer, and every later exchange would stay out of step with the meter.
    m_connector->flush();
    if (m_connector->WriteBuffer(request, length, m_led) != static_cast<int>(length)) {
      LOG_CRIT("CVKT7LowLevelConnector::SendString - Sended not full string");
      throw CDisconnectException();
    }
    usleep(100000);
    try {
      ReadCount(m_answer, 3);
      int k;
      switch (m_answer[1]) {
        case 0x10:
          k = 3;
          break;
        case 0x03:
          k = m_answer[2];
          break;
        case 0x83:
        case 0x90:
          k = 1;
          break;
        default:
          LOG_CRIT("CVKT7LowLevelConnector::SendString - WrongTypePacket");
          throw CDisconnectException();
      }
      ReadCount(m_answer + 3, static_cast<unsigned short>(k + 2));
      if (!mcd::CheckCrc16(m_answer, static_cast<size_t>(3 + k))) {
        LOG_CRIT("CVKT7LowLevelConnector::SendString - WRONG CRC");
        throw CDisconnectException();
      }
      m_ucLastError = CheckResult(request, m_answer, func_name, tolerate_error);
      if (m_answer[1] & 0x80) return CVKT7Buffer();
      return CVKT7Buffer(m_answer, m_answer[2] + 3);
    } catch (const CWrongPacketException&) {
      LOG_CRIT("CVKT7LowLevelConnector::Resend %d time", attempt);
    }
  }
  throw CWrongPacketException();
}

bool CVKT7LowLevelConnector::ReadCount(unsigned char* dest, unsigned short count) {
  int got = 0;
  for (;;) {
    int n = m_connector->ReadBuffer(dest + got, static_cast<unsigned short>(count - got), m_led);
    if (n == -1) {
      LOG_ERR("CVKT7LowLevelConnector::ReadCount - readed -1 - need to read - \"%d\", already readed - \"%d\"!!!",
              count, got);
      throw CWrongPacketException();
    }
    got += n;
    if (got > count) {
      LOG_ERR("CVKT7LowLevelConnector::ReadCount - readed more!!!");
      throw CWrongPacketException();
    }
    if (got == count) return true;
    LOG_WARNING("CVKT7LowLevelConnector::ReadCount - Readed not full string");
    std::this_thread::sleep_for(std::chrono::microseconds(PartialReadPause(count - got, m_baud)));
  }
}

unsigned char CVKT7LowLevelConnector::CheckResult(const unsigned char* request, const unsigned char* answer,
                                                  const char* func_name, bool tolerate_error) {
  if ((answer[1] & 0x80) == 0) return 0;
  vkt7::WriteDebugLine(answer[2], answer[1], answer[2] | (answer[3] << 8), func_name);
  LOG_ERR("CVKT7LowLevelConnector::CheckResult - Error on return answer. Code error %X. Type packet - %X. function %X",
          answer[2], answer[1], answer[2]);
  if (!tolerate_error) throw CDisconnectException();
  return answer[2];
}
