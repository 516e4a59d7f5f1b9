// The VKT-7 link and driver against the golden vectors of vectors.txt.
#include <gtest/gtest.h>

#include <sstream>

#include "drivers/vkt7/vkt7_link.h"
#include "support/golden_vectors.h"

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

void RunVkt7(const mcdtest::VectorCase& vector, mcdtest::ScriptedMeter& meter, std::vector<std::string>& out) {
  CVKT7LowLevelConnector link(&meter, false);
  for (const std::string& action : vector.actions) {
    std::istringstream in(action);
    std::string verb;
    in >> verb;
    if (verb == "link") out.push_back(LinkAction(link, in));
    else if (verb == "short-writes") meter.ShortWrites();
    else ADD_FAILURE() << "unknown action " << action;
  }
}

TEST(Vkt7Vectors, LinkAndDriver) { EXPECT_GT(mcdtest::RunVectors("tests/drivers/vkt7/vectors.txt", RunVkt7), 0); }

}  // namespace
