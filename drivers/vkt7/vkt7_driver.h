// Driver of the VKT-7 heat calculator.
//
// The VKT-7 works by selection: the driver writes which kind of data it wants (a
// data-type code to 0x3FFD), which elements (the element list, 0x3FFF) and, for
// archives, which date (0x3FFB), and then reads the prepared data from 0x3FFE.
// Every answer element is the value (L bytes), an OPC quality byte and the element's
// abnormal-situation (NS) byte.
#pragma once

#include <atomic>
#include <cstdint>
#include <ctime>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "drivers/base/base_driver.h"
#include "drivers/vkt7/vkt7_link.h"

class Cmcd_VKT7 : public CMcdBaseDriver {
 public:
  // Data-type codes written to 0x3FFD.
  enum DataType { kHourly = 0, kDaily = 1, kMonthly = 3, kCurrent = 4, kIntegral = 5, kProperties = 6 };
  // Kinds of the records produced by the value parser.
  enum Kind { kKindCurrent = 0, kKindIntegral = 1, kKindMonthly = 2, kKindSystem = 7 };
  // OPC quality codes the meter sends after each value. A value's quality byte is
  // filed as it stands, except the two BAD codes that carry no value.
  static constexpr int kGoodQuality = 0xC0;        // GOOD; also system values and activity masks
  static constexpr int kAbnormalQuality = 0x50;    // UNCERTAIN, SENSOR_CAL: the element has an NS
  static constexpr int kOutOfRangeQuality = 0x0C;  // BAD, DEVICE_FAILURE: not filed
  static constexpr int kNotInSchemeQuality = 0x04; // BAD, CONFIG_ERROR: not filed
  // A meter clock further than this from the controller's is not used for archive dates.
  static constexpr long kClockTrust = 7 * 86400;

  // One row of the element table: how an element of the answer is published.
  struct Element {
    int unitKey;    // key of the unit string (44..56); 45 marks float values
    int digitsKey;  // key of the fraction digits (57..76), 0 = none
    int param;      // published parameter number
    int sys;        // heat system, counted from 0
  };
  static constexpr int kElementCount = 44;

  Cmcd_VKT7();
  ~Cmcd_VKT7() override;

  void SaveConnector(CConnector* connector) override;
  void init() override;
  ParamValueList get_all_curtime_cur_integ_values() override;
  ParamValueList get_all_system_values() override;
  int GetTimestamps(Timestamps& out) override;
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override;
  // True once init has read the units, the fraction digits and the active list.
  bool IsReady() const override { return m_ready.load(); }

 private:
  // --- answer parsers (each takes the answer from its address byte on) ---
  // Units and fraction digits; the layout depends on base_type.
  void ParseProperties(CVKT7Buffer answer);
  // The 6-byte records of 0x3FFC: active list, scheme value, element 2/15 swap.
  void ParseActiveList(CVKT7Buffer answer);
  // Version, reporting day and the type byte of 0x3FF9 (new and old meters).
  void ParseSystemData(CVKT7Buffer answer);
  // Archive bounds of 0x3FF6 into first_hour_arch / first_day_arch.
  void ParseTimestamps(CVKT7Buffer answer, Timestamps& out);
  // The meter clock of 0x3FFB; -1 (with a Warning) when a field is out of range.
  time_t ParseCurrentTimestamp(CVKT7Buffer answer);
  // Value answer of the selected elements; kind 0 current, 1 integral, 2 monthly,
  // 4/5 archives. Returns -1 when an element reports that the activity mask changed
  // (out may then hold part of the record), else 0.
  int parce45inWork(CVKT7Buffer answer, ParamValueList& out, int kind, time_t ts);
  // Text of an element value of width bytes at the cursor.
  std::string ParseToString(const CVKT7Buffer& cursor, const Element& row, int width) const;

  // The record time of a meter date (day, month 1..12, year - 2000, hour): its first
  // local occurrence; 0 for an all-zero date, -1 for a date with a field out of range.
  static time_t MeterDate(int day, int month, int year, int hour);

  // One exchange; the request is completed with its checksum.
  CVKT7Buffer Exchange(std::vector<unsigned char>& request, const char* name, bool tolerate);
  CVKT7Buffer Read(int reg, const char* name, bool tolerate = false);
  void SelectDataType(int type, const char* name);
  // Selects the archive date of record time t (daily and monthly records: the day,
  // hour 0). False when the meter answers that it holds no record of that date (error
  // code 3); any other error answer throws.
  bool SelectDate(time_t t, bool daily, const char* label);

  void GetAllProperties2();
  void SyncActiveParameters41(bool dump);
  void GetSystemData();
  void ReadFlash();
  // The meter clock; -1 when it cannot be trusted.
  time_t GetCurrentTimestamp();
  // Reads the selected record of time t (after SelectDate) into out. False when the
  // meter holds no such record; throws on any failure.
  bool ReadRecord(time_t t, bool daily, int kind, const char* label, const char* name, const char* rereadName,
                  ParamValueList& out);
  bool IsReportingDay(time_t dayStart) const;
  // Reads the current or integral values (data type already selected).
  void ReadValues(int kind, const char* name, time_t* ts, ParamValueList& out);
  void ReadMonthly(time_t t, ParamValueList& out);
  // Elements 77 and above; false for an element number the driver does not know.
  bool parce45inWorkEXTERNAL(const CVKT7Buffer& cursor, int element, int length, ParamValueList& out, int kind,
                             time_t ts);
  void AppendValue(ParamValueList& out, int param, int kind, const std::string& value, const std::string& dim,
                   unsigned char quality, unsigned char error, int sys, time_t ts, uint32_t* masks);

  std::unique_ptr<CVKT7LowLevelConnector> m_link;
  int m_baseType = 0;
  std::map<int, std::string> m_units;
  std::map<int, unsigned char> m_digits;
  std::vector<std::pair<int, int>> m_active;  // (element number, length)
  int m_scheme = 0;
  Element m_table[kElementCount];
  unsigned char m_version = 0;
  std::string m_versionText;
  std::string m_serial;
  unsigned char m_typeByte = 0;
  unsigned char m_reportDay = 0;
  unsigned char m_lastSystemByte = 0;
  // Set when an archive walk ends at a failure, cleared by the next clock read: a
  // later block of the same reading must not be filed past the record still owed.
  bool m_archBroken = false;
  std::atomic<bool> m_ready{false};
};
