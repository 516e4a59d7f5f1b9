// The one runner of the protocol golden vectors.
//
// A vector file holds cases; blank lines and lines starting with # are skipped.
//   case <name>                 starts a case (a fresh storage root, meter and log)
//   do <text>                   an action for the family's handler, in order
//   param <key> <value>         a port parameter of the meter's line (e.g. speed 2400)
//   send <hex> | send any       the next write the link must make (bytes not checked
//                               with "any"); every send starts one exchange
//   answer <hex> [/ <hex> ...]  the meter's answer to the last send, in chunks; a
//                               chunk "@<ms> <hex>" comes that late; "answer none" or
//                               no answer line: the meter stays silent
//   out <text>                  the next line the handler must report ("AB*3" in it
//                               stands for "AB AB AB")
//   log <n> <text>              the test log holds text exactly n times
//   file <name> <text>          the storage file <name> has a line ending in text
//   gap write|read <i> <min_ms> <max_ms>
//                               time from the end of write / read i-1 to the start
//                               of write / read i (counted from 0)
//   flushes <n>                 the link flushed the line n times
// Hex is upper- or lower-case pairs separated by blanks, "AB*3" repeats a byte;
// checksums are written out, never computed. Writes after the last send fail the case.
// The handler reads the case's actions, drives the link or driver on the meter and
// reports its results as out lines (see ExceptionName for failures).
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "support/scripted_meter.h"

namespace mcdtest {

struct VectorCase {
  std::string name;
  int line = 0;  // of the case line
  std::vector<std::string> actions;
  std::map<std::string, std::string> params;
  std::vector<std::string> sends;  // hex, or "any"
  std::vector<Answer> answers;
  std::vector<std::string> out;
  std::vector<std::string> checks;  // log, file, gap and flushes lines, as written
};

std::vector<VectorCase> LoadVectors(const std::string& path);

using VectorHandler = std::function<void(const VectorCase& vector, ScriptedMeter& meter, std::vector<std::string>& out)>;

// Runs every case of the file (a path under the source tree) through handler and
// reports every difference as a test failure naming the file, line and case.
// Returns the number of cases run.
int RunVectors(const std::string& relativePath, const VectorHandler& handler);

// "throw CDisconnectException" / "throw CWrongPacketException" for what body throws,
// else "".
std::string ExceptionName(const std::function<void()>& body);

}  // namespace mcdtest
