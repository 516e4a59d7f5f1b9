#include "drivers/base/diag_files.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <fstream>

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

void AppendFrameDump(const std::string& path, const std::string& label, const unsigned char* bytes, size_t count) {
  if (FILE* f = fopen(path.c_str(), "a")) {
    fprintf(f, "%s\n", label.c_str());
    for (size_t i = 0; i < count; ++i) fprintf(f, "0x%02X ", bytes[i]);
    fprintf(f, "\n\n");
    fclose(f);
  }
  RemoveIfLarger(path, kDiagFileLimit);
}

void AppendDebugLine(const std::string& path, const std::string& text) {
  {
    std::ofstream out(path, std::ios::app);
    out << RawLocalTime(time(nullptr)) << text << std::endl;
  }
  RemoveIfLarger(path, kDiagFileLimit);
}

}  // namespace mcd
