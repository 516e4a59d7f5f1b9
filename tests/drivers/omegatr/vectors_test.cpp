// The OMEGA-TR link against the golden vectors of vectors.txt, and against its simulator.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "drivers/omegatr/omegatr_link.h"
#include "support/golden_vectors.h"
#include "support/test_support.h"

namespace {

std::string Reply(COMEGATRLowLevelConnector& link, const std::string& name, bool tolerate, mcdtest::Bytes request) {
  std::string result;
  const std::string thrown = mcdtest::ExceptionName([&] {
    mcd::LinkReply view =
        link.SendString(request.data(), static_cast<unsigned short>(request.size()), name.c_str(), tolerate);
    result = view.empty() ? "empty lasterror " + std::to_string(link.GetLastError())
                          : "view " + mcdtest::HexText(view.data, static_cast<size_t>(view.length));
  });
  return thrown.empty() ? result : thrown;
}

void RunOmega(const mcdtest::VectorCase& vector, mcdtest::ScriptedMeter& meter, std::vector<std::string>& out) {
  COMEGATRLowLevelConnector link(&meter, false);
  for (const std::string& action : vector.actions) {
    std::istringstream in(action);
    std::string verb, name, mode, rest;
    in >> verb >> name >> mode;
    std::getline(in, rest);
    const mcdtest::Bytes request = mcdtest::ParseHex(rest);
    link.SetNetAddr(request.at(0));
    out.push_back(Reply(link, name, mode == "tolerate", request));
  }
}

TEST(OmegaTrVectors, Link) { EXPECT_GT(mcdtest::RunVectors("tests/drivers/omegatr/vectors.txt", RunOmega), 0); }

TEST(OmegaTrSimulator, AnswersTheLink) {
  mcdtest::TempRoot root;
  const std::string line = root.tmp("omegatr");
  mcdtest::ChildProcess sim;
  ASSERT_TRUE(sim.Start({"python3", mcdtest::SourcePath("tools/omegatr_sim.py"), "--link", line, "--address", "3"}));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(line); }, std::chrono::seconds(15))) << sim.Stderr();
  std::unique_ptr<CConnector> connector(CConnector::CreateConnector({{"name", line}}));
  COMEGATRLowLevelConnector link(connector.get(), false);
  link.SetNetAddr(3);
  // register n holds n * 3 + 1
  EXPECT_EQ(Reply(link, "ReadCurrent", false, mcdtest::ParseHex("00 04 00 05 00 02")), "view 03 04 04 00 10 00 13");
  EXPECT_EQ(Reply(link, "GetVersion", false, mcdtest::ParseHex("00 68")).size(), 5 + 4 * 3 - 1);
  EXPECT_EQ(Reply(link, "Command", false, mcdtest::ParseHex("00 64 01")), "view 03 64 00 00");
}

}  // namespace
