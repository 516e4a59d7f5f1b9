#include "log/logger.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "support/test_support.h"

namespace {

using mcdtest::FileExists;
using mcdtest::ReadFile;

// Redirects one descriptor (1 or 2) into a file for the life of the object.
class FdCapture {
 public:
  explicit FdCapture(int fd) : m_fd(fd) {
    char name[] = "/tmp/mcdlogcap.XXXXXX";
    int file = mkstemp(name);
    m_path = name;
    fflush(nullptr);
    m_saved = dup(fd);
    dup2(file, fd);
    close(file);
  }
  ~FdCapture() {
    Restore();
    unlink(m_path.c_str());
  }
  std::string Text() {
    Restore();
    return ReadFile(m_path);
  }

 private:
  void Restore() {
    if (m_saved < 0) return;
    fflush(nullptr);
    dup2(m_saved, m_fd);
    close(m_saved);
    m_saved = -1;
  }
  int m_fd;
  int m_saved = -1;
  std::string m_path;
};

// The file's lines, each of which must end with "\n\0"; the ends are stripped.
std::vector<std::string> FileLines(const std::string& content) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < content.size()) {
    size_t end = content.find(std::string("\n\0", 2), start);
    if (end == std::string::npos) {
      ADD_FAILURE() << "line without newline and zero byte: " << content.substr(start);
      break;
    }
    lines.push_back(content.substr(start, end - start));
    start = end + 2;
  }
  return lines;
}

// A line's prefix "HH:MM:SS.mmm.uuu <Name>: " taken apart; ok is false when malformed.
struct Prefix {
  bool ok = false;
  int secondsOfDay = 0;
  std::string name;
  std::string rest;  // the text after the prefix
};

Prefix ParsePrefix(const std::string& line) {
  Prefix p;
  const char* pattern = "dd:dd:dd.ddd.ddd ";
  const size_t n = strlen(pattern);
  if (line.size() < n) return p;
  for (size_t i = 0; i < n; ++i) {
    bool digit = line[i] >= '0' && line[i] <= '9';
    if (pattern[i] == 'd' ? !digit : line[i] != pattern[i]) return p;
  }
  size_t colon = line.find(": ", n);
  if (colon == std::string::npos || colon == n) return p;
  p.name = line.substr(n, colon - n);
  for (char c : p.name)
    if (!isalpha(static_cast<unsigned char>(c))) return p;
  p.secondsOfDay = std::stoi(line.substr(0, 2)) * 3600 + std::stoi(line.substr(3, 2)) * 60 + std::stoi(line.substr(6, 2));
  p.rest = line.substr(colon + 2);
  p.ok = true;
  return p;
}

class LoggerTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
  std::string path = root.tmp("mcd.log");
};

TEST_F(LoggerTest, FileLineHasTimePrefixLevelNameAndEndsWithNewlineAndZero) {
  logger log(path.c_str(), false);
  time_t before = time(nullptr);
  log.Info("CX::Method - value %d of %s", 42, "meter");
  log.Err("second");
  std::string content = ReadFile(path);
  ASSERT_GE(content.size(), 2u);
  EXPECT_EQ(std::string("\n\0", 2), content.substr(content.size() - 2));

  std::vector<std::string> lines = FileLines(content);
  ASSERT_EQ(2u, lines.size());
  Prefix p = ParsePrefix(lines[0]);
  ASSERT_TRUE(p.ok) << lines[0];
  EXPECT_EQ("Info", p.name);
  EXPECT_EQ("CX::Method - value 42 of meter", p.rest);
  Prefix q = ParsePrefix(lines[1]);
  ASSERT_TRUE(q.ok) << lines[1];
  EXPECT_EQ("Err", q.name);
  EXPECT_EQ("second", q.rest);

  // the clock part is the local time of day
  struct tm local;
  localtime_r(&before, &local);
  int logged = p.secondsOfDay;
  int expected = local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec;
  int diff = (logged - expected + 86400) % 86400;
  EXPECT_LE(diff, 2) << lines[0];
}

TEST_F(LoggerTest, LongMessageIsCutAt127Characters) {
  logger log(path.c_str(), false);
  std::string longText(200, 'a');
  longText.replace(120, 80, std::string(80, 'b'));
  log.Warning("%s", longText.c_str());
  std::vector<std::string> lines = FileLines(ReadFile(path));
  ASSERT_EQ(1u, lines.size());
  Prefix p = ParsePrefix(lines[0]);
  ASSERT_TRUE(p.ok) << lines[0];
  EXPECT_EQ("Warning", p.name);
  EXPECT_EQ(longText.substr(0, 127), p.rest);
}

TEST_F(LoggerTest, EachLevelWritesOnlyAtOrAboveItsThresholdWithItsName) {
  using Fn = void (logger::*)(const char*, ...);
  const struct {
    Fn fn;
    int level;
    const char* name;
  } table[] = {{&logger::Emerg, 0, "Emerg"},     {&logger::Alert, 1, "Alert"}, {&logger::Crit, 2, "Crit"},
               {&logger::Err, 3, "Err"},         {&logger::Warning, 4, "Warning"},
               {&logger::Notice, 5, "Notice"}, {&logger::Info, 6, "Info"},   {&logger::Debug, 7, "Debug"}};
  for (const auto& row : table) {
    SCOPED_TRACE(row.name);
    unlink(path.c_str());
    logger log(path.c_str(), false);
    if (row.level > 0) {
      log.setLevel(row.level - 1);
      EXPECT_FALSE(log.isWritable(row.level));
      (log.*row.fn)("below");
      EXPECT_FALSE(FileExists(path));
    }
    log.setLevel(row.level);
    EXPECT_TRUE(log.isWritable(row.level));
    (log.*row.fn)("at");
    std::vector<std::string> lines = FileLines(ReadFile(path));
    ASSERT_EQ(1u, lines.size());
    Prefix p = ParsePrefix(lines[0]);
    ASSERT_TRUE(p.ok) << lines[0];
    EXPECT_EQ(row.name, p.name);
    EXPECT_EQ("at", p.rest);
  }
}

TEST_F(LoggerTest, SizeLimitDeletesTheFileAfterTheLineThatPassesIt) {
  logger log(path.c_str(), false);
  log.setMaxSize(1000);
  // "HH:MM:SS.mmm.uuu Info: " is 23 characters; with 50 characters of text, the newline
  // and the zero byte every line takes 75 bytes: 13 lines = 975, the 14th passes 1000.
  const std::string text(50, 'x');
  for (int i = 0; i < 13; ++i) log.Info("%s", text.c_str());
  ASSERT_TRUE(FileExists(path));
  EXPECT_EQ(975u, ReadFile(path).size());
  log.Info("%s", text.c_str());
  EXPECT_FALSE(FileExists(path));
  log.Info("%s", text.c_str());
  EXPECT_EQ(75u, ReadFile(path).size());
}

TEST_F(LoggerTest, StderrTakesPrecedenceOverTheFile) {
  logger log(path.c_str(), false);
  log.setStderr(true);
  FdCapture err(2);
  log.Notice("to %s", "stderr");
  std::string text = err.Text();
  EXPECT_FALSE(FileExists(path));
  Prefix p = ParsePrefix(text);
  ASSERT_TRUE(p.ok) << text;
  EXPECT_EQ("Notice", p.name);
  EXPECT_EQ("to stderr\n", p.rest);  // no zero byte on standard error
}

TEST_F(LoggerTest, DumpWritesTitleAndHexBytesWithoutPrefixOrZeroByte) {
  logger log(path.c_str(), false);
  log.setLevel(7);
  const unsigned char bytes[] = {0x00, 0x0f, 0xab, 0xff, 0x7e};
  log.dump("frame out", bytes, sizeof bytes);
  log.dump("nothing", bytes, 0);
  EXPECT_EQ("frame out\n0x00 0x0f 0xab 0xff 0x7e \nnothing\n\n", ReadFile(path));

  // the size limit is not applied after a dump
  log.setMaxSize(10);
  log.dump("after limit", bytes, 1);
  EXPECT_TRUE(FileExists(path));
}

TEST_F(LoggerTest, UnopenableFileIsReportedAndTheLineDropped) {
  std::string bad = root.tmp("no-such-dir/mcd.log");
  logger log(bad.c_str(), false);
  FdCapture err(2);
  FdCapture out(1);
  log.Info("lost");
  std::string outText = out.Text();
  std::string errText = err.Text();
  EXPECT_EQ("Can't open file " + bad + "\n", outText);
  EXPECT_NE(std::string::npos, errText.find("addError: : No such file or directory")) << errText;
}

TEST_F(LoggerTest, WriteFailureIsReportedOnStderr) {
  logger log("/dev/full", false);
  log.setLevel(7);
  FdCapture err(2);
  log.Info("nowhere");
  const unsigned char byte = 1;
  log.dump("nowhere", &byte, 1);
  EXPECT_EQ(
      "[logger::saveToFile()] Can't write to file: No space left on device\n"
      "[logger::dump()] Can't write to file: No space left on device\n",
      err.Text());
}

TEST_F(LoggerTest, ConcurrentLinesStayWhole) {
  logger log(path.c_str(), false);
  constexpr int kThreads = 4;
  constexpr int kLines = 40;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&log, t] {
      for (int i = 0; i < kLines; ++i) log.Info("thread %d line %03d %s", t, i, std::string(60, 'a' + t).c_str());
    });
  }
  for (auto& th : threads) th.join();
  std::vector<std::string> lines = FileLines(ReadFile(path));
  ASSERT_EQ(static_cast<size_t>(kThreads * kLines), lines.size());
  std::vector<int> next(kThreads, 0);
  for (const std::string& line : lines) {
    Prefix p = ParsePrefix(line);
    ASSERT_TRUE(p.ok) << line;
    EXPECT_EQ("Info", p.name);
    int t = -1, i = -1;
    char tail[128] = {0};
    ASSERT_EQ(3, sscanf(p.rest.c_str(), "thread %d line %d %127s", &t, &i, tail)) << line;
    ASSERT_TRUE(t >= 0 && t < kThreads) << line;
    EXPECT_EQ(std::string(60, static_cast<char>('a' + t)), tail) << line;
    EXPECT_EQ(next[t]++, i);  // each thread's lines in its own order
  }
}

}  // namespace
