// The meter's file tree: item files of current values, archive files, bound and
// hold-off time files, the connection item and the flag files.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <vector>

#include "log/logger.h"
#include "server/file_util.h"
#include "server/jsonrpc_connector.h"
#include "server/param_names.h"
#include "server/paths.h"

namespace {

const int kTemporaryKey = 0x80;
const int32_t kConnectedParam = 46;
const int32_t kSystemKind = 7;
const char* const kArchiveSubdirs[] = {"/tc_archives/", "/tc_tmp_archives/"};

// "<time>,<quality>,<value>\n"
std::string ArchiveLine(long long time, int32_t quality, const std::string& value) {
  return std::to_string(time) + "," + std::to_string(quality) + "," + value + "\n";
}

std::string ErrorText(int error) {
  char buf[128];
  // GNU strerror_r: returns the text, which may or may not be in buf.
  return strerror_r(error, buf, sizeof(buf));
}

// Links base + "default" to base + (i + 1). An existing entry is left as it is.
void MakeDefaultLink(const std::string& base, int i) {
  std::string target = base + std::to_string(i + 1);
  std::string link = base + "default";
  symlink(target.c_str(), link.c_str());
}

const char* BoundName(int archiveType) {
  return archiveType == 4 ? mcd::kHourlyBoundFile : archiveType == 5 ? mcd::kDailyBoundFile : nullptr;
}

// What a line's time adds to the record time: an entry of kind 3 is filed at the end of
// its hour, one of kind 2 at the end of its day.
long long LineOffset(int32_t kind) { return kind == 3 ? 3600 : kind == 2 ? 86400 : 0; }

// The archive type whose bound covers the records of a kind: hourly for kinds 3 and 4,
// daily for kinds 2 and 5, none for the others.
int ArchiveTypeOfKind(int32_t kind) {
  return kind == 3 || kind == 4 ? 4 : kind == 2 || kind == 5 ? 5 : 0;
}

// The kind of an archive file by its name, 0 when the name is no archive name.
int32_t KindOfArchiveName(const std::string& name) {
  static const std::map<std::string, int32_t> kinds = [] {
    std::map<std::string, int32_t> map;
    for (const auto& entry : ParamNames) {
      const int32_t kind = static_cast<int32_t>(entry.first >> 16);
      if (ArchiveTypeOfKind(kind) != 0) map.emplace(entry.second, kind);
    }
    return map;
  }();
  auto found = kinds.find(name);
  return found == kinds.end() ? 0 : found->second;
}

std::vector<std::string> DirEntries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (!d) return names;
  while (struct dirent* entry = readdir(d)) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") names.push_back(name);
  }
  closedir(d);
  return names;
}

// The directories of the heat systems under a base: the entries named by a number.
std::vector<std::string> SystemDirs(const std::string& base) {
  std::vector<std::string> dirs;
  for (const std::string& name : DirEntries(base)) {
    if (name.find_first_not_of("0123456789") == std::string::npos) dirs.push_back(base + name);
  }
  return dirs;
}

// Reads the line of fd that ends just before end (end is the offset after its newline,
// or of a file end): its first offset and its text without the newline. False on a read
// error.
bool LineBefore(int fd, off_t end, off_t& begin, std::string& text) {
  text.clear();
  off_t pos = end > 0 ? end - 1 : 0;  // skip the line's own newline
  const off_t lineEnd = pos;
  char buf[512];
  begin = 0;
  while (pos > 0) {
    const off_t from = pos > static_cast<off_t>(sizeof(buf)) ? pos - static_cast<off_t>(sizeof(buf)) : 0;
    const ssize_t n = pread(fd, buf, static_cast<size_t>(pos - from), from);
    if (n != pos - from) return false;
    for (ssize_t i = n - 1; i >= 0; --i) {
      if (buf[i] == '\n') {
        begin = from + i + 1;
        pos = 0;
        break;
      }
    }
    if (pos != 0) pos = from;
  }
  text.resize(static_cast<size_t>(lineEnd - begin));
  return text.empty() || pread(fd, &text[0], text.size(), begin) == static_cast<ssize_t>(text.size());
}

// The time at the head of an archive line; false when it holds none.
bool LineTime(const std::string& line, long long& time) {
  const size_t comma = line.find(',');
  if (comma == 0 || comma == std::string::npos) return false;
  char* end = nullptr;
  errno = 0;
  time = strtoll(line.c_str(), &end, 10);
  return errno == 0 && end == line.c_str() + comma;
}

struct TrimResult {
  bool ok = true;
  long long newest = 0;  // record time of the last line kept, 0 when none
  int cutLines = 0;
  off_t cutBytes = 0;
};

// Cuts a torn last line (one without a newline), then the lines whose record time
// (line time less offset) lies after bound, and syncs the file when it was cut.
TrimResult TrimArchiveFile(const std::string& path, long long offset, long long bound) {
  TrimResult result;
  int fd = open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) {
    result.ok = false;
    return result;
  }
  struct stat st;
  const bool statted = fstat(fd, &st) == 0;
  if (!statted || !S_ISREG(st.st_mode)) {
    result.ok = statted;  // a directory or device under an archive name is left alone
    close(fd);
    return result;
  }
  const off_t size = st.st_size;
  off_t keep = size;
  char last = '\n';
  if (size > 0 && pread(fd, &last, 1, size - 1) != 1) result.ok = false;
  if (result.ok && last != '\n') {
    // the torn line: back to the end of the line before it
    off_t begin = 0;
    std::string text;
    if (LineBefore(fd, size + 1, begin, text)) {
      keep = begin;
      ++result.cutLines;
    } else {
      result.ok = false;
    }
  }
  while (result.ok && keep > 0) {
    off_t begin = 0;
    std::string text;
    long long time = 0;
    if (!LineBefore(fd, keep, begin, text)) {
      result.ok = false;
      break;
    }
    if (!LineTime(text, time)) break;  // not a line of ours: left as it is
    if (time - offset <= bound) {
      result.newest = time - offset;
      break;
    }
    keep = begin;
    ++result.cutLines;
  }
  if (result.ok && keep < size) {
    if (ftruncate(fd, keep) != 0 || fsync(fd) != 0) result.ok = false;
    result.cutBytes = size - keep;
  }
  close(fd);
  return result;
}

// Replaces a file, making its directory first when the write fails for want of it
// (the storage was mounted late, or removed and made again): a directory is made anew
// whenever a write into it fails. False with errno set when it cannot be written.
bool ReplaceInDir(const std::string& dir, const std::string& name, const std::string& text, const time_t* fileTime,
                  bool durable, const std::function<void()>& remade) {
  if (mcd::fs::ReplaceFile(dir + name, text, fileTime, durable)) return true;
  if (!mcd::fs::MakeDirs(dir)) return false;
  if (remade) remade();
  return mcd::fs::ReplaceFile(dir + name, text, fileTime, durable);
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

bool CJSONRPCConnector::WriteItemFile(const std::string& dir, const std::string& name, const std::string& text,
                                      const time_t* fileTime, int sys) {
  const std::string path = dir + name;
  auto found = writtenItems.find(path);
  if (found != writtenItems.end() && found->second.text == text) {
    // The same text as last time: when the file is still the one written then (same
    // file, same size, the time set then), only its times are set, as a rewrite would.
    WrittenItem& item = found->second;
    struct stat st;
    if (stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && st.st_dev == item.device && st.st_ino == item.inode &&
        st.st_size == static_cast<off_t>(text.size()) && st.st_mtime == item.time) {
      struct timeval times[2];
      if (fileTime) {
        times[0].tv_sec = *fileTime;
        times[0].tv_usec = 0;
        times[1] = times[0];
      }
      if (utimes(path.c_str(), fileTime ? times : nullptr) == 0 && (fileTime || stat(path.c_str(), &st) == 0)) {
        item.time = fileTime ? *fileTime : st.st_mtime;
        return true;
      }
    }
    writtenItems.erase(found);
  }
  if (!ReplaceInDir(dir, name, text, fileTime, false,
                    [&] { if (sys == defaultSystem) MakeDefaultLink(volatileDir, sys); })) {
    writtenItems.erase(path);
    return false;
  }
  struct stat st;
  if (stat(path.c_str(), &st) == 0) {
    WrittenItem& item = writtenItems[path];
    item.text = text;
    item.device = st.st_dev;
    item.inode = st.st_ino;
    item.time = st.st_mtime;
  } else {
    writtenItems.erase(path);
  }
  return true;
}

bool CJSONRPCConnector::WriteItems(const ParamValueList& list) {
  bool logged = false;
  auto check = [&logged](bool ok, const std::string& path) {
    if (ok || logged) return;
    logged = true;  // one line per call: a lost volatile tree would flood the log otherwise
    LOG_ERR("CJSONRPCConnector::WriteItems - cannot write %s: %s", path.c_str(), ErrorText(errno).c_str());
  };
  for (const ParamValue& pv : list) {
    const std::string* name = FindParamName(pv.kind, pv.paramId);
    if (!name) continue;
    const time_t fileTime = pv.timestamp;
    if (pv.kind == 4 || pv.kind == 5 || pv.kind == 6) {
      // A current value of an archive kind leaves exactly one line in its archive file.
      const std::string dir = GetArchiveDir(pv.sys, false);
      check(ReplaceInDir(dir, *name, ArchiveLine(pv.timestamp, pv.quality, pv.value), &fileTime, false,
                         [&] { if (pv.sys == defaultSystem) MakeDefaultLink(storageDir, pv.sys); }),
            dir + *name);
    } else if (pv.kind == kSystemKind && !itemDirs.empty() && pv.sys == 0) {
      // System data read once for system 0 is filed under every known system; the file
      // time is set on the last copy only.
      auto last = std::prev(itemDirs.end());
      for (auto it = itemDirs.begin(); it != itemDirs.end(); ++it)
        check(WriteItemFile(it->second, *name, pv.value + "\n", it == last ? &fileTime : nullptr, it->first),
              it->second + *name);
    } else {
      const std::string dir = GetItemsDir(pv.sys);
      check(WriteItemFile(dir, *name, pv.value + "\n", &fileTime, pv.sys), dir + *name);
    }
  }
  return true;
}

namespace {

// The archive files one WriteArchive call appends to, each opened once, with its size
// before the call, so that a call that cannot be completed is taken back whole. The
// lines of a file are gathered and written with one write per file (Write), then made
// durable (Sync).
class ArchiveAppends {
 public:
  ~ArchiveAppends() {
    for (auto& file : m_files) close(file.second.fd);
  }
  // Adds one line for the file; false (errno set) when the file cannot be opened. A
  // directory that is missing is made again first.
  bool Append(const std::string& dir, const std::string& name, const std::string& line,
              const std::function<void()>& remade) {
    const std::string path = dir + name;
    auto found = m_files.find(path);
    if (found == m_files.end()) {
      int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
      if (fd < 0) {
        // A new file, or a directory that is gone (storage mounted late, remounted,
        // removed): the directory is made again and the file created.
        if (!mcd::fs::MakeDirs(dir)) return false;
        if (remade) remade();
        fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        m_newDirs[dir] = true;  // the new entry is made durable with its directory
      }
      if (fd < 0) return false;
      struct stat st;
      off_t size = fstat(fd, &st) == 0 ? st.st_size : 0;
      found = m_files.emplace(path, File{fd, size, std::string()}).first;
    }
    found->second.lines += line;
    return true;
  }
  // Writes the gathered lines of every file; on failure names the file (errno set; a
  // write that stops short means the disk is full).
  bool Write(std::string& failed) {
    for (auto& file : m_files) {
      const std::string& text = file.second.lines;
      size_t done = 0;
      while (done < text.size()) {
        const ssize_t n = write(file.second.fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) {
          if (n == 0) errno = ENOSPC;
          failed = file.first;
          return false;
        }
        done += static_cast<size_t>(n);
      }
    }
    return true;
  }
  // Makes every line appended so far durable; on failure names the file.
  bool Sync(std::string& failed) {
    for (auto& file : m_files) {
      if (fsync(file.second.fd) != 0) {
        failed = file.first;
        return false;
      }
    }
    for (auto& dir : m_newDirs) {
      if (!mcd::fs::SyncDir(dir.first)) {
        failed = dir.first;
        return false;
      }
    }
    return true;
  }
  // Cuts every file back to its size before the call. Works through the open
  // descriptors, so also when the directory has been moved away meanwhile.
  void TakeBack() {
    for (auto& file : m_files)
      if (ftruncate(file.second.fd, file.second.size) != 0 || fsync(file.second.fd) != 0)
        LOG_ERR("CJSONRPCConnector::WriteArchive - cannot take back %s: %s", file.first.c_str(),
                ErrorText(errno).c_str());
  }

 private:
  struct File {
    int fd;
    off_t size;
    std::string lines;  // not yet written
  };
  std::map<std::string, File> m_files;
  std::map<std::string, bool> m_newDirs;
};

}  // namespace

bool CJSONRPCConnector::WriteArchive(const ParamValueList& list, int archiveType, bool temporary) {
  EnsureReconciled();
  const char* boundName = BoundName(archiveType);
  // A bound file exists before the first line of a kind is appended, so that lines
  // found after a crash are always measured against a known bound (0: nothing filed).
  long bound = 0;
  if (boundName && !mcd::fs::ReadNumberStrict(storageDir + boundName, bound)) {
    ReconcileBound(archiveType);
    if (!mcd::fs::ReadNumberStrict(storageDir + boundName, bound)) {
      LOG_ERR("CJSONRPCConnector::WriteArchive - cannot write %s%s: %s", storageDir.c_str(), boundName,
              ErrorText(errno).c_str());
      return false;
    }
  }

  long newest = 0;
  bool complete = true;
  ArchiveAppends files;
  for (const ParamValue& pv : list) {
    const std::string* name = FindParamName(pv.kind, pv.paramId);
    if (!name) continue;
    const bool toTemporary = temporary && (pv.kind == 2 || pv.kind == 3);
    const long long fileTime = pv.timestamp + LineOffset(pv.kind);
    const std::string dir = GetArchiveDir(pv.sys, toTemporary);
    const int sys = pv.sys;
    if (!files.Append(dir, *name, ArchiveLine(fileTime, pv.quality, pv.value),
                      [&] { if (sys == defaultSystem) MakeDefaultLink(storageDir, sys); })) {
      LOG_ERR("CJSONRPCConnector::WriteArchive - cannot write %s: %s", (dir + *name).c_str(), ErrorText(errno).c_str());
      complete = false;
      break;
    }
    if (pv.paramId != 14 && pv.paramId != 15 && pv.timestamp > newest) newest = pv.timestamp;
  }
  std::string failed;
  if (complete && !files.Write(failed)) {
    LOG_ERR("CJSONRPCConnector::WriteArchive - cannot write %s: %s", failed.c_str(), ErrorText(errno).c_str());
    complete = false;
  }
  if (complete && !files.Sync(failed)) {
    LOG_ERR("CJSONRPCConnector::WriteArchive - cannot sync %s: %s", failed.c_str(), ErrorText(errno).c_str());
    complete = false;
  }
  // The lines are durable; raising the bound commits them. When the bound cannot be
  // written, the lines of this call are taken back and the bound stays, so the same
  // records are asked for again and filed once; false tells the caller to stop.
  if (complete && newest != 0 && !WriteMaxTimestamp(archiveType, newest)) {
    const int error = errno;
    // A rename that went through with a directory sync that failed has committed the
    // block all the same: then the lines stay.
    if (ReadMaxTimestamp(archiveType) != newest) {
      LOG_ERR("CJSONRPCConnector::WriteArchive - cannot write %s%s: %s", storageDir.c_str(),
              boundName ? boundName : "(no bound for this type)", ErrorText(error).c_str());
      complete = false;
    }
  }
  if (!complete) files.TakeBack();
  return complete;
}

bool CJSONRPCConnector::WriteMaxTimestamp(int archiveType, long t) {
  const char* name = BoundName(archiveType);
  if (!name) return false;
  return ReplaceInDir(storageDir, name, std::to_string(t), nullptr, true, nullptr);
}

long CJSONRPCConnector::ReadMaxTimestamp(int archiveType) {
  const char* name = BoundName(archiveType);
  if (!name) return 0;
  EnsureReconciled();
  return mcd::fs::ReadNumber(storageDir + name);
}

void CJSONRPCConnector::EnsureReconciled() {
  std::lock_guard<std::mutex> lock(reconcileMutex);
  struct stat st;
  if (stat(storageDir.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) return;  // not there yet: later
  if (reconciled && reconciledDevice == st.st_dev && reconciledInode == st.st_ino) return;
  reconciled = true;
  reconciledDevice = st.st_dev;
  reconciledInode = st.st_ino;
  ReconcileLocked();
}

void CJSONRPCConnector::ReconcileArchives() {
  std::lock_guard<std::mutex> lock(reconcileMutex);
  struct stat st;
  if (stat(storageDir.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
    reconciled = true;
    reconciledDevice = st.st_dev;
    reconciledInode = st.st_ino;
  }
  ReconcileLocked();
}

void CJSONRPCConnector::ReconcileLocked() {
  // Temporary files of a write-and-rename that a dead process left behind.
  std::vector<std::string> dirs = {volatileDir, storageDir};
  for (const std::string& sys : SystemDirs(volatileDir)) dirs.push_back(sys + "/tc_items/");
  for (const std::string& sys : SystemDirs(storageDir))
    for (const char* sub : kArchiveSubdirs) dirs.push_back(sys + sub);
  for (const std::string& dir : dirs) {
    const int removed = mcd::fs::RemoveTemporaryFiles(dir);
    if (removed > 0) LOG_WARNING("CJSONRPCConnector::ReconcileArchives - removed %d stale temporary files in %s",
                                 removed, dir.c_str());
  }
  ReconcileBound(4);
  ReconcileBound(5);
}

// After a kill or a power loss the archive files may hold a torn last line, or the
// lines of a block whose bound was never raised (the bound is written after the lines
// are durable). Both are cut, so the walk asks for those records again and files them
// once. A bound that is missing or unreadable is set from the files: the record time of
// the newest complete line, or 0 when there is none.
void CJSONRPCConnector::ReconcileBound(int archiveType) {
  const char* boundName = BoundName(archiveType);
  long bound = 0;
  const bool known = mcd::fs::ReadNumberStrict(storageDir + boundName, bound);
  long long newest = 0;
  for (const std::string& sys : SystemDirs(storageDir)) {
    for (const char* sub : kArchiveSubdirs) {
      const std::string dir = sys + sub;
      for (const std::string& name : DirEntries(dir)) {
        const int32_t kind = KindOfArchiveName(name);
        if (ArchiveTypeOfKind(kind) != archiveType) continue;
        const TrimResult trim =
            TrimArchiveFile(dir + name, LineOffset(kind), known ? bound : std::numeric_limits<long long>::max());
        if (!trim.ok) {
          LOG_ERR("CJSONRPCConnector::ReconcileArchives - cannot check %s: %s", (dir + name).c_str(),
                  ErrorText(errno).c_str());
          continue;
        }
        if (trim.cutLines > 0)
          LOG_WARNING("CJSONRPCConnector::ReconcileArchives - cut %d unfinished lines (%ld bytes) from %s",
                      trim.cutLines, static_cast<long>(trim.cutBytes), (dir + name).c_str());
        newest = std::max(newest, trim.newest);
      }
    }
  }
  if (known) return;
  if (newest == 0) {
    // Nothing filed yet: the bound starts at 0, so that lines found after a crash are
    // always measured against a known bound.
    if (!ReplaceInDir(storageDir, boundName, "0", nullptr, true, nullptr))
      LOG_ERR("CJSONRPCConnector::ReconcileArchives - cannot write %s%s: %s", storageDir.c_str(), boundName,
              ErrorText(errno).c_str());
    return;
  }
  LOG_WARNING("CJSONRPCConnector::ReconcileArchives - %s%s missing or unreadable, set to %lld", storageDir.c_str(),
              boundName, newest);
  if (!WriteMaxTimestamp(archiveType, static_cast<long>(newest)))
    LOG_ERR("CJSONRPCConnector::ReconcileArchives - cannot write %s%s: %s", storageDir.c_str(), boundName,
            ErrorText(errno).c_str());
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
  if (itemDirs.empty()) GetItemsDir(defaultSystem);
  for (const auto& entry : itemDirs) {
    if (!WriteItemFile(entry.second, *name, text, nullptr, entry.first))
      LOG_ERR("CJSONRPCConnector::SetConnectionState - cannot write %s: %s", (entry.second + *name).c_str(),
              ErrorText(errno).c_str());
  }
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
