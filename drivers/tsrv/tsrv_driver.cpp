#include "drivers/tsrv/tsrv_driver.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "app/clock.h"
#include "drivers/base/calendar.h"
#include "drivers/base/exceptions.h"
#include "drivers/base/value_text.h"
#include "log/logger.h"

namespace {

const int kQuality = 192;
const int kKindCurrent = 0;
const int kKindIntegral = 1;
const int kKindSystem = 7;
const char kMaker[] = "ЗАО \"Взлёт\"";
const long kHour = 3600;
const long kDay = 86400;
const long kWeek = 7 * kDay;
// Archive depths: 1488 hourly and 366 daily records.
const long kHourlyDepth = 1487 * kHour;
const long kDailyDepth = 365 * kDay;
const int kRecordLength = 172;
const int kRecordLengthPlus = 186;

uint32_t Be32(const uint8_t* b) {
  return (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
}
uint32_t Le32(const uint8_t* b) {
  return (uint32_t(b[3]) << 24) | (uint32_t(b[2]) << 16) | (uint32_t(b[1]) << 8) | b[0];
}
uint16_t U16(const uint8_t* b, bool little) { return little ? uint16_t(b[0] | (b[1] << 8)) : uint16_t((b[0] << 8) | b[1]); }
uint32_t U32(const uint8_t* b, bool little) { return little ? Le32(b) : Be32(b); }
float F32(const uint8_t* b, bool little) {
  const uint32_t bits = U32(b, little);
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

std::string Fixed(double v, int digits) {
  char text[48];
  snprintf(text, sizeof text, "%.*f", digits, v);
  return text;
}

std::string Hex(const uint8_t* b, int n) {
  std::string text;
  char two[4];
  for (int i = 0; i < n; ++i) {
    snprintf(two, sizeof two, "%02X", b[i]);
    text += two;
  }
  return text;
}

std::string TimeText(time_t t) {
  struct tm parts;
  localtime_r(&t, &parts);
  char text[32];
  strftime(text, sizeof text, "%d.%m.%Y %H:%M:%S", &parts);
  return text;
}

bool PlausibleFloat(float f) { return std::isnormal(f) && std::fabs(f) >= 1e-6f && std::fabs(f) < 1e8f; }

// The meter counts its local time as if it were UTC: the same calendar fields.
time_t LocalFromMeter(uint32_t seconds) {
  const time_t t = static_cast<time_t>(seconds);
  struct tm parts;
  gmtime_r(&t, &parts);
  parts.tm_isdst = -1;
  return mktime(&parts);
}

uint32_t MeterFromLabel(const mcd::cal::Label& l, int hour) {
  struct tm parts {};
  parts.tm_year = l.year - 1900;
  parts.tm_mon = l.month - 1;
  parts.tm_mday = l.day;
  parts.tm_hour = hour;
  return static_cast<uint32_t>(timegm(&parts));
}

void Add(ParamValueList& out, int id, int kind, const std::string& text, const char* dim, int sys, time_t stamp,
         uint8_t error = 0) {
  out.emplace_back(id, kind, text, dim, kQuality, error, static_cast<uint8_t>(sys), static_cast<int32_t>(stamp));
}

}  // namespace

CmcdTSRV::~CmcdTSRV() { stop(); }

void CmcdTSRV::SaveConnector(CConnector* connector) {
  auto found = configuration.find("serial");
  m_link.reset(CModbusMeterLink::ForMeter(connector, found == configuration.end() ? nullptr : &found->second));
  if (!m_link) {
    LOG_ERR("CmcdTSRV::SaveConnector - the port is not a Modbus line (\"protocol\" \"modbus\"): nothing is read");
    return;
  }
  LOG_INFO("CmcdTSRV::SaveConnector - slave address %d", m_link->Slave());
}

int CmcdTSRV::Systems() const {
  auto found = configuration.find("heat_systems");
  const int n = found == configuration.end() ? 1 : atoi(found->second.c_str());
  return n < 1 ? 1 : (n > 3 ? 3 : n);
}

void CmcdTSRV::ReadInputBytes(uint16_t address, int count, uint8_t* out) {
  uint16_t regs[64];
  m_link->ReadInput(address, count, regs);
  for (int i = 0; i < count; ++i) {
    out[2 * i] = static_cast<uint8_t>(regs[i] >> 8);
    out[2 * i + 1] = static_cast<uint8_t>(regs[i] & 0xFF);
  }
}

namespace mcd {
namespace tsrv {

TotalsLayout DecideTotals(const uint8_t* b) {
  const bool tailZero = Be32(b + 4) == 0;
  if (tailZero && Be32(b) == 0) return kTotalsIntFrac;
  if (tailZero && PlausibleFloat(F32(b, false))) return kTotalsFloat;
  const float fraction = F32(b + 4, false);
  if (std::isfinite(fraction) && fraction >= 0.0f && fraction < 1.0f) return kTotalsIntFrac;
  return kTotalsUnknown;
}

bool TotalText(const uint8_t* b, TotalsLayout layout, std::string& text, std::string& why) {
  if (layout == kTotalsFloat) {
    if (Be32(b + 4) != 0) {
      why = "a plain-float total with a non-zero tail " + Hex(b, 8);
      return false;
    }
    const float f = F32(b, false);
    if (!std::isfinite(f)) {
      why = "a total that is not a number " + Hex(b, 8);
      return false;
    }
    text = mcd::StreamText(f);
    return true;
  }
  const float fraction = F32(b + 4, false);
  if (layout != kTotalsIntFrac || !std::isfinite(fraction) || fraction < 0.0f || fraction >= 1.0f) {
    why = "a total whose fraction is not in [0, 1) " + Hex(b, 8);
    return false;
  }
  text = Fixed(static_cast<double>(Be32(b)) + static_cast<double>(fraction), 6);
  while (!text.empty() && text.back() == '0') text.pop_back();
  if (!text.empty() && text.back() == '.') text.pop_back();
  return true;
}

}  // namespace tsrv
}  // namespace mcd

using namespace mcd::tsrv;

void CmcdTSRV::init() {
  if (!m_link) return;
  std::string reason;
  try {
    uint8_t id[256] = {};
    const int n = m_link->ReportSlaveId(id, sizeof id - 1);
    // The answer data: slave id byte and run indicator, or the text at once.
    int start = 0;
    while (start < n && id[start] != 'V') ++start;
    std::string text(reinterpret_cast<const char*>(id + start), strnlen(reinterpret_cast<const char*>(id + start),
                                                                         static_cast<size_t>(n - start)));
    const std::string prefix = "Vzljot ";
    if (text.compare(0, prefix.size(), prefix) == 0) text = text.substr(prefix.size());
    const size_t space = text.rfind(' ');
    m_model = space == std::string::npos ? text : text.substr(0, space);
    m_firmware = space == std::string::npos ? std::string() : text.substr(space + 1);

    uint8_t total[8];
    ReadInputBytes(0xC0BE, 4, total);
    m_totals = DecideTotals(total);
    if (m_totals == kTotalsUnknown)
      reason = "the heat total " + Hex(total, 8) + " reads neither as integer part and fraction nor as a float";
    else
      LOG_INFO("CmcdTSRV::init - model %s, firmware %s; totals read as %s (%s)", m_model.c_str(), m_firmware.c_str(),
               m_totals == kTotalsFloat ? "a float" : "integer part and fraction", Hex(total, 8).c_str());
  } catch (const std::exception& e) {
    reason = std::string("exchange failed: ") + e.what();
  }
  // The reason is logged once per change, not on every retry.
  if (!reason.empty() && reason != m_notReady)
    LOG_WARNING("CmcdTSRV::init - values are not read yet: %s", reason.c_str());
  m_notReady = reason;
}

ParamValueList CmcdTSRV::get_all_system_values() {
  ParamValueList out;
  if (!m_link || !IsReady()) return out;
  const time_t now = mcd::Now();
  try {
    uint8_t serial[4];
    ReadInputBytes(0x8002, 2, serial);
    Add(out, 31, kKindSystem, kMaker, "", 0, now);
    Add(out, 32, kKindSystem, m_model, "", 0, now);
    if (!m_firmware.empty()) Add(out, 33, kKindSystem, m_firmware, "", 0, now);
    Add(out, 34, kKindSystem, std::to_string(Be32(serial)), "", 0, now);
  } catch (const std::exception& e) {
    LOG_ERR("CmcdTSRV::get_all_system_values - exchange failed: %s", e.what());
    out.clear();
  }
  return out;
}

ParamValueList CmcdTSRV::get_all_curtime_cur_integ_values() {
  ParamValueList out;
  if (!m_link || !IsReady()) return out;
  const time_t now = mcd::Now();
  try {
    uint8_t b[48];
    ReadInputBytes(0x8000, 2, b);
    const uint32_t clock = Be32(b);
    ReadInputBytes(0xC6BE, 2, b);
    const std::string outdoor = mcd::StreamText(F32(b, false));
    Add(out, 45, kKindSystem, TimeText(LocalFromMeter(clock)), "", 0, now);
    for (int n = 0; n < Systems(); ++n) {
      ReadInputBytes(static_cast<uint16_t>(0x806A + 2 * n), 2, b);
      const uint32_t flags = Be32(b);
      const uint8_t error = static_cast<uint8_t>(flags & 0xFF);
      Add(out, 14, kKindCurrent, std::to_string(flags), "", n, now, error);
      Add(out, 13, kKindCurrent, outdoor, "°C", n, now, error);
      for (int k = 0; k < 3; ++k) {
        ReadInputBytes(static_cast<uint16_t>(0xC106 + 0x18 * k + 0x60 * n), 0x0E, b);
        Add(out, 0 + k, kKindCurrent, mcd::StreamText(F32(b + 0x14, false)), "м3/ч", n, now, error);
        Add(out, 3 + k, kKindCurrent, mcd::StreamText(F32(b + 0x18, false)), "т/ч", n, now, error);
        Add(out, 6 + k, kKindCurrent, mcd::StreamText(F32(b + 0x0C, false)), "°C", n, now, error);
        Add(out, 9 + k, kKindCurrent, mcd::StreamText(F32(b + 0x10, false)), "МПа", n, now, error);
      }
      std::string text, why;
      ReadInputBytes(static_cast<uint16_t>(0xC0BE + 0x18 * n), 4, b);
      if (TotalText(b, m_totals, text, why))
        Add(out, 17, kKindIntegral, text, "Гкал", n, now, error);
      else
        LOG_WARNING("CmcdTSRV::get_all_curtime_cur_integ_values - heat total of system %d not filed: %s", n,
                    why.c_str());
      ReadInputBytes(static_cast<uint16_t>(0x8016 + 0x0E * n), 2, b);
      Add(out, 18, kKindIntegral, std::to_string(Be32(b)), "ч", n, now, error);
      for (int k = 0; k < 3; ++k) {
        ReadInputBytes(static_cast<uint16_t>(0xC234 + 0x3C * k + 0xF0 * n), 12, b);
        if (TotalText(b + 16, m_totals, text, why))
          Add(out, 19 + k, kKindIntegral, text, "м3", n, now, error);
        else
          LOG_WARNING("CmcdTSRV::get_all_curtime_cur_integ_values - volume of pipe %d, system %d not filed: %s",
                      k + 1, n, why.c_str());
        if (TotalText(b + 8, m_totals, text, why))
          Add(out, 22 + k, kKindIntegral, text, "т", n, now, error);
        else
          LOG_WARNING("CmcdTSRV::get_all_curtime_cur_integ_values - mass of pipe %d, system %d not filed: %s",
                      k + 1, n, why.c_str());
      }
    }
  } catch (const std::exception& e) {
    LOG_ERR("CmcdTSRV::get_all_curtime_cur_integ_values - exchange failed: %s", e.what());
    out.clear();
  }
  return out;
}

int CmcdTSRV::GetTimestamps(Timestamps& out) {
  if (!m_link) return 0;
  try {
    uint8_t b[4];
    ReadInputBytes(0x8000, 2, b);
    const uint32_t clock = Be32(b);
    const time_t t = static_cast<time_t>(clock);
    struct tm parts;
    gmtime_r(&t, &parts);
    if (clock == 0 || clock == 0xFFFFFFFFu || parts.tm_year < 100 || parts.tm_year > 199) {
      LOG_WARNING("CmcdTSRV::GetTimestamps - the meter clock %08X is not valid: archives are not read", clock);
      return 0;
    }
    const time_t meter = LocalFromMeter(clock);
    const time_t now = mcd::Now();
    if (meter > now + kWeek || meter < now - kWeek) {
      LOG_WARNING("CmcdTSRV::GetTimestamps - the meter clock %s is more than 7 days from the controller's %s: "
                  "archives are not read",
                  TimeText(meter).c_str(), TimeText(now).c_str());
      return 0;
    }
    out.meter_time = static_cast<int32_t>(meter);
    out.first_hour_arch = static_cast<int32_t>(mcd::cal::HourStart(meter - kHourlyDepth));
    out.first_day_arch = static_cast<int32_t>(mcd::cal::DayStart(meter - kDailyDepth));
    return 1;
  } catch (const std::exception& e) {
    LOG_ERR("CmcdTSRV::GetTimestamps - exchange failed: %s", e.what());
    return 0;
  }
}

void mcd::tsrv::ParseRecord(const uint8_t* r, bool le, int kind, int sys, time_t stamp, ParamValueList& out) {
  const uint32_t flags = U32(r + 80, le);
  const uint8_t error = static_cast<uint8_t>(flags & 0xFF);
  Add(out, 14, kind, std::to_string(flags), "", sys, stamp, error);
  for (int k = 0; k < 3; ++k) {
    Add(out, 6 + k, kind, Fixed(static_cast<int16_t>(U16(r + 152 + 2 * k, le)) / 100.0, 2), "°C", sys, stamp, error);
    Add(out, 9 + k, kind, Fixed(U16(r + 160 + 2 * k, le) / 1000.0, 3), "МПа", sys, stamp, error);
  }
  Add(out, 17, kind, mcd::StreamText(F32(r + 84, le)), "Гкал", sys, stamp, error);
  Add(out, 18, kind, std::to_string(U16(r + 4, le)), "мин", sys, stamp, error);
  for (int k = 0; k < 3; ++k) {
    Add(out, 19 + k, kind, mcd::StreamText(F32(r + 128 + 4 * k, le)), "м3", sys, stamp, error);
    Add(out, 22 + k, kind, mcd::StreamText(F32(r + 112 + 4 * k, le)), "т", sys, stamp, error);
  }
  Add(out, 29, kind, std::to_string(U16(r + 10, le)), "мин", sys, stamp, error);
}

bool CmcdTSRV::StampFits(const uint8_t* r, uint32_t asked, uint32_t period) {
  auto fits = [&](uint32_t v) { return v == asked || v == asked + period; };
  if (m_order == kOrderUnknown) {
    if (fits(Be32(r))) {
      m_order = kOrderBig;
    } else if (fits(Le32(r))) {
      m_order = kOrderLittle;
      LOG_WARNING("CmcdTSRV::get_arch_values - archive records of this meter are little-endian");
    }
  }
  return m_order != kOrderUnknown && fits(U32(r, m_order == kOrderLittle));
}

CmcdTSRV::Result CmcdTSRV::ReadRecord(int type, int sys, time_t t, ParamValueList& out) {
  const bool hourly = type == ARCH_HOURLY;
  const mcd::cal::Label label = mcd::cal::LocalLabel(t);
  const int hour = hourly ? label.hour : 0;
  const int array = (hourly ? 0 : 1) + 3 * sys;
  const uint8_t request[13] = {static_cast<uint8_t>(m_link->Slave()), 0x41, 0, static_cast<uint8_t>(array), 0, 1, 1,
                               0, 0, static_cast<uint8_t>(hour), static_cast<uint8_t>(label.day),
                               static_cast<uint8_t>(label.month), static_cast<uint8_t>(label.year % 100)};
  uint8_t answer[3 + 255 + 2];
  m_link->Raw(request, sizeof request, answer, sizeof answer,
              [](const uint8_t* b, int count) { return count < 3 ? 0 : 3 + b[2] + 2; });
  const int length = answer[2];
  const uint8_t* r = answer + 3;
  const char* what = hourly ? "hourly" : "daily";
  if (length == kRecordLengthPlus) {
    LOG_ERR("CmcdTSRV::get_arch_values - %s record %s of system %d has the 186-byte form of the TSRV-024M+, "
            "which this driver does not read",
            what, TimeText(t).c_str(), sys);
    return kRefused;
  }
  if (length != kRecordLength) {
    LOG_ERR("CmcdTSRV::get_arch_values - %s record %s of system %d is %d bytes long, not %d", what,
            TimeText(t).c_str(), sys, length, kRecordLength);
    return kRefused;
  }
  const uint32_t be = Be32(r);
  if (be == 0 || be == 0xFFFFFFFFu) {
    for (int i = 0; i < length; ++i)
      if (r[i] != 0 && be == 0) {
        LOG_ERR("CmcdTSRV::get_arch_values - %s record %s of system %d has no time but data: not filed", what,
                TimeText(t).c_str(), sys);
        return kRefused;
      }
    return kNoRecord;
  }
  // The meter rounds the time asked down to the period; its record carries the
  // period's start, or perhaps its end.
  const uint32_t asked = MeterFromLabel(label, hour);
  const uint32_t period = hourly ? kHour : kDay;
  const bool fits = StampFits(r, asked, period);
  const bool le = m_order == kOrderLittle;
  const uint32_t stamp = U32(r, le);
  if (!fits) {
    LOG_ERR("CmcdTSRV::get_arch_values - %s record asked for %s of system %d carries the time %08X (%s): not filed",
            what, TimeText(t).c_str(), sys, stamp, Hex(r, 4).c_str());
    return kRefused;
  }
  const unsigned limit = hourly ? 60 : 1440;
  if (U16(r + 4, le) > limit || U16(r + 10, le) > limit) {
    LOG_ERR("CmcdTSRV::get_arch_values - %s record %s of system %d counts more minutes than the period has: "
            "not filed",
            what, TimeText(t).c_str(), sys);
    return kRefused;
  }
  ParseRecord(r, le, type, sys, t, out);
  return kRecord;
}

int CmcdTSRV::get_arch_values(int type, time_t from, time_t to, ParamValueList& out) {
  if (!m_link || !IsReady() || (type != ARCH_HOURLY && type != ARCH_DAILY)) return 0;
  const bool hourly = type == ARCH_HOURLY;
  time_t t = hourly ? mcd::cal::HourStart(from) : mcd::cal::DayStart(from);
  if (t < from) t = hourly ? mcd::cal::NextHour(t) : mcd::cal::NextDay(t);
  // A young meter holds nothing for most of the times asked in a first walk: the times
  // it does not hold are told in one warning per run of them and system.
  struct Missing {
    time_t first = 0, last = 0;
    int count = 0;
  } missing[3];  // at most three systems
  const char* what = hourly ? "hourly" : "daily";
  auto tell = [&](int sys) {
    Missing& m = missing[sys];
    if (m.count == 1)
      LOG_WARNING("CmcdTSRV::get_arch_values - the meter holds no %s record for %s of system %d: skipped", what,
                  TimeText(m.first).c_str(), sys);
    else if (m.count > 1)
      LOG_WARNING("CmcdTSRV::get_arch_values - system %d holds no %s records from %s to %s (%d): skipped", sys, what,
                  TimeText(m.first).c_str(), TimeText(m.last).c_str(), m.count);
    m = Missing();
  };
  auto tellAll = [&]() {
    for (int sys = 0; sys < Systems(); ++sys) tell(sys);
  };
  for (; t <= to; t = hourly ? mcd::cal::NextHour(t) : mcd::cal::NextDay(t)) {
    // All systems of one time go together: a failure at a later system must not let
    // the earlier ones raise the bound past the record that failed.
    ParamValueList atTime;
    for (int sys = 0; sys < Systems(); ++sys) {
      Result result = kRefused;
      try {
        result = ReadRecord(type, sys, t, atTime);
      } catch (const std::exception& e) {
        LOG_ERR("CmcdTSRV::get_arch_values - %s record %s of system %d: exchange failed: %s", what,
                TimeText(t).c_str(), sys, e.what());
      }
      if (result == kRefused) {
        tellAll();
        return 0;
      }
      Missing& m = missing[sys];
      if (result == kNoRecord) {
        if (m.count++ == 0) m.first = t;
        m.last = t;
      } else {
        tell(sys);
      }
    }
    out.splice(out.end(), atTime);
  }
  tellAll();
  return 1;
}


