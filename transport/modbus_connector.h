// Serial connector for meters read as Modbus RTU slaves through libmodbus.
// The raw byte operations are refused; drivers run their transactions on the
// context while holding the connector's mutex (see ModbusLock).
#pragma once

#include <modbus/modbus.h>

#include <cstdint>
#include <functional>
#include <string>

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
  // Opens the line again when it has no context and the last attempt is long enough
  // ago; whether a context is there now.
  bool ReopenAbsent();

  // Length of the answer frame (CRC included) once the bytes so far tell it; 0 while
  // more bytes are needed; -1 when they cannot start an answer.
  using FrameLength = std::function<int(const uint8_t* bytes, int count)>;

  // One exchange whose answer libmodbus cannot frame by itself (user functions, a
  // gateway's own byte-count form). Sends `request` (address, function, data; the CRC
  // is appended) through libmodbus, then reads the answer from the context's line
  // with the context's response and byte time-outs. Returns the answer length with
  // its CRC checked, -1 on silence, a short or over-long answer or a wrong CRC.
  // Call under the connector's mutex.
  int RawExchange(const uint8_t* request, int length, uint8_t* answer, int capacity, const FrameLength& frameLength);

  // RTU frames are set apart by at least 3.5 character times of quiet (1750 us above
  // 19200 baud). KeepFrameGap waits until that much time has passed since the end of
  // the previous transaction; EndTransaction marks that end. Call under the mutex.
  void KeepFrameGap();
  void EndTransaction();
  long FrameGapMicros() const { return m_frameGapUs; }

 private:
  modbus_t* ctx = nullptr;
  long m_frameGapUs = 0;
  long long m_lastEndUs = 0;  // monotonic, 0 before the first transaction
};

// One transaction on a Modbus line: holds the connector's mutex, keeps the gap after
// the previous frame before anything is sent and marks the end when it is over
// (thrown or not).
class ModbusTransaction {
 public:
  explicit ModbusTransaction(CModbusConnector& connector);
  ~ModbusTransaction();
  ModbusTransaction(const ModbusTransaction&) = delete;
  ModbusTransaction& operator=(const ModbusTransaction&) = delete;

 private:
  CModbusConnector& m_connector;
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

// One meter on a Modbus line: its slave address and the transactions a driver needs.
// Each transaction holds the connector's mutex, selects the slave and throws
// CDisconnectException when it fails (silence, wrong CRC, an exception answer: then
// LastException() tells the code, else it is 0).
class CModbusMeterLink {
 public:
  CModbusMeterLink(CModbusConnector* connector, int slave) : m_connector(connector), m_slave(slave) {}

  // The link to the meter whose configured address is `serial` (1..247, anything else
  // means 1) on the process's line; nullptr when that line is not a Modbus line.
  static CModbusMeterLink* ForMeter(CConnector* connector, const std::string* serial);

  int Slave() const { return m_slave; }
  int LastException() const { return m_exception; }

  // Function 4: count registers from address into out.
  void ReadInput(uint16_t address, int count, uint16_t* out);
  // Function 6 / 16.
  void WriteRegister(uint16_t address, uint16_t value);
  void WriteRegisters(uint16_t address, int count, const uint16_t* values);
  // Function 17: the answer's data after the byte count; returns its length.
  int ReportSlaveId(uint8_t* out, int capacity);
  // A raw exchange (see CModbusConnector::RawExchange); an exception answer
  // (function | 0x80) is recognised here and thrown. Returns the answer length.
  int Raw(const uint8_t* request, int length, uint8_t* answer, int capacity,
          const CModbusConnector::FrameLength& frameLength);

 private:
  modbus_t* Context();
  [[noreturn]] void Fail(const char* what);

  CModbusConnector* m_connector;
  int m_slave;
  int m_exception = 0;
};
