#include "app/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using mcd::ParseOptions;
using mcd::ParseResult;

ParseResult Parse(std::vector<std::string> args) {
  args.insert(args.begin(), "/usr/bin/mcd_main");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  return ParseOptions(static_cast<int>(args.size()), argv.data());
}

const char kLevelError[] = "\nmain: Unacceptable logs level!\n\n";
const char kSizeError[] = "\nmain: Unacceptable max logfile size!\n\n";
const char kNameError[] = "\nmain: Error logs file name!\n\n";
const char kNoIdError[] = "\nmain: Do not set any ID of HeatMeter!\n\n";

TEST(Options, IdsArePlainNamesOfAtMost64Characters) {
  const std::string longest = std::string(62, 'a') + "-_";
  ParseResult r = Parse({"-i", longest, "-i", "Ab9"});
  ASSERT_FALSE(r.exit) << r.err;
  EXPECT_EQ((std::vector<std::string>{longest, "Ab9"}), r.options.ids);

  for (const std::string& bad : {longest + "x", std::string("../x"), std::string("a/b"), std::string("."),
                                 std::string("7\n"), std::string("")}) {
    SCOPED_TRACE(bad);
    r = Parse({"-i", "1", "-i", bad, "-i", "2"});
    EXPECT_TRUE(r.exit);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.err.find("\nmain: Unacceptable ID of HeatMeter \"")) << r.err;
  }
  // a control character in the id is not echoed to the terminal
  r = Parse({"-i", "7\n"});
  EXPECT_NE(std::string::npos, r.err.find("\"7?\"")) << r.err;
}

TEST(Options, LevelMustBeAWholeIntegerFromZeroToSeven) {
  for (const char* good : {"0", "7", "5"}) {
    ParseResult r = Parse({"-v", good, "-i", "1"});
    ASSERT_FALSE(r.exit) << good;
    EXPECT_EQ(std::stoi(good), r.options.level);
  }
  for (const char* bad : {"8", "-1", "x", "6x", "", "99999999999"}) {
    SCOPED_TRACE(bad);
    ParseResult r = Parse({"-i", "1", "-v", bad});
    EXPECT_TRUE(r.exit);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(kLevelError, r.err);
    EXPECT_EQ(mcd::UsageText("/usr/bin/mcd_main"), r.out);
  }
}

TEST(Options, ReleaseAndHelpActAtOnceInOptionOrder) {
  ParseResult r = Parse({"-r", "-v", "9"});
  EXPECT_TRUE(r.exit);
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("version 1.3.32 (2016.11.08)\n", r.out);
  EXPECT_EQ("", r.err);

  r = Parse({"-v", "9", "-r"});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(kLevelError, r.err);

  // no -i is needed when -h or -r ends parsing
  r = Parse({"--help", "-s", "x"});
  EXPECT_TRUE(r.exit);
  EXPECT_EQ(0, r.status);
  EXPECT_EQ(mcd::UsageText("/usr/bin/mcd_main"), r.out);

  r = Parse({"-h", "-r"});
  EXPECT_EQ(mcd::UsageText("/usr/bin/mcd_main"), r.out);
  r = Parse({"--release", "-h"});
  EXPECT_EQ("version 1.3.32 (2016.11.08)\n", r.out);
}

TEST(Options, LogNameAndSizeErrors) {
  ParseResult r = Parse({"-i", "1", "-l", ""});
  EXPECT_EQ(1, r.status);
  EXPECT_EQ(kNameError, r.err);
  EXPECT_EQ(mcd::UsageText("/usr/bin/mcd_main"), r.out);

  for (const char* bad : {"x", "10k", "", "3000000000"}) {
    SCOPED_TRACE(bad);
    r = Parse({"-i", "1", "-s", bad});
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(kSizeError, r.err);
    EXPECT_EQ(mcd::UsageText("/usr/bin/mcd_main"), r.out);
  }
  // a negative size has no range check
  r = Parse({"-i", "1", "-s", "-5"});
  ASSERT_FALSE(r.exit);
  EXPECT_EQ(-5, r.options.maxLogSize);

  // the first bad option met decides
  r = Parse({"-s", "x", "-v", "9", "-i", "1"});
  EXPECT_EQ(kSizeError, r.err);
}

TEST(Options, RejectedOptionsArePassedOver) {
  testing::internal::CaptureStderr();
  ParseResult r = Parse({"-x", "-i", "5", "--bogus", "-v"});
  std::string getoptMessages = testing::internal::GetCapturedStderr();
  ASSERT_FALSE(r.exit);
  EXPECT_EQ(std::vector<std::string>{"5"}, r.options.ids);
  EXPECT_EQ(6, r.options.level);
  EXPECT_NE(std::string::npos, getoptMessages.find("invalid option -- 'x'")) << getoptMessages;
  EXPECT_NE(std::string::npos, getoptMessages.find("unrecognized option '--bogus'")) << getoptMessages;
  EXPECT_NE(std::string::npos, getoptMessages.find("option requires an argument -- 'v'")) << getoptMessages;
}

TEST(Options, WholeIntegerReader) {
  int v = -99;
  EXPECT_TRUE(mcd::ParseWholeInt("0", v));
  EXPECT_EQ(0, v);
  EXPECT_TRUE(mcd::ParseWholeInt("-2147483648", v));
  EXPECT_EQ(-2147483647 - 1, v);
  EXPECT_TRUE(mcd::ParseWholeInt("+12", v));
  EXPECT_EQ(12, v);
  v = 77;
  EXPECT_FALSE(mcd::ParseWholeInt("2147483648", v));
  EXPECT_FALSE(mcd::ParseWholeInt("12 ", v));
  EXPECT_FALSE(mcd::ParseWholeInt("-", v));
  EXPECT_FALSE(mcd::ParseWholeInt(nullptr, v));
  EXPECT_EQ(77, v);  // untouched on failure
}

}  // namespace
