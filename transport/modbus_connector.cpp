#include "transport/modbus_connector.h"

#include <cstdlib>
#include <string>

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
  {
    ModbusLock lock(*this);
    ctx = created;
  }
  return true;
}
