// Drivers of the ESKO heat meters MTR-06 (Cmcd_MTR06) and TM-3E (Cmcd_TM3E).
//
// Both share one implementation, CEskoDriver; the TM-3E differs only in its link
// class, its log prefixes, the reversed statistics-version check and its model text.
// The meter serves three heat systems (0, 1, 2). Current values are read with 'G',
// identification, system data and integrators with 'R', the clock with 'T' 'G',
// archives are located by date ('A' 3), checked by the record date ('L'), read by
// record index ('A' 1) and by date as a page ('A' 4) that is parsed into values.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "drivers/base/base_driver.h"
#include "drivers/base/calendar.h"
#include "drivers/esko/esko_link.h"

struct EskoModel {
  const char* driverPrefix;  // "Cmcd_MTR06::"
  const char* loopPrefix;    // "CMcdMTR06::"
  const char* initPrefix;    // prefix of the init messages ("" for the MTR-06)
  const char* modelText;     // published model name
  bool statVer4x;            // true: the meter needs a statistics version 0x4N
};

class CEskoDriver : public CMcdBaseDriver {
 public:
  ~CEskoDriver() override;

  void SaveConnector(CConnector* connector) override;
  void init() override;
  ParamValueList get_all_curtime_cur_integ_values() override;
  ParamValueList get_all_system_values() override;
  int GetTimestamps(Timestamps& out) override;
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override;

 protected:
  explicit CEskoDriver(const EskoModel& model);
  virtual CEskoLowLevelConnector* MakeLink(CConnector* connector, bool led) = 0;

  const EskoModel& m_info;

 private:
  struct SystemState {
    double rangeM1 = 0, rangeM2 = 0;
    double gminM1Pct = 0, gminM2Pct = 0, gmaxM1Pct = 0, gmaxM2Pct = 0;
    double gminM1 = 0, gminM2 = 0, gmaxM1 = 0, gmaxM2 = 0;
    double dn1 = 0, dn2 = 0;
    int circuit = -1, mode = 0;
    bool haveCircuit = false, haveGmin = false, haveGmax = false, haveDN = false;
    uint32_t errors = 0;      // error flags of the last poll
    time_t archBase = 0;      // time base of archive records
  };

  // How one archive record came out: read, declared absent by the meter (its
  // no-record answer to the find request), or not read (any other failure).
  enum RecordOutcome { kRecordOk, kRecordAbsent, kRecordFailed };

  struct Images {
    unsigned char TG[13], TS[13], G[13], R[13], L[13], A1[13], A3[13], A31[13], A4[13], A41[13];
  };

  // Exchanges: each sends one image and returns the checked answer.
  ReplyView Send(unsigned char* image, const char* funcName);
  ReplyView ReadR(uint16_t address, const char* funcName);
  ReplyView ReadG(uint16_t address, const char* funcName);
  void PatchDate(unsigned char* image, int eskoKind, const mcd::cal::Label& label) const;
  mcd::CMeterBuffer Cursor(const ReplyView& view) const;

  // Identification and system data: each answer is parsed into the driver's state
  // (an empty or short answer leaves the state as it is).
  void ReadIdentification();
  void ParseSerial(const ReplyView& v);
  void ParseModel(const ReplyView& v);
  void ParseFirmware(const ReplyView& v);
  bool GetSystemData();
  void ParseCircuits(const ReplyView& v);
  void ParseRanges(const ReplyView& v, bool third);
  void ParseLimits(const ReplyView& v, bool max);
  void ParseDN(const ReplyView& v, bool third);
  void CalcReal(bool max);
  void AddSystemValues(ParamValueList& out, time_t now);

  // Current values of the three heat systems and ta; integrators with their date.
  void ReadCurrent(ParamValueList& out, time_t now);
  void ReadIntegrators(ParamValueList& out, time_t now);
  void AddValue(ParamValueList& out, const char* name, int id, int kind, const std::string& text, const char* dim,
                int sys, time_t stamp, double shown);

  // The meter clock, and the oldest record held per kind (found by bisection).
  bool ReadMeterClock(time_t& meter);
  void NoteClockState(int state, const unsigned char* raw, long away);
  time_t FindOldest(int eskoKind, time_t meterTime);
  bool HoldsRecord(int eskoKind, time_t recordTime, unsigned* rest);
  time_t Bisect(int eskoKind, time_t without, time_t with);
  time_t StepBack(int eskoKind, time_t t, unsigned count, time_t limit) const;
  time_t GallopBack(int eskoKind, time_t with, time_t limit);

  // One archive record: the find answer ('A' 3), its date ('L'), its dump ('A' 1),
  // then its page ('A' 4) parsed into values.
  RecordOutcome FindArchDate(int eskoKind, const mcd::cal::Label& label, unsigned& recordNumber, unsigned& recordRest);
  RecordOutcome FindArchRecNum(int eskoKind, const mcd::cal::Label& label);
  bool ReadArchData(int eskoKind, int type, const mcd::cal::Label& label, time_t stamp, ParamValueList& out);
  RecordOutcome ReadRecord(int eskoKind, int type, time_t stamp, ParamValueList& out);
  bool WalkRecords(int kind, int type, time_t from, time_t to, ParamValueList& out);

  std::unique_ptr<CEskoLowLevelConnector> m_link;
  Images m_img;
  uint16_t m_model = 96;
  std::string m_modelText = "96";
  uint32_t m_serial = 0;
  std::string m_firmware;
  uint32_t m_workOffsetHours = 0;
  SystemState m_sys[3];
  int m_archType = 0;
  time_t m_firstHour = 0;
  time_t m_firstDay = 0;
  time_t m_meterTime = 0;
  time_t m_meterTimeReadAt = 0;  // local clock when the meter time was read
  bool m_haveTimes = false;
  bool m_archBroken = false;  // a failure ended an archive reading
  int m_clockState = 0;       // ClockState of the last meter clock read
  time_t m_oldest[2] = {0, 0};  // oldest record time found per ESKO kind, 0 = unknown
};

class Cmcd_MTR06 : public CEskoDriver {
 public:
  Cmcd_MTR06();
  ~Cmcd_MTR06() override;

 protected:
  CEskoLowLevelConnector* MakeLink(CConnector* connector, bool led) override;
};

class Cmcd_TM3E : public CEskoDriver {
 public:
  Cmcd_TM3E();
  ~Cmcd_TM3E() override;

 protected:
  CEskoLowLevelConnector* MakeLink(CConnector* connector, bool led) override;
};
