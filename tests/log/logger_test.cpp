#include "log/logger.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using mcdtest::FileExists;
using mcdtest::ReadFile;

// "<Level>|<text>" of a line "HH:MM:SS.mmm.uuu <Level>: <text>\n"; empty when malformed.
std::string Parse(const std::string& line) {
  const std::string pattern = "dd:dd:dd.ddd.ddd ";
  if (line.size() < pattern.size() + 4 || line.back() != '\n') return "";
  for (size_t i = 0; i < pattern.size(); ++i)
    if (pattern[i] == 'd' ? !isdigit(static_cast<unsigned char>(line[i])) : line[i] != pattern[i]) return "";
  const size_t colon = line.find(": ", pattern.size());
  if (colon == std::string::npos || line.find('\n') != line.size() - 1) return "";
  for (size_t i = pattern.size(); i < colon; ++i)
    if (!isalpha(static_cast<unsigned char>(line[i]))) return "";
  return line.substr(pattern.size(), colon - pattern.size()) + "|" + line.substr(colon + 2, line.size() - colon - 3);
}

class LoggerTest : public ::testing::Test {
 protected:
  // The file's lines, each of which must end with "\n\0", as "<Level>|<text>".
  std::vector<std::string> Lines() {
    const std::string content = ReadFile(path);
    std::vector<std::string> lines;
    for (size_t start = 0, end; start < content.size(); start = end + 1) {
      end = content.find('\0', start);
      const std::string line = content.substr(start, end == std::string::npos ? end : end - start);
      if (end == std::string::npos || Parse(line).empty()) {
        ADD_FAILURE() << "malformed: " << line;
        break;
      }
      lines.push_back(Parse(line));
    }
    return lines;
  }
  mcdtest::TempRoot root;
  std::string path = root.tmp("mcd.log");
};

TEST_F(LoggerTest, LevelsNamesCutAt127AndLocalTimeOfDay) {
  logger log(path.c_str(), false);
  const time_t now = time(nullptr);
  log.setLevel(3);
  log.Warning("below");
  EXPECT_FALSE(FileExists(path));
  log.Err("CX::Method - value %d of %s", 42, "meter");
  log.setLevel(7);
  log.Debug("%s", (std::string(127, 'a') + "b").c_str());
  log.Emerg("e");
  EXPECT_EQ((std::vector<std::string>{"Err|CX::Method - value 42 of meter", "Debug|" + std::string(127, 'a'), "Emerg|e"}),
            Lines());
  struct tm local;
  localtime_r(&now, &local);
  const std::string content = ReadFile(path);
  const int logged = std::stoi(content.substr(0, 2)) * 3600 + std::stoi(content.substr(3, 2)) * 60 +
                     std::stoi(content.substr(6, 2));
  EXPECT_LE((logged - (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec) + 86400) % 86400, 2);
}

TEST_F(LoggerTest, SizeLimitDeletesTheFileAfterTheLineThatPassesItButNotAfterADump) {
  logger log(path.c_str(), false);
  log.setMaxSize(1000);
  // 23 characters of prefix, 50 of text, newline and zero: 75 bytes, 13 lines = 975
  const std::string text(50, 'x');
  for (int i = 0; i < 13; ++i) log.Info("%s", text.c_str());
  EXPECT_EQ(975u, ReadFile(path).size());
  log.Info("%s", text.c_str());
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
  const std::string err = testing::internal::GetCapturedStderr();
  EXPECT_FALSE(FileExists(path));
  EXPECT_EQ("Notice|to stderr", Parse(err)) << err;

  logger full("/dev/full", false);
  testing::internal::CaptureStderr();
  full.Info("nowhere");
  EXPECT_EQ("[logger::saveToFile()] Can't write to file: No space left on device\n",
            testing::internal::GetCapturedStderr());
}

TEST_F(LoggerTest, ConcurrentLinesStayWhole) {
  logger log(path.c_str(), false);
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&log, t] {
      for (int i = 0; i < 40; ++i) log.Info("%d %03d %s", t, i, std::string(60, 'a' + t).c_str());
    });
  for (auto& th : threads) th.join();
  const auto lines = Lines();
  ASSERT_EQ(160u, lines.size());
  int next[4] = {0, 0, 0, 0};
  for (const std::string& line : lines) {
    const int t = line[5] - '0';
    ASSERT_TRUE(t >= 0 && t < 4) << line;
    EXPECT_EQ(line, "Info|" + std::to_string(t) + " " + (next[t] < 10 ? "00" : "0") + std::to_string(next[t]) + " " +
                        std::string(60, static_cast<char>('a' + t)));
    ++next[t];
  }
}

}  // namespace
