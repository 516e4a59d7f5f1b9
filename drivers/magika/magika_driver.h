// Driver of the MAGIKA heat meters ("magika-axxx"), read through the maker's Modbus
// RTU gateway: identification, clock and current values from input registers
// (function 4); archives through the gateway's line transfer (command register 1001,
// length register 1002, data from 1003), newest line first, with the gateway's search
// mode when it has one.
//
// What the maker's documents leave open is checked instead of assumed (see
// docs/magika.md): the clock fields must be valid BCD, each archive line must be as
// long as its template says and carry a valid date, lines must come newest first.
#pragma once

#include <cstdint>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "drivers/base/base_driver.h"
#include "drivers/magika/magika_decode.h"
#include "transport/modbus_connector.h"

class CmcdMAGIKAAXXX : public CMcdBaseDriver {
 public:
  ~CmcdMAGIKAAXXX() override;

  void SaveConnector(CConnector* connector) override;
  void init() override;
  ParamValueList get_all_curtime_cur_integ_values() override;
  ParamValueList get_all_system_values() override;
  int GetTimestamps(Timestamps& out) override;
  int get_arch_values(int type, time_t from, time_t to, ParamValueList& out) override;
  bool IsReady() const override { return m_ready; }

 private:
  using Field = mcd::magika::Field;
  // Files the line's fields for the systems under `kind`, stamped `stamp`.
  void ParseLine(const std::vector<Field>& fields, const uint8_t* line, int kind, time_t stamp,
                 ParamValueList& out) const;
  // Pipes (1-based) of each heat system; from "pipes" ("1,2;3,4"), else 2s+1, 2s+2.
  std::vector<std::vector<int>> SystemPipes() const;
  // Reads `length` bytes of the transfer buffer (registers 1003..., 1128...).
  std::vector<uint8_t> ReadBuffer(int length);
  uint16_t ReadLength();
  // Positions the transfer just before the line of time `after` (newer lines are
  // passed over); false when the gateway has no search or did not find it.
  bool Search(int type, time_t after);
  std::string ReadTemplate(int type);
  // Reads and parses the archive's template; false (logged, transfer ended) when it is
  // not understood.
  bool Template(int type, std::vector<Field>& fields);
  int Walk(int type, time_t from, time_t to, ParamValueList& out);


  std::unique_ptr<CModbusMeterLink> m_link;
  bool m_ready = false;
  bool m_noSearch = false;
  bool m_initFailed = false;
  std::string m_serial, m_firmware;
  // The oldest line each archive held when a walk last reached its end; 0 = unknown.
  time_t m_oldest[2] = {0, 0};
};
