#include "app/options.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

mcd::ParseResult Parse(std::vector<std::string> args) {
  args.insert(args.begin(), "/usr/bin/mcd_main");
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(&a[0]);
  argv.push_back(nullptr);
  return mcd::ParseOptions(static_cast<int>(args.size()), argv.data());
}

TEST(Options, AcceptedValuesAtTheirLimits) {
  const std::string longest = std::string(62, 'a') + "-_";
  mcd::ParseResult r = Parse({"-x", "-i", longest, "-i", "Ab9", "-v", "0", "-s", "-5"});
  ASSERT_FALSE(r.exit) << r.err;  // an unknown option is passed over
  EXPECT_EQ((std::vector<std::string>{longest, "Ab9"}), r.options.ids);
  EXPECT_EQ(0, r.options.level);
  EXPECT_EQ(-5, r.options.maxLogSize);  // a negative size has no range check
  EXPECT_EQ(6, Parse({"-i", "1", "-v"}).options.level);
}

// Each rejection exits 1 with its message and the usage; the first bad option decides.
TEST(Options, EachRejectionHasItsMessage) {
  const struct {
    std::vector<std::string> args;
    std::string err;  // its beginning
  } cases[] = {
      {{"-i", "1", "-i", std::string(65, 'a')}, "\nmain: Unacceptable ID of HeatMeter \"aaaa"},
      {{"-i", "../x"}, "\nmain: Unacceptable ID of HeatMeter \"../x"},
      {{"-i", "7\n"}, "\nmain: Unacceptable ID of HeatMeter \"7?\""},  // not echoed raw
      {{"-i", "1", "-v", "6x"}, "\nmain: Unacceptable logs level!\n\n"},
      {{"-i", "1", "-s", "3000000000"}, "\nmain: Unacceptable max logfile size!\n\n"},
      {{"-s", "x", "-v", "9", "-i", "1"}, "\nmain: Unacceptable max logfile size!\n\n"},
      {{"-i", "1", "-l", ""}, "\nmain: Error logs file name!\n\n"},
  };
  for (const auto& c : cases) {
    const mcd::ParseResult r = Parse(c.args);
    EXPECT_TRUE(r.exit);
    EXPECT_EQ(1, r.status);
    EXPECT_EQ(0u, r.err.find(c.err)) << r.err;
    EXPECT_EQ(0u, r.out.find("Usage: /usr/bin/mcd_main [options]\n")) << r.out;
  }
  const mcd::ParseResult r = Parse({"-r", "-v", "9"});  // the release acts at once
  EXPECT_EQ(0, r.status);
  EXPECT_EQ("version 1.3.32 (2016.11.08)\n", r.out);
}

}  // namespace
