#include "support/golden_vectors.h"

#include <gtest/gtest.h>

#include <cctype>
#include <fstream>
#include <sstream>

#include "drivers/base/exceptions.h"
#include "support/test_support.h"

namespace mcdtest {

namespace {

std::string Rest(std::istringstream& in) {
  std::string rest;
  std::getline(in >> std::ws, rest);
  return rest;
}

// "view 77*3" -> "view 77 77 77": out lines may abbreviate runs of a byte.
std::string ExpandRepeats(const std::string& text) {
  std::istringstream in(text);
  std::string word, out;
  while (in >> word) {
    const bool run = word.size() > 3 && word[2] == '*' && isxdigit(word[0]) && isxdigit(word[1]);
    out += (out.empty() ? "" : " ") + (run ? HexText(ParseHex(word)) : word);
  }
  return out;
}

Answer ParseAnswer(const std::string& text) {
  Answer answer;
  if (text == "none") return answer;
  std::istringstream in(text);
  std::string piece;
  while (std::getline(in, piece, '/')) {
    Chunk chunk;
    size_t start = piece.find_first_not_of(' ');
    if (start != std::string::npos && piece[start] == '@') {
      size_t used = 0;
      chunk.delayMs = std::stoi(piece.substr(start + 1), &used);
      start += 1 + used;
    }
    chunk.bytes = ParseHex(start == std::string::npos ? "" : piece.substr(start));
    answer.push_back(chunk);
  }
  return answer;
}

void AddLine(VectorCase& c, const std::string& word, std::istringstream& in) {
  if (word == "do") {
    c.actions.push_back(Rest(in));
  } else if (word == "param") {
    std::string key;
    in >> key;
    c.params[key] = Rest(in);
  } else if (word == "send") {
    std::string text = Rest(in);
    if (text != "any") ParseHex(text);  // fails early on a typing error
    c.sends.push_back(text);
    c.answers.emplace_back();
  } else if (word == "answer") {
    if (c.answers.empty()) throw std::invalid_argument("answer before any send");
    c.answers.back() = ParseAnswer(Rest(in));
  } else if (word == "out") {
    c.out.push_back(ExpandRepeats(Rest(in)));
  } else if (word == "log" || word == "file" || word == "gap" || word == "flushes") {
    c.checks.push_back(word + " " + Rest(in));
  } else {
    throw std::invalid_argument("unknown word " + word);
  }
}

void CheckGap(const ScriptedMeter& meter, std::istringstream& in) {
  std::string what;
  size_t i = 0;
  long lo = 0, hi = 0;
  in >> what >> i >> lo >> hi;
  const bool write = what == "write";
  const auto& starts = write ? meter.WriteTimes() : meter.ReadStarts();
  const auto& ends = write ? meter.WriteTimes() : meter.ReadEnds();
  ASSERT_TRUE(i > 0 && i < starts.size()) << what << " " << i << " of " << starts.size();
  const long ms =
      static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(starts[i] - ends[i - 1]).count());
  EXPECT_GE(ms, lo) << what << " " << i;
  EXPECT_LE(ms, hi) << what << " " << i;
}

void Check(const std::string& check, const ScriptedMeter& meter, const LogCapture& log, const TempRoot& root) {
  std::istringstream in(check);
  std::string word;
  in >> word;
  if (word == "log") {
    size_t n = 0;
    in >> n;
    const std::string text = Rest(in);
    EXPECT_EQ(log.Count(text), n) << "log " << text;
  } else if (word == "file") {
    std::string name;
    in >> name;
    const std::string text = Rest(in);
    bool found = false;
    for (const std::string& line : ReadLines(root.storage(name)))
      found = found || (line.size() >= text.size() && line.compare(line.size() - text.size(), text.size(), text) == 0);
    EXPECT_TRUE(found) << name << " has no line ending in: " << text << "\n" << ReadFile(root.storage(name));
  } else if (word == "gap") {
    CheckGap(meter, in);
  } else if (word == "flushes") {
    int n = 0;
    in >> n;
    EXPECT_EQ(meter.Flushes(), n);
  }
}

void RunCase(const VectorCase& c, const VectorHandler& handler) {
  TempRoot root;
  LogCapture log;
  ScriptedMeter meter(c.answers, c.params);
  std::vector<std::string> out;
  handler(c, meter, out);
  EXPECT_EQ(out, c.out);
  const auto& writes = meter.Writes();
  EXPECT_EQ(writes.size(), c.sends.size()) << "writes";
  for (size_t i = 0; i < writes.size() && i < c.sends.size(); ++i) {
    if (c.sends[i] == "any") continue;
    EXPECT_EQ(HexText(writes[i]), HexText(ParseHex(c.sends[i]))) << "write " << i;
  }
  for (const std::string& check : c.checks) Check(check, meter, log, root);
}

}  // namespace

std::vector<VectorCase> LoadVectors(const std::string& path) {
  std::ifstream file(path);
  if (!file) throw std::runtime_error("cannot read " + path);
  std::vector<VectorCase> cases;
  std::string line;
  for (int number = 1; std::getline(file, line); ++number) {
    std::istringstream in(line);
    std::string word;
    if (!(in >> word) || word[0] == '#') continue;
    try {
      if (word == "case") {
        cases.emplace_back();
        cases.back().name = Rest(in);
        cases.back().line = number;
      } else if (cases.empty()) {
        throw std::invalid_argument("line before the first case");
      } else {
        AddLine(cases.back(), word, in);
      }
    } catch (const std::exception& e) {
      throw std::runtime_error(path + ":" + std::to_string(number) + ": " + e.what());
    }
  }
  return cases;
}

int RunVectors(const std::string& relativePath, const VectorHandler& handler) {
  const std::vector<VectorCase> cases = LoadVectors(SourcePath(relativePath));
  for (const VectorCase& c : cases) {
    SCOPED_TRACE(relativePath + ":" + std::to_string(c.line) + " case " + c.name);
    RunCase(c, handler);
  }
  return static_cast<int>(cases.size());
}

std::string ExceptionName(const std::function<void()>& body) {
  try {
    body();
  } catch (const CDisconnectException&) {
    return "throw CDisconnectException";
  } catch (const CWrongPacketException&) {
    return "throw CWrongPacketException";
  }
  return "";
}

}  // namespace mcdtest
