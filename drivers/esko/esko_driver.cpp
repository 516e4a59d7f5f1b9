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

// Unit codes of the raw archive parameters.
enum { kUnitC = 1, kUnitHour = 2, kUnitMin = 3, kUnitTon = 6, kUnitGcal = 7, kUnitM3 = 10, kUnitM3h = 11,
       kUnitTonH = 12, kUnitAtm = 16, kUnitMm = 23 };

struct tm LocalTm(time_t t) {
  struct tm out;
  localtime_r(&t, &out);
  return out;
}

// Local midnight of t's day, shifted by `days` days.
time_t LocalMidnight(time_t t, int days) {
  struct tm v = LocalTm(t);
  v.tm_hour = v.tm_min = v.tm_sec = 0;
  v.tm_mday += days;
  v.tm_isdst = -1;
  return mktime(&v);
}

time_t LocalHourStart(time_t t) {
  struct tm v = LocalTm(t);
  v.tm_min = v.tm_sec = 0;
  v.tm_isdst = -1;
  return mktime(&v);
}

// A meter date: BCD year (less 2000), month 1..12, day, hour, minute, second.
struct tm MeterTm(const unsigned char* p, bool withSeconds) {
  struct tm v;
  std::memset(&v, 0, sizeof v);
  v.tm_year = BCDByte(p[0]) + 100;
  v.tm_mon = BCDByte(p[1]) - 1;
  v.tm_mday = BCDByte(p[2]);
  v.tm_hour = BCDByte(p[3]);
  v.tm_min = BCDByte(p[4]);
  v.tm_sec = withSeconds ? BCDByte(p[5]) : 0;
  v.tm_isdst = -1;
  return v;
}

std::vector<EskoRawParam> BuildRawTable() {
  std::vector<EskoRawParam> t;
  for (int s = 0; s < 3; ++s) {
    t.push_back({"Massa", "Value", 4, s, kUnitTon, 0, 22, kRawFloat});
    t.push_back({"Massa", "Value", 4, s, kUnitTon, 0, 23, kRawFloat});
    t.push_back({"Qo", "Value", 4, s, kUnitGcal, 0, 17, kRawFloat});
    t.push_back({"Vo", "Value", 4, s, kUnitM3, 0, 19, kRawFloat});
    t.push_back({"Vo", "Value", 4, s, kUnitM3, 0, 20, kRawFloat});
    t.push_back({"t", "Value", 2, s, kUnitC, 2, 6, kRawS16});
    t.push_back({"t", "Value", 2, s, kUnitC, 2, 7, kRawS16});
    t.push_back({"P", "Value", 1, s, kUnitAtm, 1, 9, kRawU8});
    t.push_back({"P", "Value", 1, s, kUnitAtm, 1, 10, kRawU8});
    t.push_back({"Tmin", "NotErr_Type", 2, s, kUnitMin, 0, 25, kRawU16});
    t.push_back({"Tmax", "NotErr_Type", 2, s, kUnitMin, 0, 26, kRawU16});
    t.push_back({"Tw", "TimeOfWork", 2, s, kUnitMin, 0, 18, kRawU16});
    t.push_back({"Terr_nw", "Err_Type", 2, s, kUnitMin, 0, 27, kRawU16});
    t.push_back({"Tp", "TimeOfPowerOn", 2, s, kUnitMin, 0, 28, kRawU16});
    t.push_back({"Terr_np", "Err_Type", 2, s, kUnitMin, 0, 29, kRawU16});
    t.push_back({"Tdt", "NotErr_Type", 2, s, kUnitMin, 0, -1, kRawU16});
    t.push_back({"Tf", "TimeOfFailure", 2, s, kUnitMin, 0, -1, kRawU16});
    t.push_back({"reserved", "Value", 6, s, 0, 0, -1, kRawSkip});
  }
  // The error words of the three heat systems close the table.
  for (int s = 0; s < 3; ++s) t.push_back({"Err", "Err_Type", 2, s, 0, 0, kER, kRawU16});
  return t;
}

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
  FillUnits();
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

uint8_t CEskoDriver::CalcCSInverted(const unsigned char* bytes, int count) {
  return static_cast<uint8_t>(~CEskoLowLevelConnector::CalcCS(bytes, count));
}

int CEskoDriver::RecordBase(int eskoKind) {
  switch (eskoKind) {
    case 0: return 0x220;
    case 1: return 0x20;
    case 2: return 2;
    default: return 0;
  }
}

const EskoRawParam* CEskoDriver::RawTable(int& count) {
  static const std::vector<EskoRawParam> table = BuildRawTable();
  count = static_cast<int>(table.size());
  return table.data();
}

const std::string& CEskoDriver::UnitText(int code) const {
  static const std::string blank = " ";
  if (code < 1 || code > 37) return blank;
  return m_units[code];
}

std::string CEskoDriver::SchemeName(int circuitType, int mode) {
  const char* name = circuitType == 0 ? "Закрытый" : circuitType == 1 ? "Открытый" : "Расходомер";
  return std::string(name) + " (Режим " + std::to_string(mode) + ")";
}

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

void CEskoDriver::PatchDate(unsigned char* image, int eskoKind, time_t t) const {
  const struct tm v = LocalTm(t);
  image[5] = ToBCD(v.tm_year - 100);
  image[6] = ToBCD(v.tm_mon + 1);
  image[7] = ToBCD(v.tm_mday);
  image[8] = eskoKind == 0 ? ToBCD(v.tm_hour) : 0;
  image[9] = 0;
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

void CEskoDriver::FillUnits() {
  static const struct {
    int code;
    const char* text;
  } kUnits[] = {{1, "°C"},   {2, "ч"},     {3, "мин"}, {4, "с"},    {5, "кг"},  {6, "т"},     {7, "Гкал"},
                {8, "т3"},   {9, "л"},     {10, "м3"}, {11, "м3ч"}, {12, "т/ч"}, {13, "кг/ч"}, {14, "МВт"},
                {15, "кВт"}, {16, "Aтм"},  {17, "МПа"}, {18, "кгс/см2"}, {19, "ГДж"}, {20, "МВтч"}, {21, "кВтч"},
                {22, "%"},   {23, "мм"},   {24, "л/ч"}};
  for (auto& unit : m_units) unit = " ";
  for (const auto& u : kUnits) m_units[u.code] = u.text;
}

void CEskoDriver::init() {
  for (auto& s : m_sys) s = SystemState();
  m_firstHour = m_firstDay = 0;
  m_haveTimes = false;
  m_archType = 3;
  m_model = 96;
  m_serial = 0;
  m_firmware.clear();

  FillUnits();

  const char* p = m_info.initPrefix;
  try {
    LOG_INFO("%sInit: ask SerialNum\r", p);
    ReplyView v = ReadR(0x0000, "GetSerialNumber");
    if (!v.empty() && v.length > 12) {
      char text[9];
      std::memcpy(text, v.data + 5, 8);
      text[8] = 0;
      unsigned serial = 0;
      if (sscanf(text, "%u", &serial) == 1) m_serial = serial;
      LOG_INFO("%sInit:SerialNum %u\r\n", p, m_serial);
    }
  } catch (const std::exception& e) {
    LOG_ERR("%sInit: serial number not read: %s\r\n", p, e.what());
  }
  try {
    LOG_INFO("%sInit: ask Model\r", p);
    ReplyView v = ReadR(0x0010, "GetModel");
    if (!v.empty() && v.length > 12) {
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
  } catch (const std::exception& e) {
    LOG_ERR("%sInit: model not read: %s\r\n", p, e.what());
  }
  m_modelText = std::to_string(m_model);
  try {
    LOG_INFO("%sInit: ask Firmware Version\r", p);
    ReplyView v = ReadR(0x00D8, "GetVersion");
    if (!v.empty() && v.length > 12) {
      m_firmware.assign(reinterpret_cast<const char*>(v.data + 5), 4);
      m_firmware = m_firmware.c_str();  // stop at a NUL
      LOG_INFO("%sInit:Firmware Version %s\r\n", p, m_firmware.c_str());
    }
  } catch (const std::exception& e) {
    LOG_ERR("%sInit: firmware version not read: %s\r\n", p, e.what());
  }
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

bool CEskoDriver::GetSystemData() {
  const char* fn = "GetSystemData";
  auto u16 = [](const ReplyView& v, int at) { return static_cast<double>((v.data[at] << 8) | v.data[at + 1]); };
  try {
    LOG_DEBUG("GetSystemData: ask Kontur Type\r");
    ReplyView v = ReadR(0x50, fn);
    if (!v.empty() && v.length > 12) {
      for (int s = 0; s < 3; ++s) {
        m_sys[s].circuit = v.data[5 + s];
        m_sys[s].mode = v.data[8 + s];
        m_sys[s].haveCircuit = true;
      }
      LOG_DEBUG("GetSystemData: Kontur type %d,%d,%d, modif %d,%d,%d, KontON = x%02x \r\n", v.data[5], v.data[6],
                v.data[7], v.data[8], v.data[9], v.data[10], v.data[11]);
    }
    LOG_DEBUG("GetSystemData: ask G range for TS[1,2]\r");
    v = ReadR(0x81, fn);
    if (!v.empty() && v.length > 12) {
      m_sys[0].rangeM1 = u16(v, 5) / 10;
      m_sys[1].rangeM1 = u16(v, 7) / 10;
      m_sys[0].rangeM2 = u16(v, 9) / 10;
      m_sys[1].rangeM2 = u16(v, 11) / 10;
      LOG_DEBUG("GetSystemData: TS[1,2]: M1range(m3h) %g,%g, M2range(m3h) %g,%g \r\n", m_sys[0].rangeM1,
                m_sys[1].rangeM1, m_sys[0].rangeM2, m_sys[1].rangeM2);
    }
    LOG_DEBUG("GetSystemData: ask G range for TS3\r");
    v = ReadR(0x89, fn);
    if (!v.empty() && v.length > 12) {
      m_sys[2].rangeM1 = u16(v, 5) / 10;
      m_sys[2].rangeM2 = u16(v, 7) / 10;
      LOG_DEBUG("GetSystemData: TS3: M1range(m3h) %g, M2range(m3h) %g \r\n", m_sys[2].rangeM1, m_sys[2].rangeM2);
    }
    LOG_DEBUG("GetSystemData: ask Gmin\r");
    v = ReadR(0x65, fn);
    if (!v.empty() && v.length > 12) {
      for (int s = 0; s < 3; ++s) {
        m_sys[s].gminM1Pct = v.data[5 + s] / 20.0;
        m_sys[s].gminM2Pct = v.data[8 + s] / 20.0;
        m_sys[s].haveGmin = true;
      }
      LOG_DEBUG("GetSystemData: M1min(%%) %g,%g,%g, M2min(%%) %g,%g,%g \r\n", m_sys[0].gminM1Pct, m_sys[1].gminM1Pct,
                m_sys[2].gminM1Pct, m_sys[0].gminM2Pct, m_sys[1].gminM2Pct, m_sys[2].gminM2Pct);
      CalcReal(false);
    }
    LOG_DEBUG("GetSystemData: ask Gmax\r");
    v = ReadR(0x6B, fn);
    if (!v.empty() && v.length > 12) {
      // Gmax comes in whole percent, unlike Gmin.
      for (int s = 0; s < 3; ++s) {
        m_sys[s].gmaxM1Pct = v.data[5 + s];
        m_sys[s].gmaxM2Pct = v.data[8 + s];
        m_sys[s].haveGmax = true;
      }
      LOG_DEBUG("GetSystemData: M1max(%%) %g,%g,%g, M2max %g,%g,%g \r\n", m_sys[0].gmaxM1Pct, m_sys[1].gmaxM1Pct,
                m_sys[2].gmaxM1Pct, m_sys[0].gmaxM2Pct, m_sys[1].gmaxM2Pct, m_sys[2].gmaxM2Pct);
      CalcReal(true);
    }
    LOG_DEBUG("GetSystemData: ask DN TS[1,2]\r");
    v = ReadR(0xA8, fn);
    if (!v.empty() && v.length > 12) {
      m_sys[0].dn1 = u16(v, 5);
      m_sys[1].dn1 = u16(v, 7);
      m_sys[0].dn2 = u16(v, 9);
      m_sys[1].dn2 = u16(v, 11);
      m_sys[0].haveDN = m_sys[1].haveDN = true;
      LOG_DEBUG("GetSystemData: TS[1,2]: DN1 %g,%g, DN2 %g,%g \r\n", m_sys[0].dn1, m_sys[1].dn1, m_sys[0].dn2,
                m_sys[1].dn2);
    }
    LOG_DEBUG("GetSystemData: ask DN TS3\r");
    v = ReadR(0xB0, fn);
    if (!v.empty() && v.length > 12) {
      m_sys[2].dn1 = u16(v, 5);
      m_sys[2].dn2 = u16(v, 7);
      m_sys[2].haveDN = true;
      LOG_DEBUG("GetSystemData: TS3: DN1 %g, DN2 %g \r\n", m_sys[2].dn1, m_sys[2].dn2);
    }
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
  if (!any) return out;

  const time_t now = mcd::Now();
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
  return out;
}

// ---------------------------------------------------------------------------------

ParamValueList CEskoDriver::get_all_curtime_cur_integ_values() {
  ParamValueList out;
  const char* fn = "GetCurrentData";
  struct Row {
    int offset;
    const char* name1;
    int id1;
    const char* dim1;
    const char* name2;
    int id2;
    const char* dim2;
  };
  static const Row kRows[] = {{8, "P1", kP1, "Aтм", "P2", kP2, "Aтм"},
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
  static const IntegRow kIntegRows[] = {{15, "Tp", kTp, false, 2, "ч"},   {27, "Qo", kQo, true, 9, "Гкал"},
                                        {34, "IM1", kIM1, true, 6, "т"},  {41, "IM2", kIM2, true, 6, "т"},
                                        {55, "V1", kV1, true, 6, "м3"},   {62, "V2", kV2, true, 6, "м3"},
                                        {82, "TW", kTW, false, 2, "ч"}};
  try {
    const time_t now = mcd::Now();
    for (int s = 0; s < 3; ++s) {
      ReplyView v = ReadG(static_cast<uint16_t>(s * 88), fn);
      if (!v.empty() && v.length > 12) {
        CMeterBuffer c = Cursor(v);
        c += 5;
        m_sys[s].errors = ReadU32(c, fn);
        AddValue(out, "ER", kER, kKindCurrent, GetULongAsString(c), "", s, now, m_sys[s].errors);
      }
      for (const Row& row : kRows) {
        v = ReadG(static_cast<uint16_t>(s * 88 + row.offset), fn);
        if (v.empty() || v.length <= 12) continue;
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
    if (!v.empty() && v.length > 12) {
      CMeterBuffer c = Cursor(v);
      c += 5;
      const double ta = ReadFloat(c, fn);
      for (int s = 0; s < 3; ++s) AddValue(out, "ta", kTa, kKindCurrent, SignificantText(ta, 16), "°C", s, now, ta);
    }

    time_t integStamp = now;
    v = ReadR(0x0200, fn);
    if (!v.empty() && v.length > 12) {
      LOG_DEBUG("GetCurrentData:current integrators date raw [Y.M.D h:m]:  %02x.%02x.%02x %02x:%02x \r\n", v.data[5],
                v.data[6], v.data[7], v.data[8], v.data[9]);
      struct tm d = MeterTm(v.data + 5, false);
      const time_t t = mktime(&d);
      if (t > 0 && d.tm_mon >= 0) integStamp = t;
    }
    for (int s = 0; s < 3; ++s) {
      for (const IntegRow& row : kIntegRows) {
        v = ReadR(static_cast<uint16_t>(0x0200 | (s * 76 + row.offset)), fn);
        if (v.empty() || v.length <= 12) continue;
        CMeterBuffer c = Cursor(v);
        c += 5;
        const std::string text = row.bcd14 ? GetBCD14AsString(c, row.decimals) : GetBCD8AsString(c, row.decimals);
        AddValue(out, row.name, row.id, kKindIntegral, text, row.dim, s, integStamp, atof(text.c_str()));
      }
    }
  } catch (const std::exception& e) {
    LOG_ERR("get_all_curtime_cur_integ_values: exception!\r");
  }
  return out;
}

// ---------------------------------------------------------------------------------

time_t CEskoDriver::ReadMeterClock() {
  ReplyView v = Send(m_img.TG, "GetCurrentTimestamp");
  if (v.empty() || v.length <= 12) throw CDisconnectException();
  struct tm d = MeterTm(v.data + 5, true);
  LOG_INFO("current time heat meter - %02d.%02d.%04d %02d:%02d:%02d\r\n", d.tm_mday, d.tm_mon + 1, d.tm_year + 1900,
           d.tm_hour, d.tm_min, d.tm_sec);
  const time_t t = mktime(&d);
  if (t <= 0) throw CDisconnectException();
  return t;
}

bool CEskoDriver::FindArchDate(int eskoKind, time_t t, unsigned& recordNumber, unsigned& recordRest) {
  if (eskoKind != 0 && eskoKind != 1) return false;
  unsigned char* img = eskoKind == 0 ? m_img.A3 : m_img.A31;
  PatchDate(img, eskoKind, t);
  ReplyView v = Send(img, "FindArchDate");
  if (v.empty() || v.length <= 12) {
    LOG_ERR("%sFindArchRecNum - NOT ENOUGH DATA returned: %d !!!\r\n", m_info.driverPrefix, v.length);
    return false;
  }
  recordNumber = static_cast<unsigned>((v.data[5] << 8) | v.data[6]);
  recordRest = static_cast<unsigned>((v.data[7] << 8) | v.data[8]);
  LOG_DEBUG("%sFindArchRecNum: rec num %u, rec rest %u\r", m_info.driverPrefix, recordNumber, recordRest);
  return true;
}

bool CEskoDriver::CheckArchDate(int eskoKind, const struct tm& got, const struct tm& want) const {
  const char* p = m_info.driverPrefix;
  if (got.tm_year != want.tm_year) {
    LOG_ERR("%sCheckArchDate - Returned Year %d != requested %d! \r\n", p, got.tm_year + 1900, want.tm_year + 1900);
    return false;
  }
  if (got.tm_mon != want.tm_mon) {
    LOG_ERR("%sCheckArchDate - Returned Month %d != requested %d! \r\n", p, got.tm_mon + 1, want.tm_mon + 1);
    return false;
  }
  if (got.tm_mday != want.tm_mday) {
    LOG_ERR("%sCheckArchDate - Returned Day %d != requested %d! \r\n", p, got.tm_mday, want.tm_mday);
    return false;
  }
  if (eskoKind == 0 && got.tm_hour != want.tm_hour) {
    LOG_ERR("%sCheckArchDate - Returned Hour %d != requested %d! \r\n", p, got.tm_hour, want.tm_hour);
    return false;
  }
  return true;
}

bool CEskoDriver::FindArchRecNum(int eskoKind, time_t t, int& recordIndex) {
  const char* p = m_info.driverPrefix;
  if (eskoKind != 0 && eskoKind != 1) return false;
  const struct tm want = LocalTm(t);
  if (eskoKind == 0)
    LOG_DEBUG("%sFindArchRecNum: rqst date- %lu, %02d.%02d.%04d %02d:00 \r", p, static_cast<unsigned long>(t),
              want.tm_mday, want.tm_mon + 1, want.tm_year + 1900, want.tm_hour);
  else
    LOG_DEBUG("%sFindArchRecNum: rqst date- %lu, %02d.%02d.%04d 00:00 \r", p, static_cast<unsigned long>(t),
              want.tm_mday, want.tm_mon + 1, want.tm_year + 1900);

  unsigned number = 0, rest = 0;
  if (!FindArchDate(eskoKind, t, number, rest)) return false;

  const unsigned index = number + static_cast<unsigned>(RecordBase(eskoKind));
  const uint16_t address = static_cast<uint16_t>(index * 32);
  m_img.L[3] = static_cast<unsigned char>(address >> 8);
  m_img.L[4] = static_cast<unsigned char>(address & 0xFF);
  LOG_DEBUG("%sFindArchRecNum: Ask rec date from addr 0x%02x%02x\r", p, m_img.L[3], m_img.L[4]);
  ReplyView v = Send(m_img.L, "GetArchRecDate");
  if (v.empty() || v.length <= 12) {
    LOG_ERR("%sFindArchRecNum - NOT ENOUGH DATA returned: %d !!!\r\n", p, v.length);
    return false;
  }
  const struct tm got = MeterTm(v.data + 5, false);
  LOG_DEBUG("%sFindArchRecNum: got arch date- %02d.%02d.%04d %02d:%02d \r", p, got.tm_mday, got.tm_mon + 1,
            got.tm_year + 1900, got.tm_hour, got.tm_min);
  if (!CheckArchDate(eskoKind, got, want)) return false;

  m_img.A1[4] = static_cast<unsigned char>((index >> 8) & 0xFF);
  m_img.A1[5] = static_cast<unsigned char>(index & 0xFF);
  v = Send(m_img.A1, "ReadArchRec");
  if (v.empty()) return false;
  char label[96];
  snprintf(label, sizeof label, "%sFindArchRecNum: arch rec 0x%04x", p, index);
  m_link->WriteRawLog(v.data, v.length, label);
  recordIndex = static_cast<int>(index);
  return true;
}

bool CEskoDriver::ReadArchData(int eskoKind, int type, time_t want, time_t lo, time_t hi, ParamValueList& out) {
  const char* p = m_info.driverPrefix;
  const char* typeText = type == ARCH_HOURLY ? "HOURLY" : "DAILY";
  const struct tm w = LocalTm(want);
  char when[64];
  snprintf(when, sizeof when, "%02d.%02d.%04d %02d:00", w.tm_mday, w.tm_mon + 1, w.tm_year + 1900,
           eskoKind == 0 ? w.tm_hour : 0);
  LOG_DEBUG("%sReadArchData: ask find arch type %d(JSONRPC %d [%s]) page for %s\r", p, eskoKind, type, typeText, when);
  unsigned char* img = eskoKind == 0 ? m_img.A4 : m_img.A41;
  PatchDate(img, eskoKind, want);
  ReplyView v = Send(img, "ReadArchData");
  if (v.empty()) {
    LOG_ERR("%sReadArchData - No data in arch to %s\r\n", p, when);
    return false;
  }
  if (v.length < 260) {
    LOG_ERR("%sReadArchData - NOT ENOUGH DATA returned: %d !!!\r\n", p, v.length);
    return false;
  }
  return ParseArchPage(v.data, v.length, eskoKind, type, want, lo, hi, out);
}

bool CEskoDriver::ParseArchPage(const unsigned char* reply, int length, int eskoKind, int type, time_t want, time_t lo,
                                time_t hi, ParamValueList& out) {
  const char* p = m_info.driverPrefix;
  if (!reply || length < 260) return false;
  const unsigned char* d = reply + 4;
  LOG_DEBUG("arch page date raw [Y.M.D h:m]:  %02x.%02x.%02x %02x:%02x \r\n", d[0], d[1], d[2], d[3], d[4]);
  struct tm got = MeterTm(d, false);
  LOG_DEBUG("arch page date - %02d.%02d.%04d %02d:%02d \r\n", got.tm_mday, got.tm_mon + 1, got.tm_year + 1900,
            got.tm_hour, got.tm_min);
  const struct tm w = LocalTm(want);
  if (got.tm_year != w.tm_year) {
    LOG_ERR("%sFindArchDate - Returned Year %d != requested %d! \r\n", p, got.tm_year + 1900, w.tm_year + 1900);
    return false;
  }
  if (got.tm_mon != w.tm_mon) {
    LOG_ERR("%sFindArchDate - Returned Month %d != requested %d! \r\n", p, got.tm_mon + 1, w.tm_mon + 1);
    return false;
  }
  if (got.tm_mday != w.tm_mday) {
    LOG_ERR("%sFindArchDate - Returned Day %d != requested %d! \r\n", p, got.tm_mday, w.tm_mday);
    return false;
  }
  if (eskoKind == 0 && got.tm_hour != w.tm_hour) {
    LOG_ERR("%sFindArchDate - Returned Hour %d != requested %d! \r\n", p, got.tm_hour, w.tm_hour);
    return false;
  }
  // The page carries a complemented sum of its bytes; meters in the field are known to
  // send pages whose sum does not match, so a mismatch is only logged.
  const uint8_t cs = CalcCSInverted(reply + 4, 255);
  if (cs != reply[259])
    LOG_DEBUG("%sReadArchData - WRONG ARCH PAGE CS: x%02x, got x%02x\r\n", p, cs, reply[259]);

  const time_t pageTime = mktime(&got);
  const int interval = eskoKind == 0 ? 3600 : 86400;
  const time_t stamp = pageTime - interval;  // a record is stamped with the start of its interval
  if (pageTime < lo || pageTime > hi) {
    LOG_DEBUG("%sReadArchData: page %lu outside %lu..%lu, skipped\r", p, static_cast<unsigned long>(pageTime),
              static_cast<unsigned long>(lo), static_cast<unsigned long>(hi));
    return true;
  }
  LOG_DEBUG("%sReadArchData: parsing received pages\r", p);
  const struct tm st = LocalTm(stamp);
  LOG_DEBUG("%sReadArchData: arch time %lu  %02d-%02d-%04d %02d:%02d\r", p, static_cast<unsigned long>(stamp),
            st.tm_mday, st.tm_mon + 1, st.tm_year + 1900, st.tm_hour, st.tm_min);
  CMeterBuffer page = Cursor(ReplyView{reply, length});
  page += 4;
  parse_inWork(page, type, stamp, out);
  LOG_DEBUG("%sReadArchData finished.\r", p);
  return true;
}

int CEskoDriver::parse_inWork(const CMeterBuffer& page, int type, time_t stamp, ParamValueList& out) {
  int count = 0;
  const EskoRawParam* table = RawTable(count);
  CMeterBuffer c = page;
  c += 5;  // the page date
  ParamValueList values;
  uint32_t errors[3] = {0, 0, 0};
  int parsed = 0;
  for (int i = 0; i < count; ++i) {
    const EskoRawParam& e = table[i];
    LOG_DEBUG("raw param[%d] %d, size %d, sys %d, dim %d, dec_pos %d, jsonParm %d, jsonType %d\r", i, e.encoding,
              e.size, e.sys, e.dim, e.decPos, e.jsonParm, type);
    if (e.jsonParm < 0 || e.encoding == kRawSkip) {
      LOG_DEBUG("param - %d;%d : skip UNKNOWN_JSONRPC!\r\n", i, type);
      c += e.size;
      continue;
    }
    if (e.jsonParm == kER) {
      errors[e.sys] = ReadU16(c, "parse_inWork");
      c += e.size;
      continue;
    }
    std::string text;
    switch (e.encoding) {
      case kRawFloat: text = GetFloatAsString(c); break;
      case kRawS16: text = GetIntDivAsString(c, e.decPos); break;
      case kRawU8: text = GetCharDivAsString(c, e.decPos); break;
      default: text = e.decPos == 0 ? GetUShortAsString(c) : SignificantText(ReadU16(c) / std::pow(10.0, e.decPos), 12);
    }
    values.emplace_back(e.jsonParm, type, text, UnitText(e.dim), kQuality, 0, static_cast<uint8_t>(e.sys),
                        static_cast<int32_t>(stamp));
    ++parsed;
    c += e.size;
  }
  LOG_DEBUG("%sparse_inWork: parsed %d values, store system errors  [ x%X, x%X, x%X ]\r", m_info.driverPrefix, parsed,
            errors[0], errors[1], errors[2]);
  for (auto& v : values) {
    v.error = static_cast<uint8_t>(errors[v.sys % 3] & 0xFF);
    out.push_back(v);
  }
  for (int s = 0; s < 3; ++s)
    out.emplace_back(kER, type, std::to_string(errors[s]), "", kQuality, static_cast<uint8_t>(errors[s] & 0xFF),
                     static_cast<uint8_t>(s), static_cast<int32_t>(stamp));
  return parsed;
}

// ---------------------------------------------------------------------------------

time_t CEskoDriver::FindOldest(int eskoKind, time_t newest, int interval) {
  for (int back = 0; back < 2; ++back) {
    const time_t t = eskoKind == 1 ? LocalMidnight(newest, -back) : newest - back * interval;
    unsigned number = 0, rest = 0;
    try {
      if (FindArchDate(eskoKind, t, number, rest)) {
        const time_t oldest = eskoKind == 1 ? LocalMidnight(t, -static_cast<int>(rest))
                                            : t - static_cast<time_t>(rest) * interval;
        const struct tm o = LocalTm(oldest);
        LOG_INFO("min %s arch - %02d.%02d.%04d %02d:%02d \r\n", eskoKind == 0 ? "hour" : "day", o.tm_mday,
                 o.tm_mon + 1, o.tm_year + 1900, o.tm_hour, o.tm_min);
        return oldest;
      }
    } catch (const CDisconnectException&) {
      if (!m_link || m_link->LastError() == 0) throw;  // the link failed, not the search
    }
  }
  return 0;
}

int CEskoDriver::GetTimestamps(Timestamps& out) {
  const char* p = m_info.driverPrefix;
  // Outside its turn the driver does not touch the shared line: it answers from its
  // last reading, with the meter clock moved on by the local clock.
  if (!GetTurn() && m_haveTimes) {
    out.first_hour_arch = static_cast<int32_t>(m_firstHour);
    out.first_day_arch = static_cast<int32_t>(m_firstDay);
    out.meter_time = static_cast<int32_t>(m_meterTime + (mcd::Now() - m_meterTimeReadAt));
    return 1;
  }
  try {
    const time_t meter = ReadMeterClock();
    m_meterTime = meter;
    m_meterTimeReadAt = mcd::Now();

    LOG_DEBUG("%sGetTimestamps: find min date ArchRecHourly\r", p);
    const time_t newestHour = LocalHourStart(meter);
    const time_t oldestHour = FindOldest(0, newestHour, 3600);
    m_firstHour = oldestHour ? oldestHour - 3600 : newestHour;

    LOG_DEBUG("%sGetTimestamps: find min date ArchRecDaily\r", p);
    const time_t newestDay = LocalMidnight(meter, 0);
    const time_t oldestDay = FindOldest(1, newestDay, 86400);
    m_firstDay = oldestDay ? LocalMidnight(oldestDay, -1) : newestDay;

    out.first_hour_arch = static_cast<int32_t>(m_firstHour);
    out.first_day_arch = static_cast<int32_t>(m_firstDay);
    out.meter_time = static_cast<int32_t>(meter);
    m_haveTimes = true;
    m_archBroken = false;
    LOG_DEBUG("%sGetTimestamps: Done.\r", p);
    return 1;
  } catch (const std::exception& e) {
    LOG_ERR("%sGetTimestamps: exception occured: %s\r\n", p, e.what());
    return 0;
  }
}

int CEskoDriver::get_arch_values(int type, time_t from, time_t to, ParamValueList& out) {
  const char* lp = m_info.loopPrefix;
  int interval, eskoKind;
  const char *typeText, *word;
  if (type == ARCH_HOURLY) {
    interval = 3600, eskoKind = 0, typeText = "HOURLY", word = "Hourly";
  } else if (type == ARCH_DAILY) {
    interval = 86400, eskoKind = 1, typeText = "DAILY", word = "Daily";
  } else {
    return 2;
  }
  const time_t first = eskoKind == 0 ? m_firstHour : m_firstDay;
  LOG_DEBUG("get_arch_values: want ask %s values from %lu to %lu \r", word, static_cast<unsigned long>(from),
            static_cast<unsigned long>(to));
  LOG_DEBUG("get_arch_values: MaxTime%s %lu, meter time %lu \r", eskoKind == 0 ? "Hour" : "Day",
            static_cast<unsigned long>(first), static_cast<unsigned long>(m_meterTime));
  const size_t before = out.size();
  // After a link failure the rest of this reading is left for the next turn, so the
  // records filed stay without gaps.
  if (m_archBroken) {
    LOG_ERR("%sget_arch_values: link failed earlier in this reading, %s left for the next turn\r\n",
            m_info.driverPrefix, typeText);
  } else {
    for (time_t t = from; t <= to; t += interval) {
      LOG_DEBUG("Start read %s values at %lu, JSON type %d[%s], ESKO type %d\r", word,
                static_cast<unsigned long>(t + interval), type, typeText, eskoKind);
      if (t < first) continue;
      try {
        int index = 0;
        if (!FindArchRecNum(eskoKind, t + interval, index)) continue;
        ReadArchData(eskoKind, type, t + interval, from + interval, to + interval, out);
      } catch (const CDisconnectException& e) {
        if (m_link && m_link->LastError() != 0) {
          LOG_ERR("%sget_arch_values: no record at %lu (code %d)\r\n", m_info.driverPrefix,
                  static_cast<unsigned long>(t + interval), m_link->LastError());
          continue;
        }
        LOG_ERR("%sget_arch_values: exception %s\r\n", m_info.driverPrefix, e.what());
        m_archBroken = true;
        break;
      } catch (const std::exception& e) {
        LOG_ERR("%sget_arch_values: exception %s\r\n", m_info.driverPrefix, e.what());
        m_archBroken = true;
        break;
      }
    }
  }
  const bool got = out.size() > before;
  if (eskoKind == 0)
    LOG_INFO(got ? "%sReadHourlyArch readed all hourly values." : "%sReadHourlyArch archive hourly info is absent.", lp);
  else
    LOG_INFO(got ? "%sReadDailyArch readed all daily values." : "%sReadDailyArch archive daily info is absent.", lp);
  return 0;
}
