// The driver of a manufacturer this version has no driver for: it reads nothing, and
// it never gets ready, so the loop neither publishes values nor reads archives for it
// and its connection state stays 0.
#pragma once

#include "drivers/base/base_driver.h"

class CMcdEmptyDriver : public CMcdBaseDriver {
 public:
  ~CMcdEmptyDriver() override { stop(); }
  void SaveConnector(CConnector*) override {}
  void init() override {}
  ParamValueList get_all_curtime_cur_integ_values() override { return ParamValueList(); }
  ParamValueList get_all_system_values() override { return ParamValueList(); }
  int GetTimestamps(Timestamps&) override { return 0; }
  int get_arch_values(int, time_t, time_t, ParamValueList&) override { return -1; }
  bool IsReady() const override { return false; }
};
