// The VKT-9 link against the golden vectors of vectors.txt, and against its simulator.
#include <gtest/gtest.h>

#include <memory>
#include <sstream>

#include "drivers/vkt9/vkt9_link.h"
#include "support/golden_vectors.h"
#include "support/test_support.h"

namespace {

std::string Reply(CVKT9LowLevelConnector& link, const std::string& name, bool tolerate, const mcdtest::Bytes& body) {
  std::string result;
  const std::string thrown = mcdtest::ExceptionName([&] {
    mcd::LinkReply view = link.SendString(body.data(), static_cast<unsigned short>(body.size()), name.c_str(), tolerate);
    result = view.empty() ? "empty lasterror " + std::to_string(link.GetLastError())
                          : "view " + mcdtest::HexText(view.data, static_cast<size_t>(view.length));
  });
  return thrown.empty() ? result : thrown;
}

void RunVkt9(const mcdtest::VectorCase& vector, mcdtest::ScriptedMeter& meter, std::vector<std::string>& out) {
  CVKT9LowLevelConnector link(&meter, false);
  for (const std::string& action : vector.actions) {
    std::istringstream in(action);
    std::string verb, name, mode, rest;
    int address = 0;
    in >> verb;
    if (verb == "short-writes") {
      meter.ShortWrites();
      continue;
    }
    in >> name >> mode >> std::hex >> address;
    std::getline(in, rest);
    link.SetNetAddr(static_cast<uint8_t>(address));
    out.push_back(Reply(link, name, mode == "tolerate", mcdtest::ParseHex(rest)));
  }
}

TEST(Vkt9Vectors, Link) { EXPECT_GT(mcdtest::RunVectors("tests/drivers/vkt9/vectors.txt", RunVkt9), 0); }

TEST(Vkt9Simulator, AnswersTheLink) {
  mcdtest::TempRoot root;
  const std::string line = root.tmp("vkt9");
  mcdtest::ChildProcess sim;
  ASSERT_TRUE(sim.Start({"python3", mcdtest::SourcePath("tools/vkt9_sim.py"), "--link", line, "--address", "5"}));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::FileExists(line); }, std::chrono::seconds(15))) << sim.Stderr();
  std::unique_ptr<CConnector> connector(CConnector::CreateConnector({{"name", line}}));
  CVKT9LowLevelConnector link(connector.get(), false);
  link.SetNetAddr(5);
  // register n holds n * 7 + 3; the block and the clock are sized by their functions;
  // an unknown function is answered with error 1
  EXPECT_EQ(Reply(link, "ReadRegisters", false, mcdtest::ParseHex("03 00 02 00 03")),
            "view 05 03 06 00 11 00 18 00 1F");
  EXPECT_EQ(Reply(link, "ReadBlock", false, mcdtest::ParseHex("41 38")).size(), 5 + 263 * 3 - 1);
  EXPECT_EQ(Reply(link, "ReadClock", false, mcdtest::ParseHex("42")).size(), 5 + 8 * 3 - 1);
  EXPECT_EQ(Reply(link, "Unknown", true, mcdtest::ParseHex("2B 00")), "empty lasterror 1");
}

}  // namespace
