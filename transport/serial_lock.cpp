#include "transport/serial_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

namespace mcd {

namespace {

std::string ProcessName(long pid) {
  std::ifstream comm("/proc/" + std::to_string(pid) + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

}  // namespace

std::string LineHolder(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return "an unknown process";
  // Lines read "1: FLOCK  ADVISORY  WRITE 1234 00:05:17 0 EOF": kind, mode, access, pid,
  // then the file as hexadecimal major:minor of its file system and the inode number.
  // Waiters carry "->" after the number and hold nothing.
  std::ifstream locks("/proc/locks");
  std::string line;
  while (std::getline(locks, line)) {
    std::istringstream fields(line);
    std::string number, kind, mode, access, file;
    long pid = 0;
    if (!(fields >> number >> kind) || kind == "->") continue;
    if (!(fields >> mode >> access >> pid >> file)) continue;
    unsigned major = 0, minor = 0;
    unsigned long long inode = 0;
    if (sscanf(file.c_str(), "%x:%x:%llu", &major, &minor, &inode) != 3) continue;
    if (inode != static_cast<unsigned long long>(st.st_ino) || major != major(st.st_dev) ||
        minor != minor(st.st_dev))
      continue;
    if (pid == getpid()) continue;
    std::string name = ProcessName(pid);
    return "pid " + std::to_string(pid) + (name.empty() ? "" : " (" + name + ")");
  }
  return "an unknown process";
}

LineLock LockSerialLine(int fd, const std::string& path, std::string& holder) {
  if (flock(fd, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK) {
    holder = LineHolder(path);
    return LineLock::kBusy;
  }
  // Not a terminal (a test's plain file): the lock alone guards it.
  ioctl(fd, TIOCEXCL);
  return LineLock::kLocked;
}

void UnlockSerialLine(int fd) {
  if (fd >= 0) ioctl(fd, TIOCNXCL);
}

int OpenSerialExclusive(const std::string& path, bool& busy, std::string& holder) {
  busy = false;
  int fd = ::open(path.c_str(), O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (fd < 0) {
    if (errno == EBUSY) {
      // TIOCEXCL of another process.
      const int error = errno;
      busy = true;
      holder = LineHolder(path);
      errno = error;
    }
    return -1;
  }
  if (LockSerialLine(fd, path, holder) == LineLock::kBusy) {
    ::close(fd);
    busy = true;
    errno = EBUSY;
    return -1;
  }
  return fd;
}

}  // namespace mcd
