// The archive invariant through the real daemon, the configuration server and the
// VKT-7 and ESKO simulators, for fixed seeds of the randomized scenario of
// tools/invariant_run.py (daylight-saving change inside the archive, link faults, meter
// error answers, kill -9 and restart, unwritable storage, controller clock steps): after
// a healthy catch-up every record the meters hold is filed exactly once, with its value,
// quality and interval start, and nothing else is filed. The plain run plays seed 7
// briefly with one ESKO meter; MCD_LONG_TESTS=1 plays seeds 7, 5 and 9 at full length
// (Berlin with a daylight-saving change, Sydney, New York).
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "support/test_support.h"

class ArchiveInvariant : public ::testing::TestWithParam<int> {};

TEST_P(ArchiveInvariant, EveryHeldRecordIsFiledOnceThroughRandomFaults) {
  const char* longRun = getenv("MCD_LONG_TESTS");
  const bool full = longRun && *longRun && std::string(longRun) != "0";
  if (!full && GetParam() != 7) GTEST_SKIP() << "seed " << GetParam() << " runs with MCD_LONG_TESTS=1";
  mcdtest::TempRoot root;
  mcdtest::ChildProcess run;
  std::vector<std::string> argv = {"/usr/bin/python3", mcdtest::SourcePath("tools/invariant_run.py"), "--binary",
                                   mcdtest::MainBinary(), "--work", root.root() + "/runs", std::to_string(GetParam())};
  if (!full) argv.insert(argv.end() - 1, {"--fault-seconds", "4", "--esko-meters", "1"});
  ASSERT_TRUE(run.Start(argv));
  int status = -1;
  ASSERT_TRUE(run.Wait(std::chrono::seconds(270), &status)) << run.Stdout();
  EXPECT_EQ(status, 0) << run.Stdout() << run.Stderr();
  EXPECT_NE(run.Stdout().find(": lost 0 duplicated 0 wrong 0"), std::string::npos) << run.Stdout();
  EXPECT_NE(run.Stdout().find("1 passed, 0 failed"), std::string::npos) << run.Stdout();
}

INSTANTIATE_TEST_SUITE_P(FixedSeeds, ArchiveInvariant, ::testing::Values(7, 5, 9));
