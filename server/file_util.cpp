#include "server/file_util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <dirent.h>

#include <atomic>
#include <cctype>
#include <cstdlib>

namespace mcd {
namespace fs {
namespace {

std::atomic<unsigned> g_tempCounter{0};

bool IsDir(const std::string& path) {
  struct stat st;
  return stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool WriteAll(int fd, const std::string& text) {
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += n;
    left -= static_cast<size_t>(n);
  }
  return true;
}

// The directory part of path with its trailing slash, "./" when there is none.
std::string DirOf(const std::string& path) {
  size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string("./") : path.substr(0, slash + 1);
}

// Makes one directory; syncs its parent when it was made here.
bool MakeOne(const std::string& dir) {
  if (mkdir(dir.c_str(), 0777) == 0) {
    std::string trimmed = dir;
    while (trimmed.size() > 1 && trimmed.back() == '/') trimmed.pop_back();
    SyncDir(DirOf(trimmed));
    return true;
  }
  return errno == EEXIST;
}

}  // namespace

bool MakeDirs(const std::string& path) {
  if (path.empty()) return false;
  for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
    if (!MakeOne(path.substr(0, pos))) return false;
  }
  if (path.back() != '/' && !MakeOne(path)) return false;
  if (IsDir(path)) return true;
  errno = ENOTDIR;
  return false;
}

bool SyncDir(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return false;
  bool ok = fsync(fd) == 0;
  int saved = errno;
  close(fd);
  errno = saved;
  return ok;
}

bool IsTemporaryName(const std::string& name) {
  // ".<base>.tmp<digits>.<digits>"
  if (name.size() < 8 || name[0] != '.') return false;
  size_t dot = name.rfind('.');
  if (dot == std::string::npos || dot + 1 == name.size()) return false;
  for (size_t i = dot + 1; i < name.size(); ++i)
    if (!isdigit(static_cast<unsigned char>(name[i]))) return false;
  size_t tmp = name.rfind(".tmp", dot);
  if (tmp == std::string::npos || tmp == 0 || tmp + 4 == dot) return false;
  for (size_t i = tmp + 4; i < dot; ++i)
    if (!isdigit(static_cast<unsigned char>(name[i]))) return false;
  return true;
}

int RemoveTemporaryFiles(const std::string& dir) {
  DIR* d = opendir(dir.c_str());
  if (!d) return 0;
  int removed = 0;
  std::string base = dir;
  if (!base.empty() && base.back() != '/') base += '/';
  while (struct dirent* entry = readdir(d)) {
    const std::string name = entry->d_name;
    // A name with this process's id belongs to a replacement under way in another thread.
    if (!IsTemporaryName(name) || name.find(".tmp" + std::to_string(getpid()) + ".") != std::string::npos) continue;
    if (unlink((base + name).c_str()) == 0) ++removed;
  }
  closedir(d);
  return removed;
}

bool ReplaceFile(const std::string& path, const std::string& text, const time_t* fileTime, bool durable) {
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temp = dir + "." + base + ".tmp" + std::to_string(getpid()) + "." +
                     std::to_string(g_tempCounter.fetch_add(1));

  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, text);
  if (ok && durable && fsync(fd) != 0) ok = false;
  int saved = errno;
  if (close(fd) != 0 && ok) {
    ok = false;
    saved = errno;
  }
  if (ok && fileTime) {
    struct timeval times[2];
    times[0].tv_sec = *fileTime;
    times[0].tv_usec = 0;
    times[1] = times[0];
    utimes(temp.c_str(), times);  // a failure leaves the write time, as the data is good
  }
  if (ok && rename(temp.c_str(), path.c_str()) != 0) {
    ok = false;
    saved = errno;
  }
  if (!ok) {
    unlink(temp.c_str());
    errno = saved;
    return false;
  }
  if (durable && !SyncDir(dir.empty() ? std::string("./") : dir)) return false;
  return true;
}

bool AppendToFile(const std::string& path, const std::string& text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = true;
  // One write keeps a line whole for other writers and readers; a short write can
  // only happen when the disk is full, and then the rest is written after it.
  ssize_t n;
  do {
    n = write(fd, text.data(), text.size());
  } while (n < 0 && errno == EINTR);
  if (n < 0)
    ok = false;
  else if (static_cast<size_t>(n) < text.size())
    ok = WriteAll(fd, text.substr(static_cast<size_t>(n)));
  if (close(fd) != 0) ok = false;
  return ok;
}

long ReadNumber(const std::string& path) {
  long value = 0;
  return ReadNumberStrict(path, value) ? value : 0;
}

bool ReadNumberStrict(const std::string& path, long& value) {
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[64];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof(buf) - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return false;
  buf[n] = '\0';
  char* end = nullptr;
  errno = 0;
  const long parsed = strtol(buf, &end, 10);
  if (end == buf || errno != 0) return false;
  value = parsed;
  return true;
}

}  // namespace fs
}  // namespace mcd
