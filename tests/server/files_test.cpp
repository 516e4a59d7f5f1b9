// The meter's file tree: directories, links, file texts, file times and flag files.
#include <dlfcn.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <random>

#include "server/file_util.h"
#include "server/jsonrpc_connector.h"
#include "server_test_util.h"

using mcdtest::ListDir;
using mcdtest::ReadFile;
using servertest::Value;
typedef std::vector<std::string> Names;

namespace {
std::mutex g_mutex;
std::vector<std::string> g_synced;  // the files fsync was called for, in order
}  // namespace

// Takes the place of the C library's function for every caller and forwards to it.
extern "C" int fsync(int fd) {
  static auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
  char target[1024] = {0};
  if (readlink(("/proc/self/fd/" + std::to_string(fd)).c_str(), target, sizeof target - 1) > 0) {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_synced.push_back(target);
  }
  return real ? real(fd) : -1;
}

namespace {

std::string Link(const std::string& path) {
  char target[1024] = {0};
  return readlink(path.c_str(), target, sizeof target - 1) > 0 ? target : "";
}

time_t ModTime(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 ? st.st_mtime : -1;
}

class FilesTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
};

TEST_F(FilesTest, ItemTreeLinksAndFileTimes) {
  CJSONRPCConnector connector("7", 0);
  connector.WriteItems({Value(0, 0, "1.5", 1400000000, 0), Value(0, 0, "2.5", 1, 1), Value(0, 0, "3.5", 1, 2)});
  connector.WriteItems({Value(0, 0, "7", 1400000200, 0), Value(17, 1, "12345", 1400000100, 0)});
  // A rewrite replaces the whole text and the time (the value's); no temporary names are left.
  EXPECT_EQ(ReadFile(root.tmp("7/1/tc_items/Q1")), "7\n");
  EXPECT_EQ(ModTime(root.tmp("7/1/tc_items/Q1")), 1400000200);
  EXPECT_EQ(ReadFile(root.tmp("7/3/tc_items/Q1")), "3.5\n");
  EXPECT_EQ(ModTime(root.tmp("7/1/tc_items/IE1")), 1400000100);
  EXPECT_EQ(ListDir(root.tmp("7")), (Names{"1", "2", "3", "default"}));
  EXPECT_EQ(ListDir(root.tmp("7/1/tc_items")), (Names{"IE1", "Q1"}));
  EXPECT_EQ(Link(root.tmp("7/default")), root.tmp("7/1"));
  // An unchanged value moves the time on; a file that another process replaced meanwhile
  // (same size, same time) gets the value again although the value did not change.
  const std::string q1 = root.tmp("7/1/tc_items/Q1");
  connector.WriteItems({Value(0, 0, "7", 1400000300, 0)});
  EXPECT_EQ(ModTime(q1), 1400000300);
  const time_t same = 1400000300;
  ASSERT_TRUE(mcd::fs::ReplaceFile(q1, "9\n", &same));
  connector.WriteItems({Value(0, 0, "7", 1400000400, 0)});
  EXPECT_EQ(ReadFile(q1), "7\n");
  EXPECT_EQ(ModTime(q1), 1400000400);
  // Unknown pairs and kind 6 are dropped; another meter has a tree of its own.
  CJSONRPCConnector("12", 0).WriteItems({Value(6, 0, "70", 1), Value(16, 0, "x", 1), Value(1, 6, "y", 1)});
  EXPECT_EQ(ListDir(root.tmp("12/1/tc_items")), Names{"T1"});
}

TEST_F(FilesTest, ArchiveLinesAndBounds) {
  CJSONRPCConnector connector("7", 0);
  const int32_t t = 1500000000;
  g_synced.clear();
  EXPECT_TRUE(connector.WriteArchive(
      {Value(17, 4, "3.3", t - 10), Value(17, 3, "1.1", t), Value(17, 2, "2.2", t, 0, 0), Value(14, 4, "e", t + 999)},
      4, false));
  EXPECT_EQ(connector.ReadMaxTimestamp(4), t);  // the newest record of the block, not its first
  // The bound's new text reaches the disk before it replaces the old one.
  EXPECT_GE(std::count_if(g_synced.begin(), g_synced.end(),
                          [](const std::string& f) { return f.find("/7/.timestamp_max_hourly.tmp") != std::string::npos; }),
            1) << testing::PrintToString(g_synced);
  EXPECT_TRUE(connector.WriteArchive({Value(17, 3, "1.2", t + 3600, 1)}, 4, false));
  EXPECT_TRUE(connector.WriteArchive({Value(17, 3, "1.3", t + 7200)}, 4, false));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A1")), "1500003600,192,1.1\n1500010800,192,1.3\n");
  EXPECT_EQ(ReadFile(root.storage("7/2/tc_archives/A1")), "1500007200,192,1.2\n");
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A29")), "1500086400,0,2.2\n");
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A2")), "1499999990,192,3.3\n");
  // The bound is the newest raw time of ids other than 14 and 15, without a newline.
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_hourly")), "1500007200");
  EXPECT_TRUE(connector.WriteArchive({Value(14, 5, "a", t + 5), Value(15, 4, "b", t + 5), Value(16, 0, "x", t)}, 5,
                                     false));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/_A57")), "1500000005,192,b\n");
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_daily")), "0");  // made before the first line, unchanged
  EXPECT_TRUE(connector.WriteArchive({Value(17, 5, "9", 77)}, 5, false));
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_daily")), "77");

  // Temporary mode applies to daily and hourly entries only.
  CJSONRPCConnector tmp("8", 0);
  tmp.WriteArchive({Value(17, 2, "d", 0), Value(17, 3, "h", 0), Value(17, 4, "a", 0), Value(17, 5, "b", 0)}, 4, true);
  EXPECT_EQ(ListDir(root.storage("8/1/tc_tmp_archives")), (Names{"A1", "A29"}));
  EXPECT_EQ(ListDir(root.storage("8/1/tc_archives")), (Names{"A2", "A30"}));
  EXPECT_EQ(ReadFile(root.storage("8/1/tc_tmp_archives/A1")), "3600,192,h\n");
}

// What a kill or a power loss leaves is brought into agreement with the bounds by the
// first archive call after the start.
TEST_F(FilesTest, StartReconcilesTheArchiveFilesWithTheBounds) {
  const std::string a = root.storage("7/1/tc_archives/");
  for (const std::string& dir : {a, root.storage("7/2/tc_tmp_archives/")})
    ASSERT_TRUE(mcd::fs::MakeDirs(dir));
  mcdtest::WriteFile(root.storage("7/timestamp_max_hourly"), "1500003600");
  // Kind 4 (A20): two committed lines, one of an unfinished block, a torn one.
  mcdtest::WriteFile(a + "A20", "1500000000,192,1\n1500003600,192,2\n1500007200,192,3\n1500010800,19");
  // Kind 3 (A1), filed an hour after its record: record 1500003600 is committed, 1500007200 not.
  mcdtest::WriteFile(root.storage("7/2/tc_tmp_archives/A1"), "1500007200,192,a\n1500010800,192,b\n");
  // No daily bound: it is set from the newest complete line (A48 kind 5, A29 kind 2 a day late).
  mcdtest::WriteFile(a + "A48", "1499990400,192,x\n1500076800,192,y\n150016");
  mcdtest::WriteFile(a + "A29", "1500163200,0,z\n");
  // Temporary files of a write-and-rename that died; a look-alike is kept.
  mcdtest::WriteFile(root.storage("7/.timestamp_max_hourly.tmp4242.3"), "9");
  mcdtest::WriteFile(a + ".A20.tmp4242.0", "");
  mcdtest::WriteFile(a + ".A20.tmpx.7", "");

  CJSONRPCConnector connector("7", 0);
  EXPECT_EQ(connector.ReadMaxTimestamp(4), 1500003600);
  EXPECT_EQ(ReadFile(a + "A20"), "1500000000,192,1\n1500003600,192,2\n");
  EXPECT_EQ(ReadFile(root.storage("7/2/tc_tmp_archives/A1")), "1500007200,192,a\n");
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_daily")), "1500076800");
  EXPECT_EQ(ReadFile(a + "A48"), "1499990400,192,x\n1500076800,192,y\n");
  EXPECT_EQ(ReadFile(a + "A29"), "1500163200,0,z\n");
  EXPECT_EQ(ListDir(root.storage("7")), (Names{"1", "2", "timestamp_max_daily", "timestamp_max_hourly"}));
  EXPECT_EQ(ListDir(a), (Names{".A20.tmpx.7", "A20", "A29", "A48"}));
  // A bound of 0 means nothing was committed.
  mcdtest::WriteFile(root.storage("7/timestamp_max_daily"), "0");
  connector.ReconcileArchives();
  EXPECT_EQ(ReadFile(a + "A48") + ReadFile(a + "A29"), "");
}

// A filer killed at random instants, again and again: after each restart the files
// hold every block up to the bound exactly once, and nothing beyond it.
TEST_F(FilesTest, KillAtAnyInstantFilesNothingTwiceAndLosesNothing) {
  const time_t first = 1500000000;
  auto block = [](time_t t) {
    return ParamValueList{Value(6, 4, std::to_string(t / 3600), int32_t(t)), Value(7, 4, "x", int32_t(t), 1),
                          Value(17, 3, "e", int32_t(t))};
  };
  std::mt19937 random(20261123);
  for (int round = 0; round < 20; ++round) {
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
      CJSONRPCConnector filer("7", 0);
      const long bound = filer.ReadMaxTimestamp(4);
      for (time_t t = bound ? bound + 3600 : first;; t += 3600) filer.WriteArchive(block(t), 4, false);
    }
    usleep(std::uniform_int_distribution<int>(2000, 150000)(random));
    kill(pid, SIGKILL);
    ASSERT_EQ(waitpid(pid, nullptr, 0), pid);
  }
  CJSONRPCConnector connector("7", 0);
  const long bound = connector.ReadMaxTimestamp(4);
  ASSERT_GT(bound, first + 5 * 3600);  // the filer got on between the kills
  std::string a20, a21, a1;
  for (time_t t = first; t <= bound; t += 3600) {
    a20 += std::to_string(t) + ",192," + std::to_string(t / 3600) + "\n";
    a21 += std::to_string(t) + ",192,x\n";
    a1 += std::to_string(t + 3600) + ",192,e\n";
  }
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A20")), a20);
  EXPECT_EQ(ReadFile(root.storage("7/2/tc_archives/A21")), a21);
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A1")), a1);
}

// The lines of a filing and its raised bound go together: when the bound cannot be
// written, the lines are taken back, so asking for the same records again files them once.
TEST_F(FilesTest, ArchiveLinesAreTakenBackWhenTheBoundCannotBeWritten) {
  CJSONRPCConnector connector("7", 0);
  ASSERT_TRUE(connector.WriteArchive({Value(6, 4, "1.5", 1500000000)}, 4, false));
  const std::string before = "1500000000,192,1.5\n";
  ASSERT_EQ(unlink(root.storage("7/timestamp_max_hourly").c_str()), 0);
  ASSERT_EQ(mkdir(root.storage("7/timestamp_max_hourly").c_str(), 0755), 0);  // the bound cannot be replaced
  const ParamValueList next = {Value(6, 4, "2.5", 1500003600), Value(7, 4, "3.5", 1500003600)};
  EXPECT_FALSE(connector.WriteArchive(next, 4, false));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A20")), before);
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A21")), "");
  EXPECT_EQ(ListDir(root.storage("7")), (Names{"1", "default", "timestamp_max_daily", "timestamp_max_hourly"}));

  ASSERT_EQ(rmdir(root.storage("7/timestamp_max_hourly").c_str()), 0);
  // A line that cannot be written (system 2's directory is a plain file) does the same.
  mcdtest::WriteFile(root.storage("7/2"), "");
  EXPECT_FALSE(connector.WriteArchive({next.front(), Value(6, 4, "9", 1500003600, 1)}, 4, false));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A20")), before);
  EXPECT_EQ(connector.ReadMaxTimestamp(4), 1500000000);

  EXPECT_TRUE(connector.WriteArchive(next, 4, false));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A20")), before + "1500003600,192,2.5\n");
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_hourly")), "1500003600");

  // Lines that cannot be written (here: past the file size limit) do not raise the bound.
  struct rlimit limit;
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &limit), 0);
  struct rlimit small = limit;
  small.rlim_cur = 20;  // below the size of A20
  signal(SIGXFSZ, SIG_IGN);
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &small), 0);
  const bool filed = connector.WriteArchive({Value(6, 4, "4.5", 1500007200)}, 4, false);
  setrlimit(RLIMIT_FSIZE, &limit);
  signal(SIGXFSZ, SIG_DFL);
  EXPECT_FALSE(filed);
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A20")), before + "1500003600,192,2.5\n");
  EXPECT_EQ(connector.ReadMaxTimestamp(4), 1500003600);
}

}  // namespace
