// The archive invariant through the real daemon, the configuration server and the
// VKT-7 and ESKO simulators, for fixed seeds of the randomized scenario of
// tools/invariant_run.py (daylight-saving change inside the archive, link faults, meter
// error answers, kill -9 and restart, unwritable storage, controller clock steps): after
// a healthy catch-up every record the meters hold is filed exactly once, with its value,
// quality and interval start, and nothing else is filed. The plain run plays one seed
// briefly with one ESKO meter; MCD_LONG_TESTS=1 plays three at full length.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "support/test_support.h"

namespace {

using namespace std::chrono_literals;

class ArchiveInvariant : public ::testing::TestWithParam<int> {};

TEST_P(ArchiveInvariant, EveryHeldRecordIsFiledOnceThroughRandomFaults) {
  const char* longRun = getenv("MCD_LONG_TESTS");
  const bool full = longRun && *longRun && std::string(longRun) != "0";
  if (GetParam() != 7 && !full) GTEST_SKIP() << "seed " << GetParam() << " runs with MCD_LONG_TESTS=1";
  mcdtest::TempRoot root;
  mcdtest::ChildProcess run;
  std::vector<std::string> argv = {"/usr/bin/python3", mcdtest::SourcePath("tools/invariant_run.py"), "--binary",
                                   mcdtest::MainBinary(), "--work", root.root() + "/runs"};
  if (!full) argv.insert(argv.end(), {"--fault-seconds", "4", "--esko-meters", "1"});
  argv.push_back(std::to_string(GetParam()));
  ASSERT_TRUE(run.Start(argv));
  int status = -1;
  ASSERT_TRUE(run.Wait(270s, &status)) << run.Stdout();
  const std::string out = run.Stdout();
  EXPECT_EQ(status, 0) << out << run.Stderr();
  EXPECT_NE(out.find(": lost 0 duplicated 0 wrong 0"), std::string::npos) << out;
  EXPECT_NE(out.find("1 passed, 0 failed"), std::string::npos) << out;
}

// Berlin (a daylight-saving change of autumn or spring), Sydney, New York.
INSTANTIATE_TEST_SUITE_P(FixedSeeds, ArchiveInvariant, ::testing::Values(7, 5, 9));

}  // namespace
