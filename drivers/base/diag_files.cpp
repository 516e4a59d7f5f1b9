#include "drivers/base/diag_files.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace mcd {

std::string RawLocalTime(time_t t) {
  struct tm tmv;
  localtime_r(&t, &tmv);
  char text[64];
  snprintf(text, sizeof text, "%d-%d-%d %d:%d:%d", tmv.tm_year, tmv.tm_mon, tmv.tm_mday, tmv.tm_hour, tmv.tm_min,
           tmv.tm_sec);
  return text;
}

void RemoveIfLarger(const std::string& path, long limit) {
  struct stat st;
  if (stat(path.c_str(), &st) == 0 && st.st_size > limit) unlink(path.c_str());
}

namespace {

// Appends the whole text with one write call, so that a dump or a line reaches the
// file in one piece (a reader never sees half of it, and the storage gets one write
// instead of one per byte). A file that cannot be opened is passed over.
void AppendBlock(const std::string& path, const std::string& text) {
  int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
  if (fd < 0) return;
  const char* p = text.data();
  size_t left = text.size();
  while (left > 0) {
    ssize_t n = write(fd, p, left);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    p += n;
    left -= static_cast<size_t>(n);
  }
  close(fd);
}

}  // namespace

void AppendFrameDump(const std::string& path, const std::string& label, const unsigned char* bytes, size_t count) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string text;
  text.reserve(label.size() + count * 5 + 3);
  text += label;
  text += '\n';
  for (size_t i = 0; i < count; ++i) {
    const char item[5] = {'0', 'x', kHex[bytes[i] >> 4], kHex[bytes[i] & 0x0F], ' '};
    text.append(item, sizeof item);
  }
  text += "\n\n";
  AppendBlock(path, text);
  RemoveIfLarger(path, kDiagFileLimit);
}

void AppendDebugLine(const std::string& path, const std::string& text) {
  AppendBlock(path, RawLocalTime(time(nullptr)) + text + '\n');
  RemoveIfLarger(path, kDiagFileLimit);
}

}  // namespace mcd
