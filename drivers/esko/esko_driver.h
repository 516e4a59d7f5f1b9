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

// One entry of the raw parameter table of an archive page.
struct EskoRawParam {
  const char* name;  // raw parameter name as the meter's documentation calls it
  const char* kind;  // class of the value: "Value", "TimeOfWork", "Err_Type", ...
  int size;          // bytes on the page
  int sys;           // heat system 0..2
  int dim;           // unit code (index into the unit table)
  int decPos;        // decimal position (digits after the point)
  int jsonParm;      // parameter id of the dictionary, -1 when none
  int encoding;      // EskoRawEncoding
};

enum EskoRawEncoding { kRawFloat = 0, kRawS16, kRawU16, kRawU8, kRawSkip };

class CEskoDriver : public CMcdBaseDriver {
 public:
  ~CEskoDriver() override;

  void SaveConnector(CConnector* connector) override;
  void init() override;
  ParamValueList get_all_curtime_cur_integ_values() override;
  ParamValueList get_all_system_values() override;
  int GetTimestamps(Timestamps& out) override;
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override;

  // --- steps, public for tests ---
  // Reads the system data into the per-system state; false after a link failure.
  bool GetSystemData();

  // How one archive record came out: read, declared absent by the meter (its
  // no-record answer to the find request), or not read (any other failure).
  enum RecordOutcome { kRecordOk, kRecordAbsent, kRecordFailed };
  // The error code of the meter's answer when it holds no record for a date.
  static constexpr uint8_t kNoRecordCode = 3;

  // 'A' 3 find of the record of the ESKO kind (0 hourly, 1 daily) dated `label`:
  // record number and "record rest". kRecordAbsent on the no-record answer; throws on
  // every other failure.
  RecordOutcome FindArchDate(int eskoKind, const mcd::cal::Label& label, unsigned& recordNumber,
                             unsigned& recordRest);
  // Locates the record dated `label`, checks its date ('L') and reads it by index.
  RecordOutcome FindArchRecNum(int eskoKind, const mcd::cal::Label& label, int& recordIndex);
  // Whether a date the meter gave (`got`) is the `want`ed one; the hour counts for
  // hourly records only. `func` names the check in the messages.
  bool CheckArchDate(int eskoKind, const mcd::cal::Label& got, const mcd::cal::Label& want, const char* func) const;
  // Reads the page dated `label` and parses it, stamped `stamp`, into out.
  bool ReadArchData(int eskoKind, int type, const mcd::cal::Label& label, time_t stamp, ParamValueList& out);
  // Checks the page of an answer (reply bytes 0..259) against `label` and parses it.
  bool ParseArchPage(const unsigned char* reply, int length, int eskoKind, int type, const mcd::cal::Label& label,
                     time_t stamp, ParamValueList& out);
  // Walks the raw parameter table over the page data (reply byte 4 on).
  int parse_inWork(const mcd::CMeterBuffer& page, int type, time_t stamp, ParamValueList& out);
  // The record time (local label start) of the oldest record of the kind that the
  // meter holds, looked for by bisection with the find request; 0 when it holds none.
  time_t FindOldest(int eskoKind, time_t meterTime);
  // The meter clock of a 'T' 'G' answer (bytes 5..10); false when a field is out of range.
  static bool DecodeMeterClock(const unsigned char* p, time_t& out);

  static uint8_t CalcCSInverted(const unsigned char* bytes, int count);
  static int RecordBase(int eskoKind);
  // The raw parameter table of an archive page, and its entry count.
  static const EskoRawParam* RawTable(int& count);
  // Unit text of a raw unit code (1..37); a blank for codes without a unit.
  const std::string& UnitText(int code) const;

  CEskoLowLevelConnector* Link() const { return m_link.get(); }
  uint16_t Model() const { return m_model; }
  const std::string& ModelText() const { return m_modelText; }
  uint32_t SerialNumber() const { return m_serial; }
  const std::string& Firmware() const { return m_firmware; }
  int ArchTypeCode() const { return m_archType; }
  double RangeM1(int s) const { return m_sys[s].rangeM1; }
  double RangeM2(int s) const { return m_sys[s].rangeM2; }
  double GminM1(int s) const { return m_sys[s].gminM1; }
  double GminM2(int s) const { return m_sys[s].gminM2; }
  double GmaxM1(int s) const { return m_sys[s].gmaxM1; }
  double GmaxM2(int s) const { return m_sys[s].gmaxM2; }
  double GminM1Pct(int s) const { return m_sys[s].gminM1Pct; }
  double GmaxM1Pct(int s) const { return m_sys[s].gmaxM1Pct; }
  double DN1(int s) const { return m_sys[s].dn1; }
  double DN2(int s) const { return m_sys[s].dn2; }
  int CircuitType(int s) const { return m_sys[s].circuit; }
  time_t FirstHourArch() const { return m_firstHour; }
  time_t FirstDayArch() const { return m_firstDay; }
  // The scheme name published for a circuit type and mode.
  static std::string SchemeName(int circuitType, int mode);

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

  struct Images {
    unsigned char TG[13], TS[13], G[13], R[13], L[13], A1[13], A3[13], A31[13], A4[13], A41[13];
  };

  mcd::CMeterBuffer Cursor(const ReplyView& view) const;
  ReplyView Send(unsigned char* image, const char* funcName);
  ReplyView ReadR(uint16_t address, const char* funcName);
  ReplyView ReadG(uint16_t address, const char* funcName);
  void PatchDate(unsigned char* image, int eskoKind, const mcd::cal::Label& label) const;
  bool ReadMeterClock(time_t& meter);
  void NoteClockState(int state, const unsigned char* raw, long away);
  bool HoldsRecord(int eskoKind, time_t recordTime, unsigned* rest);
  time_t Bisect(int eskoKind, time_t without, time_t with);
  time_t StepBack(int eskoKind, time_t t, unsigned count, time_t limit) const;
  time_t GallopBack(int eskoKind, time_t with, time_t limit);
  RecordOutcome ReadRecord(int eskoKind, int type, time_t stamp, ParamValueList& out);
  RecordOutcome LocateRecord(int eskoKind, const mcd::cal::Label& label);
  void CalcReal(bool max);
  // Parsers of the system-data answers (empty or short answers leave the state as is).
  void ParseModel(const ReplyView& v);
  void ParseCircuits(const ReplyView& v);
  void ParseRanges(const ReplyView& v, bool third);
  void ParseLimits(const ReplyView& v, bool max);
  void ParseDN(const ReplyView& v, bool third);
  // Current values of the three heat systems and ta; integrators with their date.
  void ReadCurrent(ParamValueList& out, time_t now);
  void ReadIntegrators(ParamValueList& out, time_t now);
  void FillUnits();
  void AddValue(ParamValueList& out, const char* name, int id, int kind, const std::string& text, const char* dim,
                int sys, time_t stamp, double shown);

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
  std::string m_units[38];
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
