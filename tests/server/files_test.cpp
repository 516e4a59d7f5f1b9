// The meter's file tree: directories, links, file texts, file times and flag files.
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "server/jsonrpc_connector.h"
#include "server_test_util.h"

using mcdtest::FileExists;
using mcdtest::ListDir;
using mcdtest::ReadFile;
using servertest::Value;

namespace {

std::string LinkTarget(const std::string& path) {
  char target[1024] = {0};
  ssize_t n = readlink(path.c_str(), target, sizeof target - 1);
  return n > 0 ? std::string(target, static_cast<size_t>(n)) : std::string();
}

struct Times {
  time_t access = -1, modify = -1;
};
Times FileTimes(const std::string& path) {
  struct stat st;
  Times t;
  if (stat(path.c_str(), &st) == 0) t.access = st.st_atime, t.modify = st.st_mtime;
  return t;
}

class FilesTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
};

TEST_F(FilesTest, ItemTreeAndDefaultLinkPerSystem) {
  CJSONRPCConnector connector("7", 0);
  connector.WriteItems({Value(0, 0, "1.5", 1500000000, 0)});
  EXPECT_EQ(ReadFile(root.tmp("7/1/tc_items/Q1")), "1.5\n");
  EXPECT_EQ(LinkTarget(root.tmp("7/default")), root.tmp("7/1"));
  EXPECT_EQ(ListDir(root.tmp("7")), (std::vector<std::string>{"1", "default"}));

  connector.WriteItems({Value(0, 0, "2.5", 1500000000, 1), Value(0, 0, "3.5", 1500000000, 2)});
  EXPECT_EQ(ReadFile(root.tmp("7/2/tc_items/Q1")), "2.5\n");
  EXPECT_EQ(ReadFile(root.tmp("7/3/tc_items/Q1")), "3.5\n");
  EXPECT_EQ(LinkTarget(root.tmp("7/default")), root.tmp("7/1"));
  EXPECT_EQ(connector.GetItemsDir(2), root.tmp("7/3/tc_items/"));
  // Only the item files are in the directory: no temporary names are left behind.
  EXPECT_EQ(ListDir(root.tmp("7/1/tc_items")), (std::vector<std::string>{"Q1"}));

  // A second meter has a tree of its own.
  CJSONRPCConnector other("12", 0);
  other.WriteItems({Value(6, 0, "70", 1500000000, 0)});
  EXPECT_EQ(ReadFile(root.tmp("12/1/tc_items/T1")), "70\n");
  EXPECT_FALSE(FileExists(root.tmp("7/1/tc_items/T1")));
}

TEST_F(FilesTest, DefaultLinkFollowsTheDefaultSystemAndIsNeverForced) {
  CJSONRPCConnector second("5", 1);
  EXPECT_EQ(second.GetArchiveDir(0, false), root.storage("5/1/tc_archives/"));
  EXPECT_FALSE(FileExists(root.storage("5/default")));
  EXPECT_EQ(second.GetArchiveDir(1, false), root.storage("5/2/tc_archives/"));
  EXPECT_EQ(LinkTarget(root.storage("5/default")), root.storage("5/2"));

  // An existing entry is left as it is.
  mkdir(root.tmp("9").c_str(), 0755);
  ASSERT_EQ(symlink("/elsewhere", root.tmp("9/default").c_str()), 0);
  CJSONRPCConnector kept("9", 0);
  kept.GetItemsDir(0);
  EXPECT_EQ(LinkTarget(root.tmp("9/default")), "/elsewhere");

  // The temporary archive directory of the default system makes the link as well.
  CJSONRPCConnector tmp("8", 0);
  EXPECT_EQ(tmp.GetArchiveDir(0, true), root.storage("8/1/tc_tmp_archives/"));
  EXPECT_EQ(LinkTarget(root.storage("8/default")), root.storage("8/1"));
  EXPECT_FALSE(FileExists(root.tmp("8/default")));
}

TEST_F(FilesTest, ArchiveDirectoryCacheKeys) {
  CJSONRPCConnector connector("7", 0);
  EXPECT_EQ(connector.GetArchiveDir(0, true), root.storage("7/1/tc_tmp_archives/"));
  EXPECT_EQ(connector.GetArchiveDir(0, false), root.storage("7/1/tc_archives/"));
  // System 128 shares its key with the temporary variant of system 0.
  EXPECT_EQ(connector.GetArchiveDir(128, false), root.storage("7/1/tc_tmp_archives/"));
  EXPECT_FALSE(FileExists(root.storage("7/129")));
  // A directory removed behind the cache's back is not made again.
  rmdir(root.storage("7/1/tc_archives").c_str());
  EXPECT_EQ(connector.GetArchiveDir(0, false), root.storage("7/1/tc_archives/"));
  EXPECT_FALSE(FileExists(root.storage("7/1/tc_archives")));
}

TEST_F(FilesTest, ItemFileTimeIsTheValueTime) {
  CJSONRPCConnector connector("7", 0);
  connector.WriteItems({Value(6, 0, "70.5", 1400000000), Value(17, 1, "12345", 1400000100)});
  Times t = FileTimes(root.tmp("7/1/tc_items/T1"));
  EXPECT_EQ(t.access, 1400000000);
  EXPECT_EQ(t.modify, 1400000000);
  EXPECT_EQ(FileTimes(root.tmp("7/1/tc_items/IE1")).modify, 1400000100);
  // A rewrite truncates: the shorter value leaves nothing of the longer one.
  connector.WriteItems({Value(6, 0, "7", 1400000200)});
  EXPECT_EQ(ReadFile(root.tmp("7/1/tc_items/T1")), "7\n");
  EXPECT_EQ(FileTimes(root.tmp("7/1/tc_items/T1")).modify, 1400000200);
}

TEST_F(FilesTest, ArchiveKindsSentAsItemsLeaveOneLine) {
  CJSONRPCConnector connector("7", 0);
  connector.WriteItems({Value(17, 4, "1.0", 1500000000, 0, 192), Value(17, 5, "2.0", 1500000000, 1, 0)});
  connector.WriteItems({Value(17, 4, "1.5", 1500003600, 0, 193)});
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A2")), "1500003600,193,1.5\n");
  EXPECT_EQ(FileTimes(root.storage("7/1/tc_archives/A2")).modify, 1500003600);
  EXPECT_EQ(ReadFile(root.storage("7/2/tc_archives/A30")), "1500000000,0,2.0\n");
  EXPECT_FALSE(FileExists(root.tmp("7/1")));
  // Unknown pairs and kind 6 are dropped.
  connector.WriteItems({Value(1, 6, "x", 1), Value(16, 0, "y", 1)});
  EXPECT_EQ(ListDir(root.tmp("7")), std::vector<std::string>{});
}

TEST_F(FilesTest, SystemDataOfSystemZeroGoesToEveryKnownSystem) {
  CJSONRPCConnector connector("7", 0);
  // With no item directory yet, it lands in its own system only.
  connector.WriteItems({Value(34, 7, "SN1", 1400000000, 0)});
  EXPECT_EQ(ReadFile(root.tmp("7/1/tc_items/SerialNumber")), "SN1\n");

  connector.GetItemsDir(1);
  connector.GetItemsDir(2);
  connector.WriteItems({Value(34, 7, "SN2", 1400000500, 0), Value(33, 7, "fw", 1400000600, 1)});
  for (const char* dir : {"7/1/tc_items/", "7/2/tc_items/", "7/3/tc_items/"})
    EXPECT_EQ(ReadFile(root.tmp(std::string(dir) + "SerialNumber")), "SN2\n") << dir;
  // The value time is set on the last copy.
  EXPECT_EQ(FileTimes(root.tmp("7/3/tc_items/SerialNumber")).modify, 1400000500);
  EXPECT_NE(FileTimes(root.tmp("7/1/tc_items/SerialNumber")).modify, 1400000500);
  // System data of another system stays in that system.
  EXPECT_EQ(ReadFile(root.tmp("7/2/tc_items/Firmware")), "fw\n");
  EXPECT_FALSE(FileExists(root.tmp("7/1/tc_items/Firmware")));
}

TEST_F(FilesTest, ArchiveLinesAppendWithIntervalOffsetsAndRaiseTheBound) {
  CJSONRPCConnector connector("7", 0);
  const int32_t t = 1500000000;
  EXPECT_TRUE(connector.WriteArchive({Value(17, 3, "1.1", t), Value(17, 2, "2.2", t, 0, 0), Value(17, 4, "3.3", t - 10),
                                      Value(14, 4, "ER", t + 999)},
                                     4, false));
  EXPECT_TRUE(connector.WriteArchive({Value(17, 3, "1.2", t + 3600, 1)}, 4, false));
  EXPECT_TRUE(connector.WriteArchive({Value(17, 3, "1.3", t + 7200)}, 4, false));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A1")), "1500003600,192,1.1\n1500010800,192,1.3\n");
  EXPECT_EQ(ReadFile(root.storage("7/2/tc_archives/A1")), "1500007200,192,1.2\n");
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A29")), "1500086400,0,2.2\n");
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A2")), "1499999990,192,3.3\n");
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A28")), "1500000999,192,ER\n");
  // The bound is the newest raw time, with no offset and no trailing newline.
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_hourly")), "1500007200");
  EXPECT_EQ(connector.ReadMaxTimestamp(4), 1500007200);
  EXPECT_FALSE(FileExists(root.storage("7/timestamp_max_daily")));

  EXPECT_TRUE(connector.WriteArchive({Value(17, 5, "9", t)}, 5, false));
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_daily")), "1500000000");
  EXPECT_EQ(connector.ReadMaxTimestamp(5), 1500000000);
}

TEST_F(FilesTest, IdsFourteenAndFifteenDoNotMoveTheBound) {
  CJSONRPCConnector connector("7", 0);
  connector.WriteMaxTimestamp(4, 100);
  EXPECT_TRUE(connector.WriteArchive({Value(14, 4, "a", 2000000000), Value(15, 4, "b", 2000000000)}, 4, false));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/A28")), "2000000000,192,a\n");
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_archives/_A57")), "2000000000,192,b\n");
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_hourly")), "100");
  // Nothing known in the list: no file and no bound.
  EXPECT_TRUE(connector.WriteArchive({Value(16, 0, "x", 2000000000)}, 5, false));
  EXPECT_FALSE(FileExists(root.storage("7/timestamp_max_daily")));
}

TEST_F(FilesTest, TemporaryModeOnlyForDailyAndHourlyEntries) {
  CJSONRPCConnector connector("7", 0);
  connector.WriteArchive({Value(17, 2, "d", 0), Value(17, 3, "h", 0), Value(17, 4, "a", 0), Value(17, 5, "b", 0)}, 4,
                         true);
  EXPECT_EQ(ListDir(root.storage("7/1/tc_tmp_archives")), (std::vector<std::string>{"A1", "A29"}));
  EXPECT_EQ(ListDir(root.storage("7/1/tc_archives")), (std::vector<std::string>{"A2", "A30"}));
  EXPECT_EQ(ReadFile(root.storage("7/1/tc_tmp_archives/A1")), "3600,192,h\n");
}

TEST_F(FilesTest, BoundAndTimeFiles) {
  CJSONRPCConnector connector("7", 0);
  EXPECT_EQ(connector.ReadMaxTimestamp(4), 0);
  EXPECT_EQ(connector.ReadMaxTimestamp(5), 0);
  EXPECT_FALSE(connector.WriteMaxTimestamp(3, 5));
  EXPECT_EQ(connector.ReadMaxTimestamp(3), 0);
  EXPECT_EQ(ListDir(root.storage("7")), std::vector<std::string>{});
  EXPECT_TRUE(connector.WriteMaxTimestamp(5, 1234567890));
  EXPECT_TRUE(connector.WriteMaxTimestamp(5, 7));
  EXPECT_EQ(ReadFile(root.storage("7/timestamp_max_daily")), "7");
  EXPECT_EQ(connector.ReadMaxTimestamp(5), 7);

  EXPECT_EQ(connector.ReadVKT7Timestamp(), 0);
  EXPECT_EQ(connector.ReadVKT9Timestamp(), 0);
  long before = time(nullptr);
  connector.WriteVKT7Timestamp();
  long after = time(nullptr);
  std::string text = ReadFile(root.tmp("7/timestamp_VKT7"));
  ASSERT_FALSE(text.empty());
  EXPECT_NE(text.back(), '\n');
  EXPECT_EQ(std::to_string(connector.ReadVKT7Timestamp()), text);
  EXPECT_GE(connector.ReadVKT7Timestamp(), before);
  EXPECT_LE(connector.ReadVKT7Timestamp(), after);
  EXPECT_EQ(connector.ReadVKT9Timestamp(), 0);
  connector.WriteVKT9Timestamp();
  EXPECT_GE(connector.ReadVKT9Timestamp(), before);
}

TEST_F(FilesTest, ConnectionState) {
  CJSONRPCConnector connector("7", 0);
  connector.SetConnectionState(true);
  EXPECT_EQ(ReadFile(root.tmp("7/1/tc_items/Connected")), "1\n");
  EXPECT_EQ(LinkTarget(root.tmp("7/default")), root.tmp("7/1"));
  // The file time is the time of writing, not a value time.
  EXPECT_GE(FileTimes(root.tmp("7/1/tc_items/Connected")).modify, time(nullptr) - 60);

  connector.GetItemsDir(1);
  connector.SetConnectionState(false);
  EXPECT_EQ(ReadFile(root.tmp("7/1/tc_items/Connected")), "0\n");
  EXPECT_EQ(ReadFile(root.tmp("7/2/tc_items/Connected")), "0\n");

  // With a default system that is not the first, the first state goes there.
  CJSONRPCConnector second("8", 1);
  second.SetConnectionState(true);
  EXPECT_EQ(ReadFile(root.tmp("8/2/tc_items/Connected")), "1\n");
  EXPECT_EQ(LinkTarget(root.tmp("8/default")), root.tmp("8/2"));
}

TEST_F(FilesTest, ForceUpdateIsConsumedOnce) {
  CJSONRPCConnector connector("7", 0);
  EXPECT_FALSE(connector.CheckForceUpdate());
  mcdtest::WriteFile(root.tmp("qmd_force_update_7"), "");
  mcdtest::WriteFile(root.tmp("qmd_force_update_8"), "");
  EXPECT_TRUE(connector.CheckForceUpdate());
  EXPECT_FALSE(FileExists(root.tmp("qmd_force_update_7")));
  EXPECT_FALSE(connector.CheckForceUpdate());
  EXPECT_TRUE(FileExists(root.tmp("qmd_force_update_8")));
}

TEST_F(FilesTest, ExternalPauseFile) {
  CJSONRPCConnector::CreateExtPauseFile();
  EXPECT_EQ(ReadFile(root.tmp("extds_pause")), "7200");
  CJSONRPCConnector::CreateExtPauseFile();
  EXPECT_EQ(ReadFile(root.tmp("extds_pause")), "7200");
  CJSONRPCConnector::RemoveExtPauseFile();
  EXPECT_FALSE(FileExists(root.tmp("extds_pause")));
  CJSONRPCConnector::RemoveExtPauseFile();
  EXPECT_FALSE(FileExists(root.tmp("extds_pause")));
}

TEST_F(FilesTest, UnusableStorageDirectoryWritesNothingAndGoesOn) {
  // The storage root is a plain file, so nothing below it can be made (even for root).
  mcdtest::WriteFile(root.root() + "/blocked", "");
  setenv("MCD_STORAGE_DIR", (root.root() + "/blocked/storage/").c_str(), 1);
  mcd::paths::Reset();

  CJSONRPCConnector connector("7", 0);
  EXPECT_TRUE(connector.WriteArchive({Value(17, 3, "1", 1000)}, 4, false));
  EXPECT_TRUE(connector.WriteItems({Value(17, 4, "1", 1000), Value(0, 0, "2", 1000)}));
  EXPECT_TRUE(connector.WriteMaxTimestamp(4, 5));
  EXPECT_EQ(connector.ReadMaxTimestamp(4), 0);
  EXPECT_EQ(ReadFile(root.root() + "/blocked"), "");
  // Items live in the volatile tree and are still written.
  EXPECT_EQ(ReadFile(root.tmp("7/1/tc_items/Q1")), "2\n");
}

TEST_F(FilesTest, ReaderNeverSeesAPartialItem) {
  CJSONRPCConnector connector("7", 0);
  const std::string a(4000, 'a'), b(6000, 'b');
  connector.WriteItems({Value(0, 0, a, 1)});
  const std::string path = root.tmp("7/1/tc_items/Q1");

  std::atomic<bool> done{false};
  std::atomic<int> reads{0}, bad{0};
  std::thread reader([&] {
    while (!done.load()) {
      std::string text = ReadFile(path);
      if (text != a + "\n" && text != b + "\n") bad++;
      reads++;
    }
  });
  for (int i = 0; i < 400; ++i) connector.WriteItems({Value(0, 0, i % 2 ? a : b, i)});
  mcdtest::WaitFor([&] { return reads.load() > 50; }, std::chrono::seconds(5));
  done = true;
  reader.join();
  EXPECT_GT(reads.load(), 0);
  EXPECT_EQ(bad.load(), 0);
  EXPECT_EQ(ListDir(root.tmp("7/1/tc_items")), (std::vector<std::string>{"Q1"}));
}

}  // namespace
