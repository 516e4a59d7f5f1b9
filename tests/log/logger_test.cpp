#include "log/logger.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "support/test_support.h"

namespace {

using mcdtest::FileExists;
using mcdtest::ReadFile;

using namespace std::string_literals;

// The text with every "HH:MM:SS.mmm.uuu " time of day replaced by "T ".
std::string Masked(const std::string& text) {
  static const std::regex time(R"(\d\d:\d\d:\d\d\.\d{3}\.\d{3} )");
  return std::regex_replace(text, time, "T ");
}

class LoggerTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
  std::string path = root.tmp("mcd.log");
};

TEST_F(LoggerTest, LevelsNamesAndCutAt127) {
  logger log(path.c_str(), false);
  log.setLevel(3);
  log.Warning("below");
  EXPECT_FALSE(FileExists(path));
  log.Err("CX::Method - value %d of %s", 42, "meter");
  log.setLevel(7);
  log.Debug("%s", (std::string(127, 'a') + "b").c_str());
  log.Emerg("e");
  // Each line ends with a newline and a zero byte.
  EXPECT_EQ(Masked(ReadFile(path)),
            "T Err: CX::Method - value 42 of meter\n\0T Debug: "s + std::string(127, 'a') + "\n\0T Emerg: e\n\0"s);
}

TEST_F(LoggerTest, SizeLimitDeletesTheFileAfterTheLineThatPassesItButNotAfterADump) {
  logger log(path.c_str(), false);
  log.setMaxSize(1000);
  // 23 characters of prefix, 50 of text, newline and zero: 75 bytes, 13 lines = 975
  for (int i = 0; i < 13; ++i) log.Info("%s", std::string(50, 'x').c_str());
  EXPECT_EQ(975u, ReadFile(path).size());
  log.Info("%s", std::string(50, 'x').c_str());
  EXPECT_FALSE(FileExists(path));
  const unsigned char bytes[] = {0x00, 0x0f, 0xab};
  log.setLevel(7);  // dumps are debug output
  log.setMaxSize(10);
  log.dump("frame out", bytes, sizeof bytes);
  log.dump("nothing", bytes, 0);
  EXPECT_EQ("frame out\n0x00 0x0f 0xab \nnothing\n\n", ReadFile(path));
}

TEST_F(LoggerTest, StderrTakesPrecedenceAndWriteFailuresAreReported) {
  logger log(path.c_str(), false);
  log.setStderr(true);
  testing::internal::CaptureStderr();
  log.Notice("to %s", "stderr");
  EXPECT_EQ("T Notice: to stderr\n", Masked(testing::internal::GetCapturedStderr()));
  EXPECT_FALSE(FileExists(path));
  logger full("/dev/full", false);
  testing::internal::CaptureStderr();
  full.Info("nowhere");
  EXPECT_EQ("[logger::saveToFile()] Can't write to file: No space left on device\n",
            testing::internal::GetCapturedStderr());
}

}  // namespace
