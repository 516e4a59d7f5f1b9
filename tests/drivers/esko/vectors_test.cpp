// The ESKO link and archive page decoding against the golden vectors of vectors.txt.
#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <mutex>
#include <sstream>
#include <string>

#include "drivers/base/base_driver.h"
#include "drivers/esko/esko_link.h"
#include "drivers/esko/esko_values.h"
#include "support/golden_vectors.h"

namespace {
std::mutex g_pauseMutex;
std::string g_pauses = "pauses";
}  // namespace

// Every usleep of this program (the links' pauses) is recorded instead of slept.
extern "C" int usleep(useconds_t us) {
  std::lock_guard<std::mutex> lock(g_pauseMutex);
  return g_pauses += " " + std::to_string(us), 0;
}

namespace {

// "pauses" and the pauses (microseconds) asked for since the last call.
std::string TakePauses() {
  std::lock_guard<std::mutex> lock(g_pauseMutex);
  std::string taken = "pauses";
  return taken.swap(g_pauses), taken;
}

// "page <kind> <Y> <M> <D> <H> <stamp>": the page of that date ('A' 4) parsed; out its
// value count, then "<id>/<sys> <text> <unit or -> err <error byte>" for every value not 0.
void Page(CEskoLowLevelConnector& link, std::istringstream& in, std::vector<std::string>& out) {
  int kind = 0, y = 0, m = 0, d = 0, h = 0;
  long stamp = 0;
  in >> kind >> y >> m >> d >> h >> stamp;
  auto bcd = [](int v) { return static_cast<unsigned char>(((v / 10) << 4) | (v % 10)); };
  const mcdtest::Bytes image = {0, 0, 'A', 4, static_cast<unsigned char>(kind), bcd(y - 2000), bcd(m), bcd(d), bcd(h),
                                0, 0, 0,   0};
  const ReplyView v = link.SendString(image.data(), 13, "ReadArchData", false);
  ParamValueList values;
  const mcd::esko::PageAsk ask{kind, kind == 0 ? ARCH_HOURLY : ARCH_DAILY, {y, m, d, h}, stamp};
  const bool parsed = mcd::esko::ParseArchPage(CMTR06Buffer(v.data, v.length), ask, "Cmcd_MTR06::", values);
  out.push_back(parsed ? "values " + std::to_string(values.size()) : "refused");
  for (const ParamValue& p : values) {
    if (p.timestamp != stamp) out.push_back("stamp " + std::to_string(p.timestamp));
    if (atof(p.value.c_str()) == 0) continue;
    out.push_back(std::to_string(p.paramId) + "/" + std::to_string(p.sys) + " " + p.value + " " +
                  (p.dim.empty() ? "-" : p.dim) + " err " + std::to_string(p.error));
  }
}

void RunEsko(const mcdtest::VectorCase& vector, mcdtest::ScriptedMeter& meter, std::vector<std::string>& out) {
  std::unique_ptr<CEskoLowLevelConnector> link(new CMTR06LowLevelConnector(&meter, false));
  TakePauses();
  for (const std::string& action : vector.actions) {
    std::istringstream in(action);
    std::string verb, name, mode, hex;
    int addr = 0;
    in >> verb;
    if (verb == "short-writes") {
      meter.ShortWrites();
    } else if (verb == "tm3e") {
      link.reset(new CTM3ELowLevelConnector(&meter, false));
    } else if (verb == "addr" && in >> addr) {
      link->SetNetAddress(static_cast<uint8_t>(addr));
    } else if (verb == "link") {
      in >> name >> mode;
      std::getline(in, hex);
      const mcdtest::Bytes image = mcdtest::ParseHex(hex);
      const std::string thrown = mcdtest::ExceptionName([&] {
        ReplyView v = link->SendString(image.data(), 13, name.c_str(), mode == "tolerate");
        out.push_back(v.empty() ? "empty lasterror " + std::to_string(link->LastError())
                                : "view " + mcdtest::HexText(v.data, static_cast<size_t>(v.length)));
      });
      if (!thrown.empty()) out.push_back(thrown);
    } else if (verb == "page") {
      Page(*link, in, out);
    } else if (verb == "pauses") {
      out.push_back(TakePauses());
    } else {
      ADD_FAILURE() << "unknown action " << action;
    }
  }
}

TEST(EskoVectors, LinkAndPages) { EXPECT_GT(mcdtest::RunVectors("tests/drivers/esko/vectors.txt", RunEsko), 0); }

}  // namespace
