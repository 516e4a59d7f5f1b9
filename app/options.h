// Command-line options of mcd_main.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace mcd {

// Longest meter identifier accepted on the command line.
constexpr size_t kMaxIdLength = 64;

struct Options {
  bool daemon = false;
  bool toStderr = false;
  int level = 6;
  int maxLogSize = 0;  // bytes; 0 = unlimited
  std::string logName;  // empty: syslog
  std::vector<std::string> ids;  // meter identifiers in command-line order
};

// What parsing decided. When exit is set the process ends with status after writing
// out to standard output and err to standard error; otherwise options are in force.
struct ParseResult {
  bool exit = false;
  int status = 0;
  std::string out;
  std::string err;
  Options options;
};

// Parses argv with getopt_long ("rhv:del:i:s:"). Options act in the order given:
// -r and -h end parsing at once, a bad -l, -v or -s ends it where it is met, and an
// option getopt_long rejects is passed over (getopt_long prints its own message).
// An -i identifier other than 1 to kMaxIdLength letters, digits, '-' or '_' is refused
// like a bad -v. Missing -i is checked after the last option. Restarts getopt's scan on every call.
ParseResult ParseOptions(int argc, char** argv);

// The help text, one line each, headed by "Usage: <program> [options]".
std::string UsageText(const char* program);

// Reads text as a decimal int that fills the whole argument (strtol rules for leading
// blanks and sign). False for empty text, trailing characters or a value beyond int.
bool ParseWholeInt(const char* text, int& value);

}  // namespace mcd
