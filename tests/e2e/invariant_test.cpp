// The archive invariant through the real daemon, the configuration server and the
// VKT-7 and ESKO simulators, for a few fixed seeds of the randomized scenario of
// tools/invariant_run.py (time zone with a daylight-saving change inside the archive,
// link faults, meter error answers, kill -9 and restart, unwritable storage, controller
// clock steps): after a healthy catch-up every record the meters hold is filed exactly
// once, with its value, quality and interval start, and nothing else is filed.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

#include "support/test_support.h"

namespace {

using namespace std::chrono_literals;

class ArchiveInvariant : public ::testing::TestWithParam<int> {};

TEST_P(ArchiveInvariant, EveryHeldRecordIsFiledOnceThroughRandomFaults) {
  mcdtest::TempRoot root;
  mcdtest::ChildProcess run;
  ASSERT_TRUE(run.Start({"/usr/bin/python3", mcdtest::SourcePath("tools/invariant_run.py"), "--binary",
                         mcdtest::MainBinary(), "--work", root.root() + "/runs", std::to_string(GetParam())}));
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
