// Driver of the Vzlet TSRV-024M heat calculator ("tsrv-024m"), read as a Modbus RTU
// slave: identification by function 17, current values and totals from input
// registers (function 4), hourly and daily archive records one at a time by their
// local date and hour with the maker's function 65.
//
// What the maker's documents leave open is checked on the meter instead of assumed
// (see docs/tsrv.md): the 8-byte layout of the totals is decided on first contact,
// the byte order of archive records from the first record's time field, and a
// record whose time does not match the time asked for is not filed.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>

#include "drivers/base/base_driver.h"
#include "drivers/tsrv/tsrv_decode.h"
#include "transport/modbus_connector.h"

class CmcdTSRV : public CMcdBaseDriver {
 public:
  ~CmcdTSRV() override;

  void SaveConnector(CConnector* connector) override;
  void init() override;
  ParamValueList get_all_curtime_cur_integ_values() override;
  ParamValueList get_all_system_values() override;
  int GetTimestamps(Timestamps& out) override;
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override;
  bool IsReady() const override { return m_totals != mcd::tsrv::kTotalsUnknown; }

  // Byte order of the archive records, once decided by the first record.
  enum RecordOrder { kOrderUnknown, kOrderBig, kOrderLittle };

 private:
  enum Result { kRecord, kNoRecord, kRefused };
  // Reads the record of system sys (archive kind 4/5) for the local interval starting
  // at t; kRecord puts its values into out.
  Result ReadRecord(int type, int sys, time_t t, ParamValueList& out);
  void ReadInputBytes(uint16_t address, int count, uint8_t* out);
  // Decides the records' byte order from the first record's time (period start or
  // end of the time asked); whether this record's time fits.
  bool StampFits(const uint8_t* record, uint32_t asked, uint32_t period);
  int Systems() const;


  std::unique_ptr<CModbusMeterLink> m_link;
  mcd::tsrv::TotalsLayout m_totals = mcd::tsrv::kTotalsUnknown;
  RecordOrder m_order = kOrderUnknown;
  std::string m_model, m_firmware;
  std::string m_notReady;  // why init did not succeed the last time
};
