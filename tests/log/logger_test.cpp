#include "log/logger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <string>

#include "support/test_support.h"

namespace {

using mcdtest::ReadFile;
using namespace std::string_literals;

// The text with every "HH:MM:SS.mmm.uuu " time of day replaced by "T ".
std::string Masked(std::string text) {
  const std::string shape = "00:00:00.000.000 ";
  for (size_t at = 0; at + shape.size() <= text.size(); ++at) {
    auto fits = [](char s, char t) { return s == '0' ? isdigit(static_cast<unsigned char>(t)) != 0 : s == t; };
    if (std::mismatch(shape.begin(), shape.end(), text.begin() + at, fits).first == shape.end())
      text.replace(at, shape.size(), "T ");
  }
  return text;
}

class LoggerTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
  std::string path = root.tmp("mcd.log");
  logger log{path.c_str(), false};
};

TEST_F(LoggerTest, LevelsNamesAndCutAt127) {
  log.setLevel(3);
  log.Warning("below");
  EXPECT_FALSE(mcdtest::FileExists(path));
  log.Err("CX::Method - value %d of %s", 42, "meter");
  log.setLevel(7);
  log.Debug("%s", (std::string(127, 'a') + "b").c_str());
  log.Emerg("e");
  // Each line ends with a newline and a zero byte.
  EXPECT_EQ(Masked(ReadFile(path)),
            "T Err: CX::Method - value 42 of meter\n\0T Debug: "s + std::string(127, 'a') + "\n\0T Emerg: e\n\0"s);
}

TEST_F(LoggerTest, SizeLimitDeletesTheFileAfterTheLineThatPassesItButNotAfterADump) {
  log.setMaxSize(1000);
  // 23 characters of prefix, 50 of text, newline and zero: 75 bytes, 13 lines = 975
  for (int i = 0; i < 13; ++i) log.Info("%s", std::string(50, 'x').c_str());
  EXPECT_EQ(975u, ReadFile(path).size());
  log.Info("%s", std::string(50, 'x').c_str());
  EXPECT_FALSE(mcdtest::FileExists(path));
  const unsigned char bytes[] = {0x00, 0x0f, 0xab};
  log.setLevel(7);  // dumps are debug output
  log.setMaxSize(10);
  log.dump("frame out", bytes, sizeof bytes);
  log.dump("nothing", bytes, 0);
  EXPECT_EQ("frame out\n0x00 0x0f 0xab \nnothing\n\n", ReadFile(path));
}

TEST_F(LoggerTest, StderrTakesPrecedenceAndWriteFailuresAreReported) {
  log.setStderr(true);
  testing::internal::CaptureStderr();
  log.Notice("to %s", "stderr");
  EXPECT_EQ("T Notice: to stderr\n", Masked(testing::internal::GetCapturedStderr()));
  EXPECT_FALSE(mcdtest::FileExists(path));
  logger full("/dev/full", false);
  testing::internal::CaptureStderr();
  full.Info("nowhere");
  EXPECT_EQ("[logger::saveToFile()] Can't write to file: No space left on device\n",
            testing::internal::GetCapturedStderr());
}

}  // namespace
