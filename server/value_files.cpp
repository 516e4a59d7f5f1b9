// The meter's file tree: item files of current values, archive files, bound and
// hold-off time files, the connection item and the flag files.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ctime>
#include <iterator>
#include <map>

#include "log/logger.h"
#include "server/file_util.h"
#include "server/jsonrpc_connector.h"
#include "server/param_names.h"
#include "server/paths.h"

namespace {

const int kTemporaryKey = 0x80;
const int32_t kConnectedParam = 46;
const int32_t kSystemKind = 7;

// "<time>,<quality>,<value>\n"
std::string ArchiveLine(long long time, int32_t quality, const std::string& value) {
  return std::to_string(time) + "," + std::to_string(quality) + "," + value + "\n";
}

// Links base + "default" to base + (i + 1). An existing entry is left as it is.
void MakeDefaultLink(const std::string& base, int i) {
  std::string target = base + std::to_string(i + 1);
  std::string link = base + "default";
  symlink(target.c_str(), link.c_str());
}

}  // namespace

std::string CJSONRPCConnector::GetItemsDir(int i) {
  auto it = itemDirs.find(i);
  if (it != itemDirs.end()) return it->second;
  std::string dir = volatileDir + std::to_string(i + 1) + "/tc_items/";
  itemDirs[i] = dir;
  mcd::fs::MakeDirs(dir);
  if (i == defaultSystem) MakeDefaultLink(volatileDir, i);
  return dir;
}

std::string CJSONRPCConnector::GetArchiveDir(int i, bool temporary) {
  // System 128 and the temporary variant of system 0 share a key; real meters have a
  // handful of systems.
  int key = temporary ? i + kTemporaryKey : i;
  auto it = archiveDirs.find(key);
  if (it != archiveDirs.end()) return it->second;
  std::string dir = storageDir + std::to_string(i + 1) + (temporary ? "/tc_tmp_archives/" : "/tc_archives/");
  archiveDirs[key] = dir;
  mcd::fs::MakeDirs(dir);
  if (i == defaultSystem) MakeDefaultLink(storageDir, i);
  return dir;
}

bool CJSONRPCConnector::WriteItems(const ParamValueList& list) {
  for (const ParamValue& pv : list) {
    const std::string* name = FindParamName(pv.kind, pv.paramId);
    if (!name) continue;
    const time_t fileTime = pv.timestamp;
    if (pv.kind == 4 || pv.kind == 5 || pv.kind == 6) {
      // A current value of an archive kind leaves exactly one line in its archive file.
      mcd::fs::ReplaceFile(GetArchiveDir(pv.sys, false) + *name, ArchiveLine(pv.timestamp, pv.quality, pv.value),
                           &fileTime);
    } else if (pv.kind == kSystemKind && !itemDirs.empty() && pv.sys == 0) {
      // System data read once for system 0 is filed under every known system; the file
      // time is set on the last copy only.
      auto last = std::prev(itemDirs.end());
      for (auto it = itemDirs.begin(); it != itemDirs.end(); ++it)
        mcd::fs::ReplaceFile(it->second + *name, pv.value + "\n", it == last ? &fileTime : nullptr);
    } else {
      mcd::fs::ReplaceFile(GetItemsDir(pv.sys) + *name, pv.value + "\n", &fileTime);
    }
  }
  return true;
}

namespace {

// The archive files one WriteArchive call appends to, each opened once, with its size
// before the call, so that a call that cannot be completed is taken back whole.
class ArchiveAppends {
 public:
  ~ArchiveAppends() {
    for (auto& file : m_files) close(file.second.fd);
  }
  // Appends one line with a single write; false when the file cannot be opened or written.
  bool Append(const std::string& path, const std::string& line) {
    auto found = m_files.find(path);
    if (found == m_files.end()) {
      int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
      if (fd < 0) return false;
      struct stat st;
      off_t size = fstat(fd, &st) == 0 ? st.st_size : 0;
      found = m_files.emplace(path, File{fd, size}).first;
    }
    return write(found->second.fd, line.data(), line.size()) == static_cast<ssize_t>(line.size());
  }
  // Cuts every file back to its size before the call. Works through the open
  // descriptors, so also when the directory has been moved away meanwhile.
  void TakeBack() {
    for (auto& file : m_files)
      if (ftruncate(file.second.fd, file.second.size) != 0)
        LOG_ERR("CJSONRPCConnector::WriteArchive - cannot take back %s", file.first.c_str());
  }

 private:
  struct File {
    int fd;
    off_t size;
  };
  std::map<std::string, File> m_files;
};

}  // namespace

bool CJSONRPCConnector::WriteArchive(const ParamValueList& list, int archiveType, bool temporary) {
  long newest = 0;
  bool complete = true;
  ArchiveAppends files;
  for (const ParamValue& pv : list) {
    const std::string* name = FindParamName(pv.kind, pv.paramId);
    if (!name) continue;
    const bool toTemporary = temporary && (pv.kind == 2 || pv.kind == 3);
    long long fileTime = pv.timestamp;
    if (pv.kind == 3)
      fileTime += 3600;  // an hourly entry is filed at the end of its hour
    else if (pv.kind == 2)
      fileTime += 86400;  // a daily entry at the end of its day
    const std::string path = GetArchiveDir(pv.sys, toTemporary) + *name;
    if (!files.Append(path, ArchiveLine(fileTime, pv.quality, pv.value))) {
      if (complete) LOG_ERR("CJSONRPCConnector::WriteArchive - cannot write %s", path.c_str());
      complete = false;
    }
    if (pv.paramId != 14 && pv.paramId != 15 && pv.timestamp > newest) newest = pv.timestamp;
  }
  // The lines and the raised bound go together: when either cannot be written, the
  // lines of this call are taken back and the bound stays, so the same records are
  // asked for again and filed once; false tells the caller to stop filing newer ones.
  if (complete && newest != 0 &&
      !(WriteMaxTimestamp(archiveType, newest) && ReadMaxTimestamp(archiveType) == newest)) {
    LOG_ERR("CJSONRPCConnector::WriteArchive - cannot write the bound of type %d", archiveType);
    complete = false;
  }
  if (!complete) files.TakeBack();
  return complete;
}

bool CJSONRPCConnector::WriteMaxTimestamp(int archiveType, long t) {
  const char* name = archiveType == 4 ? mcd::kHourlyBoundFile : archiveType == 5 ? mcd::kDailyBoundFile : nullptr;
  if (!name) return false;
  mcd::fs::ReplaceFile(storageDir + name, std::to_string(t));
  return true;
}

long CJSONRPCConnector::ReadMaxTimestamp(int archiveType) {
  const char* name = archiveType == 4 ? mcd::kHourlyBoundFile : archiveType == 5 ? mcd::kDailyBoundFile : nullptr;
  if (!name) return 0;
  return mcd::fs::ReadNumber(storageDir + name);
}

void CJSONRPCConnector::WriteVKT7Timestamp() {
  mcd::fs::ReplaceFile(volatileDir + mcd::kVKT7TimeFile, std::to_string(static_cast<long>(time(nullptr))));
}

void CJSONRPCConnector::WriteVKT9Timestamp() {
  mcd::fs::ReplaceFile(volatileDir + mcd::kVKT9TimeFile, std::to_string(static_cast<long>(time(nullptr))));
}

long CJSONRPCConnector::ReadVKT7Timestamp() { return mcd::fs::ReadNumber(volatileDir + mcd::kVKT7TimeFile); }

long CJSONRPCConnector::ReadVKT9Timestamp() { return mcd::fs::ReadNumber(volatileDir + mcd::kVKT9TimeFile); }

void CJSONRPCConnector::SetConnectionState(bool connected) {
  const std::string* name = FindParamName(kSystemKind, kConnectedParam);
  if (!name) return;
  const std::string text = connected ? "1\n" : "0\n";
  if (itemDirs.empty()) {
    mcd::fs::ReplaceFile(GetItemsDir(defaultSystem) + *name, text);
    return;
  }
  for (const auto& entry : itemDirs) mcd::fs::ReplaceFile(entry.second + *name, text);
}

bool CJSONRPCConnector::CheckForceUpdate() {
  int fd = open(forceUpdateFile.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  close(fd);
  unlink(forceUpdateFile.c_str());
  return true;
}

void CJSONRPCConnector::CreateExtPauseFile() { mcd::fs::ReplaceFile(mcd::paths::Tmp(mcd::kExtPauseFile), "7200"); }

void CJSONRPCConnector::RemoveExtPauseFile() { unlink(mcd::paths::Tmp(mcd::kExtPauseFile).c_str()); }
