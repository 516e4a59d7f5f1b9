#include "termios_probe.h"

#include <dlfcn.h>

#include <mutex>

namespace transporttest {
namespace {

std::mutex g_mutex;
TermiosCall g_last;

}  // namespace

TermiosCall LastTcsetattr() {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_last;
}

void ResetTcsetattr() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_last = TermiosCall();
}

}  // namespace transporttest

// Defined in the test program, this takes the place of the C library's function
// for every caller in the process and forwards to it.
extern "C" int tcsetattr(int fd, int action, const struct termios* settings) {
  using Real = int (*)(int, int, const struct termios*);
  static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "tcsetattr"));
  {
    std::lock_guard<std::mutex> lock(transporttest::g_mutex);
    ++transporttest::g_last.calls;
    transporttest::g_last.fd = fd;
    transporttest::g_last.action = action;
    transporttest::g_last.settings = *settings;
  }
  return real ? real(fd, action, settings) : -1;
}
