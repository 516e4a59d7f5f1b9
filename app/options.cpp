#include "app/options.h"

#include <getopt.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>

namespace mcd {

namespace {

const char kErrorLogName[] = "\nmain: Error logs file name!\n";
const char kErrorLevel[] = "\nmain: Unacceptable logs level!\n";
const char kErrorLogSize[] = "\nmain: Unacceptable max logfile size!\n";
const char kErrorNoId[] = "\nmain: Do not set any ID of HeatMeter!\n";
const char kErrorIdFormat[] =
    "\nmain: Unacceptable ID of HeatMeter \"%s\": letters, digits, '-' and '_' only, 1 to 64 characters!\n";

const struct option kLongOptions[] = {
    {"release", no_argument, nullptr, 'r'},   {"help", no_argument, nullptr, 'h'},
    {"verbose", required_argument, nullptr, 'v'}, {"daemon", no_argument, nullptr, 'd'},
    {"stderr", no_argument, nullptr, 'e'},    {"logname", required_argument, nullptr, 'l'},
    {"id", required_argument, nullptr, 'i'},  {"logsize", required_argument, nullptr, 's'},
    {nullptr, 0, nullptr, 0}};

// A command-line error: its text and a newline on standard error, optionally the usage
// text on standard output, status 1.
ParseResult Fail(const char* text, bool withUsage, const char* program) {
  ParseResult result;
  result.exit = true;
  result.status = 1;
  result.err = std::string(text) + "\n";
  if (withUsage) result.out = UsageText(program);
  return result;
}

// The identifier names the meter's directories under the item and storage roots and
// the force-update flag file, so it must be one plain path component.
bool ValidId(const std::string& id) {
  if (id.empty() || id.size() > kMaxIdLength) return false;
  for (char c : id) {
    const bool ok = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    if (!ok) return false;
  }
  return true;
}

}  // namespace

std::string UsageText(const char* program) {
  std::string text = "Usage: ";
  text += program ? program : "";
  text += " [options]\n";
  text +=
      "    -r  --release               Version of the program.\n"
      "    -h  --help                  Display this usage.\n"
      "    -d  --daemon                Daemon mode.\n"
      "    -v  --verbose <level>       Verbose logs level.\n"
      "        logs levels:\n"
      "             0 (TL_EMERG)   system is unusable;\n"
      "             1 (TL_ALERT)   action must be taken immediately;\n"
      "             2 (TL_CRIT)    critical conditions;\n"
      "             3 (TL_ERR)     error conditions;\n"
      "             4 (TL_WARNING) warning conditions;\n"
      "             5 (TL_NOTICE)  normal, but significant, condition;\n"
      "             6 (TL_INFO)    informational message (default);\n"
      "             7 (TL_DEBUG)   debug-level message.\n"
      "    -e  --stderr                Redirect the log messages to stderr.\n"
      "    -i  --id                    ID of HeatMeter.\n"
      "    -l  --logname               Full name (with the path) to the log file. Does not make sense if there \"-e\".\n"
      "    -s  --logsize               Max size of log file (in bytes). After reach log file erase. 0 - unlimit\n";
  return text;
}

bool ParseWholeInt(const char* text, int& value) {
  if (!text || !*text) return false;
  char* end = nullptr;
  errno = 0;
  long parsed = strtol(text, &end, 10);
  if (end == text || *end != '\0') return false;
  if (errno == ERANGE || parsed < INT_MIN || parsed > INT_MAX) return false;
  value = static_cast<int>(parsed);
  return true;
}

ParseResult ParseOptions(int argc, char** argv) {
  ParseResult result;
  Options& options = result.options;
  const char* program = argc > 0 ? argv[0] : "";
  optind = 0;  // full restart of getopt's scan, so the parser can run more than once
  int c;
  while ((c = getopt_long(argc, argv, "rhv:del:i:s:", kLongOptions, nullptr)) != -1) {
    switch (c) {
      case 'r':
        result.exit = true;
        result.status = 0;
        result.out = std::string(MCD_VERSION_TEXT) + "\n";
        return result;
      case 'h':
        result.exit = true;
        result.status = 0;
        result.out = UsageText(program);
        return result;
      case 'd':
        options.daemon = true;
        break;
      case 'e':
        options.toStderr = true;
        break;
      case 'v': {
        int level = 0;
        if (!ParseWholeInt(optarg, level) || level < 0 || level > 7) return Fail(kErrorLevel, true, program);
        options.level = level;
        break;
      }
      case 'l':
        if (!optarg || !*optarg) return Fail(kErrorLogName, true, program);
        options.logName = optarg;
        break;
      case 'i': {
        const std::string id = optarg ? optarg : "";
        if (!ValidId(id)) {
          // Shown cut and with control characters replaced, whatever was given.
          std::string shown = id.substr(0, kMaxIdLength + 8);
          for (char& c : shown)
            if (static_cast<unsigned char>(c) < 0x20 || c == 0x7f) c = '?';
          if (shown.size() < id.size()) shown += "...";
          char text[256];
          snprintf(text, sizeof text, kErrorIdFormat, shown.c_str());
          ParseResult failed = Fail(text, true, program);
          return failed;
        }
        options.ids.push_back(id);
        break;
      }
      case 's': {
        int size = 0;
        if (!ParseWholeInt(optarg, size)) return Fail(kErrorLogSize, true, program);
        options.maxLogSize = size;
        break;
      }
      default:
        // rejected by getopt_long, which has printed its own message
        break;
    }
  }
  if (options.ids.empty()) return Fail(kErrorNoId, false, program);
  return result;
}

}  // namespace mcd
