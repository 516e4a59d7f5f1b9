// Base of every meter driver: the shared polling loop and the six meter operations
// that each driver supplies.
//
// Rules for subclasses:
//  - Each operation returns normally. Link failures (CDisconnectException,
//    CWrongPacketException, or anything derived from std::exception) are caught at the
//    operation's own boundary, logged at Err, and turned into the empty result.
//    Never write `catch (...)` without rethrowing: thread cancellation unwinds the
//    stack with a special exception that must pass.
//  - The most-derived destructor calls stop() first, so the thread is cancelled and
//    joined before any member it uses goes away.
#pragma once

#include <atomic>
#include <ctime>
#include <string>

#include "app/thread_attached.h"
#include "drivers/base/driver_families.h"
#include "server/jsonrpc_connector.h"
#include "server/param_value.h"

class CConnector;

struct Timestamps {
  int32_t first_hour_arch = 0;  // earliest hourly record that may be asked; 0 = none
  int32_t first_day_arch = 0;   // earliest daily record; 0 = none
  int32_t meter_time = 0;       // the meter's current date and time
};

enum { ARCH_HOURLY = 4, ARCH_DAILY = 5 };

class CMcdBaseDriver : public myThreadAttached {
 public:
  CMcdBaseDriver();
  ~CMcdBaseDriver() override;

  // The shared polling loop; subclasses do not override it.
  void functionThread() final;

  virtual void SaveConnector(CConnector* connector) = 0;
  virtual void init() = 0;
  virtual ParamValueList get_all_curtime_cur_integ_values() = 0;
  virtual ParamValueList get_all_system_values() = 0;
  // Non-zero on success.
  virtual int GetTimestamps(Timestamps& out) = 0;
  // Records of the type (4 hourly, 5 daily) with times from..to inclusive into out, in
  // time order. Returns non-zero when the whole range was walked: every record in it was
  // read, or the meter said explicitly that it holds none for that time. Returns 0 when
  // the walk stopped at a failure: out then holds only the records before it, and the
  // next walk starts again at the record that failed.
  // from and to are local hour starts (hourly) or local day starts (daily) of mcd::cal;
  // an hourly range never leaves one local day. The loop files a block only when every
  // record time in it is such a start inside from..to and the times of each parameter
  // (heat system, kind, id) strictly increase; any other block is not filed.
  virtual int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) = 0;
  // Whether the driver knows how to render the meter's values (scales, units): until
  // it does, the loop calls init() again on each turn and neither publishes current
  // values nor reads archives.
  virtual bool IsReady() const { return true; }

  void SetJsonRpcConnector(CJSONRPCConnector* connector) { client = connector; }
  void SetConfiguration(const ParamMap& config);
  // The traits of the driver's family, by its manufacturer key.
  const DriverFamily& Family() const;

  // The poll turn: main sets it, the driver clears it at the end of a cycle.
  void SetTurn() { turn.store(true); }
  bool GetTurn() const { return turn.load(); }
  void ClearTurn() { turn.store(false); }

  bool IsReservedPort() const { return reserved_port.load(); }
  // False for a driver on a reserved port, else whether its archives are current.
  bool ArchivesCurrent() const { return !reserved_port.load() && archives_current.load(); }

  const ParamMap& GetConfiguration() const { return configuration; }
  bool GetLedIndication() const { return led_indication; }
  CJSONRPCConnector* GetClient() const { return client; }

 protected:
  // The manufacturer string (the thread's name).
  const std::string& Manufacturer() const { return threadName(); }

  // Polling-loop steps, exposed to subclasses and tests.
  bool MayPoll() const;
  // Waits the seconds on the monotonic clock in 2-second steps; ends early on a
  // force-update request and at once on a stop or reload request.
  void Wait(int seconds, bool flag);
  // Whether the meter's clock may date archive records: a clock more than 7 days away
  // from the controller's is not used (Warning once per change of state).
  bool MeterClockUsable(time_t meterTime);
  // Whether the calendar clock moved by more than a minute differently from the
  // monotonic clock since the last look.
  bool ClockStepped();
  bool ArchivesLag();
  time_t ReadHourlyArch();
  time_t ReadDailyArch();
  void WaitVKT7();
  void WaitVKT9();
  void WaitVkt(long started, const char* name);
  // Checks a block that the driver handed back and files what is newer than the bound
  // on file; false when the block was not filed (the walk ends for this cycle).
  bool FileBlock(int type, time_t from, time_t to, ParamValueList& out);
  // Whether the driver is ready; with retry, calls init() first when it is not. Logs
  // each change of state.
  bool CheckReady(bool retry);

  std::atomic<bool> reserved_port{false};
  std::atomic<bool> turn{false};
  CJSONRPCConnector* client = nullptr;
  ParamMap configuration;
  bool led_indication = true;
  std::atomic<bool> archives_current{true};

 private:
  // Sleeps in steps of `step` seconds until the turn is set.
  void WaitForTurn(unsigned step);
  // Reads and files the system values; false when the meter gave none.
  bool ReadSystemValues();
  // The first turn's work: init, the system values when ready, the link state and the
  // VKT connection start; whether the system values were read.
  bool Connect();
  // One turn's work: current values, archives that are due, whether they lag.
  void PollCycle(time_t& nextHourly, time_t& nextDaily, bool& systemRead);

  int readyState = -1;       // -1 unknown, 0 not ready, 1 ready (for the change log)
  int meterClockState = -1;  // -1 unknown, 0 not usable, 1 usable
  time_t lastCalendar = 0, lastMonotonic = 0;
  bool clockSeen = false;
};
