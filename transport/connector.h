// The one serial port through which the daemon talks to its meters.
// The connector never throws: failures are -1 or short counts.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <map>
#include <string>

class CLed;

class CConnector {
 public:
  CConnector();
  virtual ~CConnector();
  CConnector(const CConnector&) = delete;
  CConnector& operator=(const CConnector&) = delete;

  // Builds a CModbusConnector when "protocol" is exactly "modbus", else a plain UART
  // connector; starts both lamp threads and opens the device (its result is ignored).
  static CConnector* CreateConnector(const std::map<std::string, std::string>& port_params);

  virtual int WriteBuffer(const unsigned char* buf, unsigned short len, bool led);
  virtual int ReadBuffer(unsigned char* buf, unsigned short len, bool led);
  virtual int ReadBufferCycle(unsigned char* buf, unsigned short len, bool led, unsigned int timeout_ms = 0);
  virtual bool open_device();
  virtual void close_device();
  virtual int flush();
  virtual int drain();

  int GetFd() const { return fd; }
  const std::string& GetName() const { return name; }
  uint32_t GetTimeout() const { return timeout; }
  const std::map<std::string, std::string>& GetParams() const { return params; }
  pthread_mutex_t* GetMutex() { return &mutex; }
  CLed* GetLedA() const { return ledA; }
  CLed* GetLedB() const { return ledB; }

 protected:
  int fd;
  std::string name;
  pthread_mutex_t mutex;
  CLed* ledA;  // flashes on writes
  CLed* ledB;  // flashes on reads
  std::map<std::string, std::string> params;
  uint32_t timeout;  // milliseconds
};
