#include "drivers/magika/magika_driver.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <sstream>

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
const long kWeek = 7 * 86400;

// Registers of the archive transfer (wire addresses: the maker's number minus one).
const uint16_t kCommand = 1000;
const uint16_t kLength = 1001;
const uint16_t kBuffer = 1002;
const uint16_t kBufferRest = 1127;
const int kChunk = 250;  // bytes per read of the buffer

struct Commands {
  uint16_t start, next, end, search;
};
const Commands kHourly = {5, 6, 8, 11};
const Commands kDaily = {1, 2, 4, 10};

int FromBcd(uint8_t b) { return ((b >> 4) > 9 || (b & 0x0F) > 9) ? -1 : (b >> 4) * 10 + (b & 0x0F); }
uint8_t ToBcd(int v) { return static_cast<uint8_t>(((v / 10 % 10) << 4) | (v % 10)); }

float Float(const uint8_t* b) {
  const uint32_t bits = (uint32_t(b[0]) << 24) | (uint32_t(b[1]) << 16) | (uint32_t(b[2]) << 8) | b[3];
  float f;
  std::memcpy(&f, &bits, 4);
  return f;
}

std::string TimeText(time_t t) {
  struct tm parts;
  localtime_r(&t, &parts);
  char text[32];
  strftime(text, sizeof text, "%d.%m.%Y %H:%M:%S", &parts);
  return text;
}

void Add(ParamValueList& out, int id, int kind, const std::string& text, const char* dim, int sys, time_t stamp,
         uint8_t error = 0) {
  out.emplace_back(id, kind, text, dim, kQuality, error, static_cast<uint8_t>(sys), static_cast<int32_t>(stamp));
}

// Size of a template field in an archive of the type; 0 for a name not known.
int FieldSize(const std::string& name, bool hourly) {
  auto starts = [&](const char* prefix) { return name.compare(0, strlen(prefix), prefix) == 0; };
  if (name == "DATE") return 3;
  if (name == "HOUR") return 1;
  if (name == "MODES") return 1;
  if (starts("ERRORCODE")) return 1;
  if (starts("TNORM") || starts("TMIN") || starts("TMAX") || starts("TDELTAT") || name == "TSUH" || name == "TNKP" ||
      name == "TAVAR")
    return hourly ? 1 : 2;
  if (starts("uM") || starts("pM")) return 4;
  if (name.size() >= 2 && (name[0] == 'M' || name[0] == 'Q' || name[0] == 'T' || name[0] == 'P') &&
      isdigit(static_cast<unsigned char>(name[1])))
    return 4;
  return 0;
}

}  // namespace

CmcdMAGIKAAXXX::~CmcdMAGIKAAXXX() { stop(); }

void CmcdMAGIKAAXXX::SaveConnector(CConnector* connector) {
  auto found = configuration.find("serial");
  m_link.reset(CModbusMeterLink::ForMeter(connector, found == configuration.end() ? nullptr : &found->second));
  if (!m_link) {
    LOG_ERR("CmcdMAGIKAAXXX::SaveConnector - the port is not a Modbus line (\"protocol\" \"modbus\"): nothing is read");
    return;
  }
  LOG_INFO("CmcdMAGIKAAXXX::SaveConnector - gateway address %d", m_link->Slave());
}

std::vector<std::vector<int>> CmcdMAGIKAAXXX::SystemPipes() const {
  std::vector<std::vector<int>> systems;
  auto found = configuration.find("pipes");
  if (found != configuration.end() && !found->second.empty()) {
    std::stringstream all(found->second);
    std::string one;
    while (std::getline(all, one, ';') && systems.size() < 4) {
      std::vector<int> pipes;
      std::stringstream list(one);
      std::string item;
      while (std::getline(list, item, ',') && pipes.size() < 3) {
        const int p = atoi(item.c_str());
        if (p >= 1 && p <= 10) pipes.push_back(p);
      }
      systems.push_back(pipes);
    }
    return systems;
  }
  auto count = configuration.find("heat_systems");
  int n = count == configuration.end() ? 1 : atoi(count->second.c_str());
  n = n < 1 ? 1 : (n > 4 ? 4 : n);
  for (int s = 0; s < n; ++s) systems.push_back({2 * s + 1, 2 * s + 2});
  return systems;
}

void CmcdMAGIKAAXXX::init() {
  if (!m_link) return;
  try {
    uint16_t regs[5];
    m_link->ReadInput(0, 5, regs);
    std::string serial;
    for (int i = 0; i < 4; ++i) {
      for (int c : {regs[i] >> 8, regs[i] & 0xFF})
        if (c > ' ' && c < 0x7F) serial += static_cast<char>(c);
    }
    m_serial = serial;
    m_firmware = std::to_string(regs[4] >> 8) + "." + std::to_string(regs[4] & 0xFF);
    if (!m_ready) LOG_INFO("CmcdMAGIKAAXXX::init - meter %s, version %s", m_serial.c_str(), m_firmware.c_str());
    m_ready = true;
  } catch (const std::exception& e) {
    // Logged once until the identification succeeds.
    if (!m_initFailed) LOG_WARNING("CmcdMAGIKAAXXX::init - identification not read: %s", e.what());
    m_initFailed = true;
    return;
  }
  m_initFailed = false;
}

ParamValueList CmcdMAGIKAAXXX::get_all_system_values() {
  ParamValueList out;
  if (!m_link || !m_ready) return out;
  const time_t now = mcd::Now();
  Add(out, 32, kKindSystem, "МАГИКА", "", 0, now);
  Add(out, 33, kKindSystem, m_firmware, "", 0, now);
  if (!m_serial.empty()) Add(out, 34, kKindSystem, m_serial, "", 0, now);
  return out;
}

ParamValueList CmcdMAGIKAAXXX::get_all_curtime_cur_integ_values() {
  ParamValueList out;
  if (!m_link || !m_ready) return out;
  const time_t now = mcd::Now();
  try {
    struct Block {
      uint16_t address;
      int count;
      uint16_t regs[20];
    };
    Block g{100, 20, {}}, m{120, 20, {}}, t{140, 20, {}}, p{170, 20, {}}, sm{400, 20, {}}, e{420, 8, {}},
        tn{432, 10, {}};
    for (Block* b : {&g, &m, &t, &p, &sm, &e, &tn}) m_link->ReadInput(b->address, b->count, b->regs);
    auto value = [](const Block& b, int index) {
      uint8_t bytes[4] = {static_cast<uint8_t>(b.regs[2 * index] >> 8), static_cast<uint8_t>(b.regs[2 * index]),
                          static_cast<uint8_t>(b.regs[2 * index + 1] >> 8), static_cast<uint8_t>(b.regs[2 * index + 1])};
      return mcd::StreamText(Float(bytes));
    };
    const auto systems = SystemPipes();
    for (size_t s = 0; s < systems.size(); ++s) {
      const int sys = static_cast<int>(s);
      for (size_t k = 0; k < systems[s].size(); ++k) {
        const int i = systems[s][k] - 1;
        const int id = static_cast<int>(k);
        Add(out, 0 + id, kKindCurrent, value(g, i), "м3/ч", sys, now);
        Add(out, 3 + id, kKindCurrent, value(m, i), "т/ч", sys, now);
        Add(out, 6 + id, kKindCurrent, value(t, i), "°C", sys, now);
        Add(out, 9 + id, kKindCurrent, value(p, i), "атм", sys, now);
        Add(out, 22 + id, kKindIntegral, value(sm, i), "т", sys, now);
      }
      if (s < 4) Add(out, 17, kKindIntegral, value(e, sys), "Гкал", sys, now);
      Add(out, 18, kKindIntegral, value(tn, sys), "ч", sys, now);
    }
  } catch (const std::exception& ex) {
    LOG_ERR("CmcdMAGIKAAXXX::get_all_curtime_cur_integ_values - exchange failed: %s", ex.what());
    out.clear();
  }
  return out;
}

int CmcdMAGIKAAXXX::GetTimestamps(Timestamps& out) {
  if (!m_link) return 0;
  try {
    uint16_t regs[3];
    m_link->ReadInput(15, 3, regs);
    const int year = FromBcd(regs[0] >> 8), month = FromBcd(regs[0] & 0xFF), day = FromBcd(regs[1] >> 8),
              hour = FromBcd(regs[1] & 0xFF), minute = FromBcd(regs[2] >> 8), second = FromBcd(regs[2] & 0xFF);
    if (year < 0 || month < 1 || month > 12 || day < 1 || day > 31 || hour < 0 || hour > 23 || minute < 0 ||
        minute > 59 || second < 0 || second > 59) {
      LOG_WARNING("CmcdMAGIKAAXXX::GetTimestamps - the meter clock %04X %04X %04X is not valid: archives are not read",
                  regs[0], regs[1], regs[2]);
      return 0;
    }
    struct tm parts {};
    parts.tm_year = 100 + year;
    parts.tm_mon = month - 1;
    parts.tm_mday = day;
    parts.tm_hour = hour;
    parts.tm_min = minute;
    parts.tm_sec = second;
    parts.tm_isdst = -1;
    const time_t meter = mktime(&parts);
    const time_t now = mcd::Now();
    if (parts.tm_mday != day || meter > now + kWeek || meter < now - kWeek) {
      LOG_WARNING("CmcdMAGIKAAXXX::GetTimestamps - the meter clock %s is not valid or more than 7 days from the "
                  "controller's %s: archives are not read",
                  TimeText(meter).c_str(), TimeText(now).c_str());
      return 0;
    }
    out.meter_time = static_cast<int32_t>(meter);
    out.first_hour_arch = static_cast<int32_t>(m_oldest[0]);
    out.first_day_arch = static_cast<int32_t>(m_oldest[1]);
    return 1;
  } catch (const std::exception& e) {
    LOG_ERR("CmcdMAGIKAAXXX::GetTimestamps - exchange failed: %s", e.what());
    return 0;
  }
}

bool mcd::magika::ParseTemplate(const std::string& text, int type, std::vector<Field>& fields, std::string& why) {
  fields.clear();
  std::stringstream words(text);
  std::string name;
  while (words >> name) {
    const int size = FieldSize(name, type == ARCH_HOURLY);
    if (size == 0) {
      why = "unknown field " + name;
      return false;
    }
    fields.push_back({name, size});
  }
  if (fields.empty() || fields[0].name != "DATE" || (type == ARCH_HOURLY && (fields.size() < 2 || fields[1].name != "HOUR"))) {
    why = "the template does not start with the line's date";
    return false;
  }
  return true;
}

time_t mcd::magika::LineTime(const std::vector<Field>& fields, const uint8_t* line, int type) {
  mcd::cal::Label label;
  label.day = FromBcd(line[0]);
  label.month = FromBcd(line[1]);
  const int year = FromBcd(line[2]);
  label.year = 2000 + year;
  label.hour = type == ARCH_HOURLY ? FromBcd(line[3]) : 0;
  if (label.day < 1 || label.day > 31 || label.month < 1 || label.month > 12 || year < 0 || label.hour < 0 ||
      label.hour > 23)
    return -1;
  return type == ARCH_HOURLY ? mcd::cal::FromLabel(label) : mcd::cal::DayStart(mcd::cal::FromLabel(label));
}

void CmcdMAGIKAAXXX::ParseLine(const std::vector<Field>& fields, const uint8_t* line, int kind, time_t stamp,
                               ParamValueList& out) const {
  std::map<std::string, const uint8_t*> at;
  int offset = 0;
  for (const Field& f : fields) {
    at[f.name] = line + offset;
    offset += f.size;
  }
  const bool hourly = kind == ARCH_HOURLY;
  auto number = [&](const std::string& name) -> std::string {
    const uint8_t* b = at[name];
    return hourly ? std::to_string(b[0]) : std::to_string((b[0] << 8) | b[1]);
  };
  const auto systems = SystemPipes();
  for (size_t s = 0; s < systems.size(); ++s) {
    const int sys = static_cast<int>(s);
    const std::string n = std::to_string(s + 1);
    const uint8_t error = at.count("ERRORCODE" + n) ? at["ERRORCODE" + n][0] : 0;
    if (at.count("ERRORCODE" + n)) Add(out, 14, kind, std::to_string(error), "", sys, stamp, error);
    if (at.count("Q" + n)) Add(out, 17, kind, mcd::StreamText(Float(at["Q" + n])), "Гкал", sys, stamp, error);
    if (at.count("TNORM" + n)) Add(out, 18, kind, number("TNORM" + n), "мин", sys, stamp, error);
    for (size_t k = 0; k < systems[s].size(); ++k) {
      const std::string pipe = std::to_string(systems[s][k]);
      const int id = static_cast<int>(k);
      if (at.count("T" + pipe)) Add(out, 6 + id, kind, mcd::StreamText(Float(at["T" + pipe])), "°C", sys, stamp, error);
      if (at.count("P" + pipe)) Add(out, 9 + id, kind, mcd::StreamText(Float(at["P" + pipe])), "атм", sys, stamp, error);
      if (at.count("M" + pipe)) Add(out, 22 + id, kind, mcd::StreamText(Float(at["M" + pipe])), "т", sys, stamp, error);
    }
  }
}

uint16_t CmcdMAGIKAAXXX::ReadLength() {
  uint16_t length = 0;
  m_link->ReadInput(kLength, 1, &length);
  return length;
}

std::vector<uint8_t> CmcdMAGIKAAXXX::ReadBuffer(int length) {
  std::vector<uint8_t> data;
  for (int done = 0; done < length;) {
    const int bytes = std::min(kChunk, length - done);
    const int count = (bytes + 1) / 2;
    const uint16_t address = static_cast<uint16_t>(done == 0 ? kBuffer : kBufferRest + (done - kChunk) / 2);
    const uint8_t request[6] = {static_cast<uint8_t>(m_link->Slave()), 0x04, static_cast<uint8_t>(address >> 8),
                                static_cast<uint8_t>(address & 0xFF), 0, static_cast<uint8_t>(count)};
    uint8_t answer[4 + 255 + 2];
    // The gateway answers either with the usual one-byte count or with the two bytes
    // 00, LEN.
    const int n = m_link->Raw(request, sizeof request, answer, sizeof answer, [](const uint8_t* b, int have) {
      if (have < 3) return 0;
      if (b[2] != 0) return 3 + b[2] + 2;
      return have < 4 ? 0 : 4 + b[3] + 2;
    });
    const int head = answer[2] != 0 ? 3 : 4;
    const int got = n - head - 2;
    if (got != 2 * count && got != bytes) {
      LOG_ERR("CmcdMAGIKAAXXX::ReadBuffer - %d bytes asked, %d answered", bytes, got);
      throw CWrongPacketException();
    }
    data.insert(data.end(), answer + head, answer + head + bytes);
    done += bytes;
  }
  return data;
}

std::string CmcdMAGIKAAXXX::ReadTemplate(int type) {
  const Commands& c = type == ARCH_HOURLY ? kHourly : kDaily;
  m_link->WriteRegister(kCommand, c.start);
  const uint16_t length = ReadLength();
  const std::vector<uint8_t> bytes = ReadBuffer(length);
  std::string text(bytes.begin(), bytes.end());
  const size_t nul = text.find('\0');
  if (nul != std::string::npos) text.resize(nul);
  return text;
}

bool CmcdMAGIKAAXXX::Search(int type, time_t after) {
  if (m_noSearch) return false;
  const Commands& c = type == ARCH_HOURLY ? kHourly : kDaily;
  const mcd::cal::Label l = mcd::cal::LocalLabel(after);
  try {
    m_link->WriteRegister(kCommand, c.search);
  } catch (const CDisconnectException&) {
    if (m_link->LastException() == 0) throw;
    LOG_INFO("CmcdMAGIKAAXXX::Search - the gateway has no search mode: archives are walked from the newest line");
    m_noSearch = true;
    return false;
  }
  const uint16_t key[2] = {static_cast<uint16_t>((ToBcd(l.day) << 8) | ToBcd(l.month)),
                           static_cast<uint16_t>((ToBcd(l.year % 100) << 8) | (type == ARCH_HOURLY ? ToBcd(l.hour) : 0))};
  m_link->WriteRegisters(kBuffer, 2, key);
  for (int i = 0; i < 200; ++i) {
    const uint16_t state = ReadLength();
    if (state == 2) return true;
    if (state != 1) return false;  // 3: not in the archive
    mcd::InterruptibleSleep(0.05);
    if (mcd::InterruptRequested()) return false;
  }
  return false;
}

bool CmcdMAGIKAAXXX::Template(int type, std::vector<Field>& fields) {
  std::string why;
  const std::string text = ReadTemplate(type);
  if (ParseTemplate(text, type, fields, why)) return true;
  LOG_ERR("CmcdMAGIKAAXXX::get_arch_values - %s template \"%s\" not understood (%s): nothing filed",
          type == ARCH_HOURLY ? "hourly" : "daily", text.c_str(), why.c_str());
  m_link->WriteRegister(kCommand, type == ARCH_HOURLY ? kHourly.end : kDaily.end);
  return false;
}

namespace {

// Files the lines read (newest first) oldest first; says which records of from..to the
// meter does not hold.
void FileOldestFirst(std::vector<std::pair<time_t, ParamValueList>>& lines, bool hourly, time_t from, time_t to,
                     ParamValueList& out) {
  std::set<time_t> filed;
  for (auto it = lines.rbegin(); it != lines.rend(); ++it) {
    filed.insert(it->first);
    out.splice(out.end(), it->second);
  }
  for (time_t t = from; t <= to; t = hourly ? mcd::cal::NextHour(t) : mcd::cal::NextDay(t))
    if (!filed.count(t))
      LOG_WARNING("CmcdMAGIKAAXXX::get_arch_values - the meter holds no %s line for %s: skipped",
                  hourly ? "hourly" : "daily", TimeText(t).c_str());
}

}  // namespace

int CmcdMAGIKAAXXX::Walk(int type, time_t from, time_t to, ParamValueList& out) {
  const bool hourly = type == ARCH_HOURLY;
  const Commands& c = hourly ? kHourly : kDaily;
  const char* what = hourly ? "hourly" : "daily";
  std::vector<Field> fields;
  if (!Template(type, fields)) return 0;
  int expected = 0;
  for (const Field& f : fields) expected += f.size;
  const time_t after = hourly ? mcd::cal::NextHour(to) : mcd::cal::NextDay(to);
  const bool tried = !m_noSearch;
  if (!Search(type, after) && tried) ReadTemplate(type);  // start again from the newest line

  std::vector<std::pair<time_t, ParamValueList>> lines;  // newest first
  time_t previous = 0;
  bool end = false;
  for (;;) {
    m_link->WriteRegister(kCommand, c.next);
    const uint16_t length = ReadLength();
    if (length == 0) {
      end = true;
      break;
    }
    if (length != expected) {
      LOG_ERR("CmcdMAGIKAAXXX::get_arch_values - a %s line of %d bytes does not match its template's %d: not filed",
              what, length, expected);
      m_link->WriteRegister(kCommand, c.end);
      return 0;
    }
    const std::vector<uint8_t> line = ReadBuffer(length);
    const time_t t = LineTime(fields, line.data(), type);
    if (t < 0) {
      LOG_ERR("CmcdMAGIKAAXXX::get_arch_values - a %s line dated %02X.%02X.%02X %02X is not a valid local time: "
              "not filed",
              what, line[0], line[1], line[2], hourly ? line[3] : 0);
      m_link->WriteRegister(kCommand, c.end);
      return 0;
    }
    if (previous != 0 && t >= previous) {
      if (t == previous) continue;  // a repeated local hour: its first occurrence is kept
      LOG_ERR("CmcdMAGIKAAXXX::get_arch_values - %s line %s follows the line %s: not newest first, nothing filed", what,
              TimeText(t).c_str(), TimeText(previous).c_str());
      m_link->WriteRegister(kCommand, c.end);
      return 0;
    }
    previous = t;
    if (t > to) continue;
    if (t < from) break;
    ParamValueList values;
    ParseLine(fields, line.data(), type, t, values);
    lines.emplace_back(t, std::move(values));
  }
  m_link->WriteRegister(kCommand, c.end);
  if (end && previous != 0) m_oldest[hourly ? 0 : 1] = previous;

  FileOldestFirst(lines, hourly, from, to, out);
  return 1;
}

int CmcdMAGIKAAXXX::get_arch_values(int type, time_t from, time_t to, ParamValueList& out) {
  if (!m_link || !m_ready || (type != ARCH_HOURLY && type != ARCH_DAILY)) return 0;
  const bool hourly = type == ARCH_HOURLY;
  time_t first = hourly ? mcd::cal::HourStart(from) : mcd::cal::DayStart(from);
  if (first < from) first = hourly ? mcd::cal::NextHour(first) : mcd::cal::NextDay(first);
  const time_t oldest = m_oldest[hourly ? 0 : 1];
  if (oldest != 0 && to < oldest) {
    LOG_WARNING("CmcdMAGIKAAXXX::get_arch_values - the meter holds no %s lines before %s: %s to %s skipped",
                hourly ? "hourly" : "daily", TimeText(oldest).c_str(), TimeText(first).c_str(), TimeText(to).c_str());
    return 1;
  }
  ParamValueList got;
  try {
    const int result = Walk(type, first, to, got);
    if (result) out.splice(out.end(), got);
    return result;
  } catch (const std::exception& e) {
    LOG_ERR("CmcdMAGIKAAXXX::get_arch_values - %s transfer failed: %s", hourly ? "hourly" : "daily", e.what());
    try {
      m_link->WriteRegister(kCommand, (hourly ? kHourly : kDaily).end);
    } catch (const std::exception&) {
    }
    return 0;
  }
}


