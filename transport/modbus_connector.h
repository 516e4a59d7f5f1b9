// Serial connector for meters read as Modbus RTU slaves through libmodbus.
// The raw byte operations are refused; drivers run their transactions on the
// context while holding the connector's mutex (see ModbusLock).
#pragma once

#include <modbus/modbus.h>

#include "transport/connector.h"

class CModbusConnector : public CConnector {
 public:
  CModbusConnector();
  ~CModbusConnector() override;

  int WriteBuffer(const unsigned char* buf, unsigned short len, bool led) override;
  int ReadBuffer(unsigned char* buf, unsigned short len, bool led) override;
  int ReadBufferCycle(unsigned char* buf, unsigned short len, bool led, unsigned int timeout_ms = 0) override;
  bool open_device() override;
  int flush() override;
  int drain() override;

  // The libmodbus context, null until open_device succeeded. Use it only under
  // the connector's mutex.
  modbus_t* GetContext() const { return ctx; }

 private:
  modbus_t* ctx = nullptr;
};

// Holds the connector's mutex for one Modbus transaction.
class ModbusLock {
 public:
  explicit ModbusLock(CConnector& connector) : m_mutex(connector.GetMutex()) { pthread_mutex_lock(m_mutex); }
  ~ModbusLock() { pthread_mutex_unlock(m_mutex); }
  ModbusLock(const ModbusLock&) = delete;
  ModbusLock& operator=(const ModbusLock&) = delete;

 private:
  pthread_mutex_t* m_mutex;
};
