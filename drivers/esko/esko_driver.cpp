#include "drivers/esko/esko_driver.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <vector>

#include "app/clock.h"
#include "drivers/base/exceptions.h"
#include "drivers/esko/esko_values.h"
#include "log/logger.h"

using mcd::CMeterBuffer;
using namespace mcd::esko;

namespace {

const EskoModel kMTR06Info = {"Cmcd_MTR06::", "CMcdMTR06::", "", "МТР-06", false};
const EskoModel kTM3EInfo = {"Cmcd_TM3E::", "CMcdTM3E::", "Cmcd_TM3E::", "ТМ-3Э", true};

const char kMaker[] = "ЗАО \"ЕСКО-3Э\"";
const int kQuality = 192;

// Parameter ids of the dictionary.
enum {
  kG1 = 0, kG2 = 1, kM1 = 3, kM2 = 4, kT1 = 6, kT2 = 7, kTsw = 8, kP1 = 9, kP2 = 10, kPsw = 11, kTa = 13,
  kER = 14, kQo = 17, kTW = 18, kV1 = 19, kV2 = 20, kIM1 = 22, kIM2 = 23, kTp = 30,
  kMaker_ = 31, kModel_ = 32, kFirmware = 33, kSerial = 34, kTSType = 38,
  kDN1 = 48, kDN2 = 49, kM1max = 51, kM2max = 52, kM1min = 53, kM2min = 54
};
enum { kKindCurrent = 0, kKindIntegral = 1, kKindSystem = 7, kKindSettings = 9 };

}  // namespace

// ---------------------------------------------------------------------------------

CEskoDriver::CEskoDriver(const EskoModel& model) : m_info(model) {
  std::memset(&m_img, 0, sizeof m_img);
  auto set = [](unsigned char* img, unsigned char cmd, unsigned char b3, unsigned char b4) {
    img[2] = cmd;
    img[3] = b3;
    img[4] = b4;
  };
  set(m_img.TG, 'T', 'G', 0);
  set(m_img.TS, 'T', 'S', 0);
  set(m_img.G, 'G', 0, 0);
  set(m_img.R, 'R', 0, 0);
  set(m_img.L, 'L', 0, 0);
  set(m_img.A1, 'A', 1, 0);
  set(m_img.A3, 'A', 3, 0);
  set(m_img.A31, 'A', 3, 1);
  set(m_img.A4, 'A', 4, 0);
  set(m_img.A41, 'A', 4, 1);
}

CEskoDriver::~CEskoDriver() { stop(); }

Cmcd_MTR06::Cmcd_MTR06() : CEskoDriver(kMTR06Info) {}
Cmcd_MTR06::~Cmcd_MTR06() { stop(); }
CEskoLowLevelConnector* Cmcd_MTR06::MakeLink(CConnector* connector, bool led) {
  return new CMTR06LowLevelConnector(connector, led);
}

Cmcd_TM3E::Cmcd_TM3E() : CEskoDriver(kTM3EInfo) {}
Cmcd_TM3E::~Cmcd_TM3E() { stop(); }
CEskoLowLevelConnector* Cmcd_TM3E::MakeLink(CConnector* connector, bool led) {
  return new CTM3ELowLevelConnector(connector, led);
}

// ---------------------------------------------------------------------------------

CMeterBuffer CEskoDriver::Cursor(const ReplyView& view) const {
  if (m_info.statVer4x) return CTM3EBuffer(view.data, view.length);
  return CMTR06Buffer(view.data, view.length);
}

ReplyView CEskoDriver::Send(unsigned char* image, const char* funcName) {
  if (!m_link) throw CDisconnectException();
  return m_link->SendString(image, CEskoLowLevelConnector::kImageSize, funcName, false);
}

ReplyView CEskoDriver::ReadR(uint16_t address, const char* funcName) {
  m_img.R[3] = static_cast<unsigned char>(address >> 8);
  m_img.R[4] = static_cast<unsigned char>(address & 0xFF);
  return Send(m_img.R, funcName);
}

ReplyView CEskoDriver::ReadG(uint16_t address, const char* funcName) {
  m_img.G[3] = static_cast<unsigned char>(address >> 8);
  m_img.G[4] = static_cast<unsigned char>(address & 0xFF);
  return Send(m_img.G, funcName);
}

void CEskoDriver::AddValue(ParamValueList& out, const char* name, int id, int kind, const std::string& text,
                           const char* dim, int sys, time_t stamp, double shown) {
  const uint8_t error = static_cast<uint8_t>(m_sys[sys % 3].errors & 0xFF);
  LOG_DEBUG("param %s[%d] - %d;%d  val - %g, MTR06OPCQuality - %d, ERR - %d\r", name, sys, id, kind, shown, kQuality,
            error);
  out.emplace_back(id, kind, text, dim, kQuality, error, static_cast<uint8_t>(sys), static_cast<int32_t>(stamp));
}

// ---------------------------------------------------------------------------------

void CEskoDriver::SaveConnector(CConnector* connector) {
  LOG_INFO("%sSaveConnector: create new Connector\r", m_info.driverPrefix);
  m_link.reset(MakeLink(connector, GetLedIndication()));
  m_link->SetNetAddress(0);
  auto found = configuration.find("serial");
  if (found != configuration.end()) m_link->SetNetAddress(static_cast<uint8_t>(atoi(found->second.c_str())));
  LOG_INFO("%sSaveConnector: net_addr = %d\r\n", m_info.driverPrefix, m_link->GetNetAddress());
}

namespace {
double U16(const ReplyView& v, int at) { return static_cast<double>((v.data[at] << 8) | v.data[at + 1]); }
bool Usable(const ReplyView& v) { return !v.empty() && v.length > 12; }
}  // namespace

void CEskoDriver::ParseModel(const ReplyView& v) {
  const char* p = m_info.initPrefix;
  if (!Usable(v)) return;
  CMeterBuffer c = Cursor(v);
  c += 8;
  const unsigned model = v.data[5], addr = v.data[6], statVer = v.data[7];
  m_workOffsetHours = static_cast<uint32_t>(ReadBCD(c, 3, "GetModel"));
  LOG_INFO("%sInit:Model %u, net_addr %u, work offset(hours) %u (%lu sec), stat ver 0x%02x", p, model, addr,
           m_workOffsetHours, static_cast<unsigned long>(m_workOffsetHours) * 3600ul, statVer);
  m_model = static_cast<uint16_t>(model);
  if (model != 96) LOG_CRIT("%sInit:Model is wrong for addr %u: %u, need 96!!!\r\n", p, addr, model);
  const bool is4x = (statVer >> 4) == 4;
  if (!m_info.statVer4x && is4x)
    LOG_CRIT("%sInit:Statistics ver is wrong for addr %u: x%x, is this TM-3E ???\r\n", p, addr, statVer);
  if (m_info.statVer4x && !is4x)
    LOG_CRIT("%sInit:Statistics ver is wrong for addr %u: x%x, need 0x4x!!!\r\n", p, addr, statVer);
}

void CEskoDriver::ParseSerial(const ReplyView& v) {
  if (!Usable(v)) return;
  char text[9];
  std::memcpy(text, v.data + 5, 8);
  text[8] = 0;
  unsigned serial = 0;
  if (sscanf(text, "%u", &serial) == 1) m_serial = serial;
  LOG_INFO("%sInit:SerialNum %u\r\n", m_info.initPrefix, m_serial);
}

void CEskoDriver::ParseFirmware(const ReplyView& v) {
  if (!Usable(v)) return;
  m_firmware.assign(reinterpret_cast<const char*>(v.data + 5), 4);
  m_firmware = m_firmware.c_str();  // stop at a NUL
  LOG_INFO("%sInit:Firmware Version %s\r\n", m_info.initPrefix, m_firmware.c_str());
}

// Serial number, model and firmware; a failed read leaves its default and the next is
// still asked.
void CEskoDriver::ReadIdentification() {
  const char* p = m_info.initPrefix;
  try {
    LOG_INFO("%sInit: ask SerialNum\r", p);
    ParseSerial(ReadR(0x0000, "GetSerialNumber"));
  } catch (const std::exception& e) {
    LOG_ERR("%sInit: serial number not read: %s\r\n", p, e.what());
  }
  try {
    LOG_INFO("%sInit: ask Model\r", p);
    ParseModel(ReadR(0x0010, "GetModel"));
  } catch (const std::exception& e) {
    LOG_ERR("%sInit: model not read: %s\r\n", p, e.what());
  }
  m_modelText = std::to_string(m_model);
  try {
    LOG_INFO("%sInit: ask Firmware Version\r", p);
    ParseFirmware(ReadR(0x00D8, "GetVersion"));
  } catch (const std::exception& e) {
    LOG_ERR("%sInit: firmware version not read: %s\r\n", p, e.what());
  }
}

void CEskoDriver::init() {
  for (auto& s : m_sys) s = SystemState();
  m_firstHour = m_firstDay = 0;
  m_haveTimes = false;
  m_oldest[0] = m_oldest[1] = 0;
  m_archType = 3;
  m_model = 96;
  m_serial = 0;
  m_firmware.clear();
  ReadIdentification();
}

// ---------------------------------------------------------------------------------

void CEskoDriver::CalcReal(bool max) {
  for (auto& s : m_sys) {
    if (max) {
      s.gmaxM1 = s.rangeM1 == 0 ? 0 : s.rangeM1 / 100 * s.gmaxM1Pct;
      s.gmaxM2 = s.rangeM2 == 0 ? 0 : s.rangeM2 / 100 * s.gmaxM2Pct;
    } else {
      s.gminM1 = s.rangeM1 == 0 ? 0 : s.rangeM1 / 100 * s.gminM1Pct;
      s.gminM2 = s.rangeM2 == 0 ? 0 : s.rangeM2 / 100 * s.gminM2Pct;
    }
  }
  if (max)
    LOG_DEBUG("GetSystemData:Calc real:  M1max(m3h) %g,%g,%g, M2max(m3h) %g,%g,%g \r\n", m_sys[0].gmaxM1,
              m_sys[1].gmaxM1, m_sys[2].gmaxM1, m_sys[0].gmaxM2, m_sys[1].gmaxM2, m_sys[2].gmaxM2);
  else
    LOG_DEBUG("GetSystemData:Calc real: M1min(m3h) %g,%g,%g, M2min(m3h) %g,%g,%g \r\n", m_sys[0].gminM1,
              m_sys[1].gminM1, m_sys[2].gminM1, m_sys[0].gminM2, m_sys[1].gminM2, m_sys[2].gminM2);
}

void CEskoDriver::ParseCircuits(const ReplyView& v) {
  if (!Usable(v)) return;
  for (int s = 0; s < 3; ++s) {
    m_sys[s].circuit = v.data[5 + s];
    m_sys[s].mode = v.data[8 + s];
    m_sys[s].haveCircuit = true;
  }
  LOG_DEBUG("GetSystemData: Kontur type %d,%d,%d, modif %d,%d,%d, KontON = x%02x \r\n", v.data[5], v.data[6],
            v.data[7], v.data[8], v.data[9], v.data[10], v.data[11]);
}

void CEskoDriver::ParseRanges(const ReplyView& v, bool third) {
  if (!Usable(v)) return;
  if (third) {
    m_sys[2].rangeM1 = U16(v, 5) / 10;
    m_sys[2].rangeM2 = U16(v, 7) / 10;
    LOG_DEBUG("GetSystemData: TS3: M1range(m3h) %g, M2range(m3h) %g \r\n", m_sys[2].rangeM1, m_sys[2].rangeM2);
    return;
  }
  m_sys[0].rangeM1 = U16(v, 5) / 10;
  m_sys[1].rangeM1 = U16(v, 7) / 10;
  m_sys[0].rangeM2 = U16(v, 9) / 10;
  m_sys[1].rangeM2 = U16(v, 11) / 10;
  LOG_DEBUG("GetSystemData: TS[1,2]: M1range(m3h) %g,%g, M2range(m3h) %g,%g \r\n", m_sys[0].rangeM1,
            m_sys[1].rangeM1, m_sys[0].rangeM2, m_sys[1].rangeM2);
}

void CEskoDriver::ParseLimits(const ReplyView& v, bool max) {
  if (!Usable(v)) return;
  for (int s = 0; s < 3; ++s) {
    if (max) {
      // Gmax comes in whole percent, unlike Gmin.
      m_sys[s].gmaxM1Pct = v.data[5 + s];
      m_sys[s].gmaxM2Pct = v.data[8 + s];
      m_sys[s].haveGmax = true;
    } else {
      m_sys[s].gminM1Pct = v.data[5 + s] / 20.0;
      m_sys[s].gminM2Pct = v.data[8 + s] / 20.0;
      m_sys[s].haveGmin = true;
    }
  }
  if (max)
    LOG_DEBUG("GetSystemData: M1max(%%) %g,%g,%g, M2max %g,%g,%g \r\n", m_sys[0].gmaxM1Pct, m_sys[1].gmaxM1Pct,
              m_sys[2].gmaxM1Pct, m_sys[0].gmaxM2Pct, m_sys[1].gmaxM2Pct, m_sys[2].gmaxM2Pct);
  else
    LOG_DEBUG("GetSystemData: M1min(%%) %g,%g,%g, M2min(%%) %g,%g,%g \r\n", m_sys[0].gminM1Pct, m_sys[1].gminM1Pct,
              m_sys[2].gminM1Pct, m_sys[0].gminM2Pct, m_sys[1].gminM2Pct, m_sys[2].gminM2Pct);
  CalcReal(max);
}

void CEskoDriver::ParseDN(const ReplyView& v, bool third) {
  if (!Usable(v)) return;
  if (third) {
    m_sys[2].dn1 = U16(v, 5);
    m_sys[2].dn2 = U16(v, 7);
    m_sys[2].haveDN = true;
    LOG_DEBUG("GetSystemData: TS3: DN1 %g, DN2 %g \r\n", m_sys[2].dn1, m_sys[2].dn2);
    return;
  }
  m_sys[0].dn1 = U16(v, 5);
  m_sys[1].dn1 = U16(v, 7);
  m_sys[0].dn2 = U16(v, 9);
  m_sys[1].dn2 = U16(v, 11);
  m_sys[0].haveDN = m_sys[1].haveDN = true;
  LOG_DEBUG("GetSystemData: TS[1,2]: DN1 %g,%g, DN2 %g,%g \r\n", m_sys[0].dn1, m_sys[1].dn1, m_sys[0].dn2,
            m_sys[1].dn2);
}

bool CEskoDriver::GetSystemData() {
  const char* fn = "GetSystemData";
  try {
    LOG_DEBUG("GetSystemData: ask Kontur Type\r");
    ParseCircuits(ReadR(0x50, fn));
    LOG_DEBUG("GetSystemData: ask G range for TS[1,2]\r");
    ParseRanges(ReadR(0x81, fn), false);
    LOG_DEBUG("GetSystemData: ask G range for TS3\r");
    ParseRanges(ReadR(0x89, fn), true);
    LOG_DEBUG("GetSystemData: ask Gmin\r");
    ParseLimits(ReadR(0x65, fn), false);
    LOG_DEBUG("GetSystemData: ask Gmax\r");
    ParseLimits(ReadR(0x6B, fn), true);
    LOG_DEBUG("GetSystemData: ask DN TS[1,2]\r");
    ParseDN(ReadR(0xA8, fn), false);
    LOG_DEBUG("GetSystemData: ask DN TS3\r");
    ParseDN(ReadR(0xB0, fn), true);
  } catch (const std::exception& e) {
    LOG_ERR("GetSystemData: exception\r\n");
    return false;
  }
  return true;
}

ParamValueList CEskoDriver::get_all_system_values() {
  ParamValueList out;
  const bool complete = GetSystemData();
  bool any = complete || m_serial != 0 || !m_firmware.empty();
  for (const auto& s : m_sys) any = any || s.haveCircuit;
  if (any) AddSystemValues(out, mcd::Now());
  return out;
}

void CEskoDriver::AddSystemValues(ParamValueList& out, time_t now) {
  AddValue(out, "MeterManufacturer", kMaker_, kKindSystem, kMaker, "", 0, now, 0);
  AddValue(out, "MeterModel", kModel_, kKindSystem, m_info.modelText, "", 0, now, m_model);
  if (!m_firmware.empty()) AddValue(out, "Firmware", kFirmware, kKindSystem, m_firmware, "", 0, now, 0);
  if (m_serial != 0)
    AddValue(out, "SerialNumber", kSerial, kKindSystem, std::to_string(m_serial), "", 0, now, m_serial);
  for (int s = 0; s < 3; ++s) {
    const SystemState& st = m_sys[s];
    if (st.haveCircuit)
      AddValue(out, "TSType", kTSType, kKindSystem, SchemeName(st.circuit, st.mode), "", s, now, st.circuit);
  }
  for (int s = 0; s < 3; ++s) {
    const SystemState& st = m_sys[s];
    if (st.haveDN) {
      AddValue(out, "DN1", kDN1, kKindSettings, SignificantText(st.dn1, 12), "мм", s, now, st.dn1);
      AddValue(out, "DN2", kDN2, kKindSettings, SignificantText(st.dn2, 12), "мм", s, now, st.dn2);
    }
    if (st.haveGmax) {
      AddValue(out, "M1max", kM1max, kKindSettings, SignificantText(st.gmaxM1, 12), "м3ч", s, now, st.gmaxM1);
      AddValue(out, "M2max", kM2max, kKindSettings, SignificantText(st.gmaxM2, 12), "м3ч", s, now, st.gmaxM2);
    }
    if (st.haveGmin) {
      AddValue(out, "M1min", kM1min, kKindSettings, SignificantText(st.gminM1, 12), "м3ч", s, now, st.gminM1);
      AddValue(out, "M2min", kM2min, kKindSettings, SignificantText(st.gminM2, 12), "м3ч", s, now, st.gminM2);
    }
  }
}

// ---------------------------------------------------------------------------------

namespace {
struct CurrentRow {
  int offset;
  const char* name1;
  int id1;
  const char* dim1;
  const char* name2;
  int id2;
  const char* dim2;
};
const CurrentRow kCurrentRows[] = {{8, "P1", kP1, "Aтм", "P2", kP2, "Aтм"},
                                   {16, "Psw", kPsw, "Aтм", "t1", kT1, "°C"},
                                   {24, "t2", kT2, "°C", "tsw", kTsw, "°C"},
                                   {48, "G1", kG1, "м3ч", "G2", kG2, "м3ч"},
                                   {56, "M1", kM1, "т/ч", "M2", kM2, "т/ч"}};
struct IntegRow {
  int offset;
  const char* name;
  int id;
  bool bcd14;
  int decimals;
  const char* dim;
};
const IntegRow kIntegRows[] = {{15, "Tp", kTp, false, 2, "ч"},  {27, "Qo", kQo, true, 9, "Гкал"},
                               {34, "IM1", kIM1, true, 6, "т"}, {41, "IM2", kIM2, true, 6, "т"},
                               {55, "V1", kV1, true, 6, "м3"},  {62, "V2", kV2, true, 6, "м3"},
                               {82, "TW", kTW, false, 2, "ч"}};
const char kCurrentFn[] = "GetCurrentData";
}  // namespace

void CEskoDriver::ReadCurrent(ParamValueList& out, time_t now) {
  const char* fn = kCurrentFn;
  for (int s = 0; s < 3; ++s) {
    ReplyView v = ReadG(static_cast<uint16_t>(s * 88), fn);
    if (Usable(v)) {
      CMeterBuffer c = Cursor(v);
      c += 5;
      m_sys[s].errors = ReadU32(c, fn);
      AddValue(out, "ER", kER, kKindCurrent, GetULongAsString(c), "", s, now, m_sys[s].errors);
    }
    for (const CurrentRow& row : kCurrentRows) {
      v = ReadG(static_cast<uint16_t>(s * 88 + row.offset), fn);
      if (!Usable(v)) continue;
      CMeterBuffer c = Cursor(v);
      c += 5;
      const double first = ReadFloat(c, fn);
      c += 4;
      const double second = ReadFloat(c, fn);
      AddValue(out, row.name1, row.id1, kKindCurrent, SignificantText(first, 16), row.dim1, s, now, first);
      AddValue(out, row.name2, row.id2, kKindCurrent, SignificantText(second, 16), row.dim2, s, now, second);
    }
  }
  ReplyView v = ReadG(0x4A76, fn);
  if (Usable(v)) {
    CMeterBuffer c = Cursor(v);
    c += 5;
    const double ta = ReadFloat(c, fn);
    for (int s = 0; s < 3; ++s) AddValue(out, "ta", kTa, kKindCurrent, SignificantText(ta, 16), "°C", s, now, ta);
  }
}

void CEskoDriver::ReadIntegrators(ParamValueList& out, time_t now) {
  const char* fn = kCurrentFn;
  time_t integStamp = now;
  ReplyView v = ReadR(0x0200, fn);
  if (Usable(v)) {
    LOG_DEBUG("GetCurrentData:current integrators date raw [Y.M.D h:m]:  %02x.%02x.%02x %02x:%02x \r\n", v.data[5],
              v.data[6], v.data[7], v.data[8], v.data[9]);
    struct tm d;
    const time_t t = DecodeMeterDate(v.data + 5, false, d) ? mktime(&d) : static_cast<time_t>(-1);
    if (t != static_cast<time_t>(-1)) integStamp = t;
  }
  for (int s = 0; s < 3; ++s) {
    for (const IntegRow& row : kIntegRows) {
      v = ReadR(static_cast<uint16_t>(0x0200 | (s * 76 + row.offset)), fn);
      if (!Usable(v)) continue;
      CMeterBuffer c = Cursor(v);
      c += 5;
      const std::string text = row.bcd14 ? GetBCD14AsString(c, row.decimals) : GetBCD8AsString(c, row.decimals);
      AddValue(out, row.name, row.id, kKindIntegral, text, row.dim, s, integStamp, atof(text.c_str()));
    }
  }
}

ParamValueList CEskoDriver::get_all_curtime_cur_integ_values() {
  ParamValueList out;
  try {
    const time_t now = mcd::Now();
    ReadCurrent(out, now);
    ReadIntegrators(out, now);
  } catch (const std::exception& e) {
    LOG_ERR("get_all_curtime_cur_integ_values: exception!\r");
  }
  return out;
}

// ---------------------------------------------------------------------------------
