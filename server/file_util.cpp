#include "server/file_util.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
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

}  // namespace

bool MakeDirs(const std::string& path) {
  if (path.empty()) return false;
  for (size_t pos = path.find('/', 1); pos != std::string::npos; pos = path.find('/', pos + 1)) {
    std::string part = path.substr(0, pos);
    if (mkdir(part.c_str(), 0777) != 0 && errno != EEXIST) return false;
  }
  if (path.back() != '/' && mkdir(path.c_str(), 0777) != 0 && errno != EEXIST) return false;
  return IsDir(path);
}

bool ReplaceFile(const std::string& path, const std::string& text, const time_t* fileTime) {
  size_t slash = path.rfind('/');
  std::string dir = slash == std::string::npos ? std::string() : path.substr(0, slash + 1);
  std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  std::string temp = dir + "." + base + ".tmp" + std::to_string(getpid()) + "." +
                     std::to_string(g_tempCounter.fetch_add(1));

  int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (fd < 0) return false;
  bool ok = WriteAll(fd, text);
  if (close(fd) != 0) ok = false;
  if (ok && fileTime) {
    struct timeval times[2];
    times[0].tv_sec = *fileTime;
    times[0].tv_usec = 0;
    times[1] = times[0];
    utimes(temp.c_str(), times);  // a failure leaves the write time, as the data is good
  }
  if (ok && rename(temp.c_str(), path.c_str()) != 0) ok = false;
  if (!ok) unlink(temp.c_str());
  return ok;
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
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return 0;
  char buf[64];
  ssize_t n;
  do {
    n = read(fd, buf, sizeof(buf) - 1);
  } while (n < 0 && errno == EINTR);
  close(fd);
  if (n <= 0) return 0;
  buf[n] = '\0';
  return strtol(buf, nullptr, 10);
}

}  // namespace fs
}  // namespace mcd
