// Records what the code under test hands to tcsetattr. A pseudo-terminal forces
// 8 data bits and no parity whatever it is told, so character size and parity
// are checked on the settings as passed, the rest also as read back.
#pragma once

#include <termios.h>

namespace transporttest {

struct TermiosCall {
  int calls = 0;  // tcsetattr calls since the last Reset
  int fd = -1;
  int action = -1;
  termios settings{};
};

TermiosCall LastTcsetattr();
void ResetTcsetattr();

}  // namespace transporttest
