// The one serial port through which the daemon talks to its meters.
// The connector never throws: failures are -1 or short counts.
#pragma once

#include <pthread.h>

#include <cstdint>
#include <ctime>
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
  // Waits until at least count bytes are waiting to be read, or timeout_us passes;
  // true when they are there. Nothing is read and nothing is logged. On a descriptor
  // that cannot tell its waiting bytes (none, not a terminal) it waits the whole time,
  // or not at all when blind is false.
  virtual bool WaitForBytes(int count, long timeout_us, bool blind = true);
  // Microseconds on the monotonic clock; a real sleep of us microseconds (signals do
  // not shorten it); bits of one character on the line (start, data, parity, stop)
  // as the port parameters give them.
  static long long NowUs();
  static void SleepUs(long long us);
  static int CharacterBits(const std::map<std::string, std::string>& params);
  virtual bool open_device();
  virtual void close_device();
  virtual int flush();
  virtual int drain();

  // Another process held the line at the last open: this process must not go on.
  bool LineBusy() const { return lineBusy; }
  // Names the device and the holder, for the operator.
  const std::string& BusyMessage() const { return busyMessage; }
  // Seconds between attempts to open a device that is absent or went away.
  static constexpr long kReopenSeconds = 10;

  int GetFd() const { return fd; }
  const std::string& GetName() const { return name; }
  uint32_t GetTimeout() const { return timeout; }
  const std::map<std::string, std::string>& GetParams() const { return params; }
  pthread_mutex_t* GetMutex() { return &mutex; }
  CLed* GetLedA() const { return ledA; }
  CLed* GetLedB() const { return ledB; }

 protected:
  // Records that another process holds the line (for LineBusy and BusyMessage); logs
  // it once.
  void MarkLineBusy(const std::string& holder);
  // Whether an absent line may be tried again now (every kReopenSeconds); arms the next
  // attempt when it says yes.
  bool ReopenDue();

  int fd;
  std::string name;
  pthread_mutex_t mutex;
  CLed* ledA;  // flashes on writes
  CLed* ledB;  // flashes on reads
  std::map<std::string, std::string> params;
  uint32_t timeout;  // milliseconds

 private:
  // Opens again a device that failed to open or went away, at most every kReopenSeconds.
  bool EnsureOpen();
  // The device went away (end of file, EIO): closes it and schedules reopening.
  void Lost(const char* what, int error);

  bool lineBusy = false;
  std::string busyMessage;
  bool absent = false;     // the device failed to open or went away; reopened by I/O calls
  time_t nextOpen = 0;     // monotonic seconds of the next reopening attempt
};
