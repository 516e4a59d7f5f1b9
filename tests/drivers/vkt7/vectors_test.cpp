// The VKT-7 link and driver against the golden vectors of vectors.txt.
#include <gtest/gtest.h>

#include <cstdlib>
#include <memory>
#include <sstream>

#include "drivers/vkt7/vkt7_driver.h"
#include "support/golden_vectors.h"
#include "support/test_support.h"

namespace {

using mcdtest::ExceptionName;

std::string LinkAction(CVKT7LowLevelConnector& link, std::istringstream& in) {
  std::string name, mode, hex;
  in >> name >> mode;
  std::getline(in, hex);
  mcdtest::Bytes request = mcdtest::ParseHex(hex);
  std::string result;
  std::string thrown = ExceptionName([&] {
    CVKT7Buffer view = link.SendString(request.data(), static_cast<unsigned short>(request.size()), name.c_str(),
                                       mode == "tolerate");
    result = view.empty() ? "empty lasterror " + std::to_string(link.LastError())
                          : "view " + mcdtest::HexText(view.position(), static_cast<size_t>(view.remaining()));
  });
  return thrown.empty() ? result : thrown;
}

// "2026-10-25T02:00" as local time (the first of a repeated hour), and back with the zone.
time_t Local(const std::string& text) {
  struct tm parts = {};
  strptime(text.c_str(), "%Y-%m-%dT%H:%M", &parts);
  parts.tm_isdst = -1;
  return mktime(&parts);
}
std::string LocalText(time_t t) {
  struct tm parts;
  localtime_r(&t, &parts);
  char text[40];
  strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%S%Z", &parts);
  return text;
}

void Report(const ParamValueList& values, std::vector<std::string>& out) {
  for (const ParamValue& v : values) {
    std::ostringstream line;
    line << "v " << v.kind << " " << v.paramId << " " << int(v.sys) << " " << v.value << " "
         << (v.dim.empty() ? "-" : v.dim) << " " << int(v.quality) << " " << int(v.error) << " " << LocalText(v.timestamp);
    out.push_back(line.str());
  }
}

// Driver actions: tz <zone>, now <local time>, init, current, system, timestamps,
// arch hourly|daily <from> <to> (local times).
void DriverAction(Cmcd_VKT7& driver, std::unique_ptr<mcdtest::FakeClock>& clock, const std::string& verb,
                  std::istringstream& in, std::vector<std::string>& out) {
  std::string a, b, c;
  in >> a >> b >> c;
  if (verb == "tz") {
    setenv("TZ", a.c_str(), 1);
    tzset();
  } else if (verb == "now") {
    clock.reset(new mcdtest::FakeClock(Local(a)));
  } else if (verb == "init") {
    driver.init();
    out.push_back(driver.IsReady() ? "ready" : "not ready");
  } else if (verb == "current" || verb == "system") {
    Report(verb == "current" ? driver.get_all_curtime_cur_integ_values() : driver.get_all_system_values(), out);
  } else if (verb == "timestamps") {
    Timestamps t;
    const int rc = driver.GetTimestamps(t);
    out.push_back("stamps " + std::to_string(rc) + (rc ? " hour " + LocalText(t.first_hour_arch) + " day " +
                                                         LocalText(t.first_day_arch) + " meter " + LocalText(t.meter_time)
                                                   : ""));
  } else if (verb == "arch") {
    ParamValueList values;
    out.push_back("arch " + std::to_string(driver.get_arch_values(a == "daily" ? 5 : 4, Local(b), Local(c), values)));
    Report(values, out);
  } else {
    ADD_FAILURE() << "unknown action " << verb;
  }
}

void RunVkt7(const mcdtest::VectorCase& vector, mcdtest::ScriptedMeter& meter, std::vector<std::string>& out) {
  const char* zone = getenv("TZ");
  const std::string savedZone = zone ? zone : "";
  std::unique_ptr<mcdtest::FakeClock> clock;
  CVKT7LowLevelConnector link(&meter, false);
  Cmcd_VKT7 driver;
  driver.SetConfiguration({{"manufacturer", "vkt-7"}});
  driver.SaveConnector(&meter);
  for (const std::string& action : vector.actions) {
    std::istringstream in(action);
    std::string verb;
    in >> verb;
    if (verb == "link") out.push_back(LinkAction(link, in));
    else if (verb == "short-writes") meter.ShortWrites();
    else DriverAction(driver, clock, verb, in, out);
  }
  zone ? setenv("TZ", savedZone.c_str(), 1) : unsetenv("TZ");
  tzset();
}

TEST(Vkt7Vectors, LinkAndDriver) { EXPECT_GT(mcdtest::RunVectors("tests/drivers/vkt7/vectors.txt", RunVkt7), 0); }

}  // namespace
