#include "transport/modbus_connector.h"

#include "transport/serial_lock.h"

#include <sys/select.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "drivers/base/crc16.h"
#include "drivers/base/exceptions.h"
#include "log/logger.h"

CModbusConnector::CModbusConnector() = default;

CModbusConnector::~CModbusConnector() {
  // The context is released here so that a connector built and dropped (tests,
  // a re-created port) leaves no open line behind.
  if (ctx) {
    modbus_close(ctx);
    modbus_free(ctx);
    ctx = nullptr;
  }
}

// The raw byte operations make no sense on a Modbus line: drivers run whole
// transactions on the context instead.
int CModbusConnector::WriteBuffer(const unsigned char*, unsigned short, bool) { return -1; }
int CModbusConnector::ReadBuffer(unsigned char*, unsigned short, bool) { return -1; }
int CModbusConnector::ReadBufferCycle(unsigned char*, unsigned short, bool, unsigned int) { return -1; }
int CModbusConnector::drain() { return -1; }

int CModbusConnector::flush() {
  ModbusLock lock(*this);
  if (!ctx) return -1;
  return modbus_flush(ctx);
}

bool CModbusConnector::open_device() {
  auto value = [this](const char* key) -> const std::string* {
    auto it = params.find(key);
    return it == params.end() ? nullptr : &it->second;
  };

  int baud = 9600;
  if (const std::string* v = value("speed")) baud = atoi(v->c_str());
  int dataBits = 8;
  if (const std::string* v = value("data")) dataBits = atoi(v->c_str());
  char parity = 'N';
  if (const std::string* v = value("parity")) {
    if (*v == "E")
      parity = 'E';
    else if (*v == "O")
      parity = 'O';
  }
  int stopBits = 1;
  if (const std::string* v = value("stop")) {
    if (*v == "2") stopBits = 2;
  }
  // The device comes from the parameters themselves: without "name" it is empty
  // (and refused by libmodbus) even though the connector's name has a default.
  std::string device;
  if (const std::string* v = value("name")) device = *v;

  // Opening again replaces the previous context.
  if (ctx) {
    ModbusLock lock(*this);
    modbus_close(ctx);
    modbus_free(ctx);
    ctx = nullptr;
  }

  // 3.5 characters of start, data, parity and stop bits; a fixed 1750 us above 19200 baud
  m_frameGapUs = baud > 19200 || baud <= 0 ? 1750
                                           : static_cast<long>(35LL * CharacterBits(params) * 1000000 / (10LL * baud));

  modbus_t* created = modbus_new_rtu(device.c_str(), baud, parity, dataBits, stopBits);
  if (!created) {
    LOG_CRIT("CModbusConnector::open_device - Unable to allocate libmodbus context and open device %s.",
             name.c_str());
    return false;
  }
  logger* log = logger::get();
  modbus_set_debug(created, (log && log->isWritable(logger::TL_DEBUG)) ? TRUE : FALSE);
  modbus_set_slave(created, 1);
  modbus_set_byte_timeout(created, timeout / 1000, (timeout % 1000) * 1000);
  modbus_set_response_timeout(created, 2 * timeout / 1000, (2 * timeout % 1000) * 1000);
  if (modbus_connect(created) == -1) {
    LOG_CRIT("CModbusConnector::open_device - Connection failed. Unable to open device %s.", name.c_str());
    modbus_free(created);
    return false;
  }
  std::string holder;
  if (mcd::LockSerialLine(modbus_get_socket(created), device, holder) == mcd::LineLock::kBusy) {
    MarkLineBusy(holder);
    modbus_close(created);
    modbus_free(created);
    return false;
  }
  {
    ModbusLock lock(*this);
    ctx = created;
  }
  return true;
}

void CModbusConnector::KeepFrameGap() {
  if (m_lastEndUs != 0) SleepUs(m_lastEndUs + m_frameGapUs - NowUs());
}

void CModbusConnector::EndTransaction() { m_lastEndUs = NowUs(); }

ModbusTransaction::ModbusTransaction(CModbusConnector& connector) : m_connector(connector) {
  pthread_mutex_lock(m_connector.GetMutex());
  m_connector.KeepFrameGap();
}

ModbusTransaction::~ModbusTransaction() {
  m_connector.EndTransaction();
  pthread_mutex_unlock(m_connector.GetMutex());
}

namespace {

// Waits until fd is readable or the time-out passes.
bool Readable(int fd, uint32_t sec, uint32_t usec) {
  for (;;) {
    fd_set set;
    FD_ZERO(&set);
    FD_SET(fd, &set);
    timeval tv{static_cast<time_t>(sec), static_cast<suseconds_t>(usec)};
    const int n = select(fd + 1, &set, nullptr, nullptr, &tv);
    if (n > 0) return true;
    if (n == 0 || errno != EINTR) return false;
  }
}

}  // namespace

bool CModbusConnector::ReopenAbsent() {
  if (ctx) return true;
  if (!ReopenDue()) return false;
  return open_device();
}

int CModbusConnector::RawExchange(const uint8_t* request, int length, uint8_t* answer, int capacity,
                                  const FrameLength& frameLength) {
  if (!ctx) return -1;
  modbus_flush(ctx);
  if (modbus_send_raw_request(ctx, request, length) == -1) return -1;
  const int fd = modbus_get_socket(ctx);
  uint32_t responseSec = 0, responseUsec = 0, byteSec = 0, byteUsec = 0;
  modbus_get_response_timeout(ctx, &responseSec, &responseUsec);
  modbus_get_byte_timeout(ctx, &byteSec, &byteUsec);
  int have = 0;
  int want = 0;
  while (want == 0 || have < want) {
    const bool first = have == 0;
    if (!Readable(fd, first ? responseSec : byteSec, first ? responseUsec : byteUsec)) return -1;
    const int n = static_cast<int>(read(fd, answer + have, static_cast<size_t>(capacity - have)));
    if (n <= 0) return -1;
    have += n;
    if (want == 0) {
      want = frameLength(answer, have);
      if (want < 0 || want > capacity) return -1;
    }
    if (have >= capacity && (want == 0 || have < want)) return -1;
  }
  // Bytes beyond the announced frame belong to nothing we asked for.
  if (have != want || want < 4) return -1;
  return mcd::CheckCrc16(answer, static_cast<size_t>(want - 2)) ? want : -1;
}

CModbusMeterLink* CModbusMeterLink::ForMeter(CConnector* connector, const std::string* serial) {
  auto* modbus = dynamic_cast<CModbusConnector*>(connector);
  if (!modbus) return nullptr;
  int slave = serial ? atoi(serial->c_str()) : 1;
  if (slave < 1 || slave > 247) slave = 1;
  return new CModbusMeterLink(modbus, slave);
}

modbus_t* CModbusMeterLink::Context() {
  m_exception = 0;
  modbus_t* ctx = m_connector ? m_connector->GetContext() : nullptr;
  // A line that was absent (adapter not yet enumerated, unplugged) is opened again,
  // at most every few seconds.
  if (!ctx && m_connector && m_connector->ReopenAbsent()) ctx = m_connector->GetContext();
  if (!ctx) {
    LOG_ERR("CModbusMeterLink - no open Modbus line for slave %d", m_slave);
    throw CDisconnectException();
  }
  modbus_set_slave(ctx, m_slave);
  return ctx;
}

void CModbusMeterLink::Fail(const char* what) {
  const int error = errno;
  if (error > MODBUS_ENOBASE && error < MODBUS_ENOBASE + 0x20) m_exception = error - MODBUS_ENOBASE;
  if (m_exception)
    LOG_ERR("CModbusMeterLink::%s - slave %d answered with exception %d", what, m_slave, m_exception);
  else
    LOG_ERR("CModbusMeterLink::%s - slave %d: %s", what, m_slave, modbus_strerror(error));
  throw CDisconnectException();
}

void CModbusMeterLink::ReadInput(uint16_t address, int count, uint16_t* out) {
  ModbusTransaction transaction(*m_connector);
  modbus_t* ctx = Context();
  if (modbus_read_input_registers(ctx, address, count, out) != count) Fail("ReadInput");
}

void CModbusMeterLink::WriteRegister(uint16_t address, uint16_t value) {
  ModbusTransaction transaction(*m_connector);
  modbus_t* ctx = Context();
  if (modbus_write_register(ctx, address, value) != 1) Fail("WriteRegister");
}

void CModbusMeterLink::WriteRegisters(uint16_t address, int count, const uint16_t* values) {
  ModbusTransaction transaction(*m_connector);
  modbus_t* ctx = Context();
  if (modbus_write_registers(ctx, address, count, values) != count) Fail("WriteRegisters");
}

int CModbusMeterLink::ReportSlaveId(uint8_t* out, int capacity) {
  ModbusTransaction transaction(*m_connector);
  modbus_t* ctx = Context();
  const int n = modbus_report_slave_id(ctx, capacity, out);
  if (n < 0) Fail("ReportSlaveId");
  return n < capacity ? n : capacity;
}

int CModbusMeterLink::Raw(const uint8_t* request, int length, uint8_t* answer, int capacity,
                          const CModbusConnector::FrameLength& frameLength) {
  ModbusTransaction transaction(*m_connector);
  modbus_t* ctx = Context();
  (void)ctx;
  const uint8_t function = request[1];
  auto framing = [&](const uint8_t* bytes, int count) -> int {
    if (count >= 1 && bytes[0] != request[0]) return -1;
    if (count < 2) return 0;
    if (bytes[1] == (function | 0x80)) return 5;
    if (bytes[1] != function) return -1;
    return frameLength(bytes, count);
  };
  const int n = m_connector->RawExchange(request, length, answer, capacity, framing);
  if (n < 0) {
    errno = ETIMEDOUT;
    Fail("Raw");
  }
  if (answer[1] == (function | 0x80)) {
    errno = MODBUS_ENOBASE + answer[2];
    Fail("Raw");
  }
  return n;
}
