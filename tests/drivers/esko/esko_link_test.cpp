#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "drivers/base/exceptions.h"
#include "drivers/esko/esko_link.h"
#include "esko_test_util.h"
#include "support/test_support.h"
#include "transport/connector.h"

using eskotest::Bytes;
using eskotest::Framed;
using eskotest::LogMark;
using eskotest::ScriptedConnector;
using namespace std::chrono_literals;

namespace {

const unsigned char kReadSerial[13] = {0, 0, 'R', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const unsigned char kQuery[13] = {0, 0, 'Q', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};

Bytes Reply(unsigned char addr, unsigned char cmd) {
  Bytes b = {0, addr, cmd, 0, 0, '2', '0', '1', '6', '0', '0', '0', '7'};
  return Framed(b);
}

// The plain serial connector opened on a device without its lamp threads.
struct PlainConnector : CConnector {
  explicit PlainConnector(const std::string& device) {
    name = device;
    params = {{"name", device}, {"speed", "9600"}};
    open_device();
  }
};

// A serial connector on the slave side of a pty; the test plays the meter on the master.
struct PtyLine {
  eskotest::Bytes dummy;
  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  CConnector* connector = nullptr;
  PtyLine() {
    eskotest::LogPath();
    connector = new PlainConnector(pty.slaveName());
  }
  ~PtyLine() { delete connector; }
  // Reads one 14-byte request and answers it with the given pieces, pausing before each.
  std::thread Answer(std::vector<Bytes> pieces, std::chrono::milliseconds gap = 0ms, Bytes* request = nullptr) {
    return std::thread([this, pieces, gap, request] {
      Bytes got = pty.Read(14, 3000ms);
      if (request) *request = got;
      for (size_t i = 0; i < pieces.size(); ++i) {
        std::this_thread::sleep_for(gap);
        pty.Write(pieces[i]);
      }
    });
  }
};

TEST(EskoLink, FrameOnTheWireAndAcceptedAnswer) {
  PtyLine line;
  CMTR06LowLevelConnector link(line.connector, true);
  link.SetNetAddress(7);
  Bytes request;
  // The answer carries another accepted command letter than the request: accepted.
  std::thread meter = line.Answer({Reply(7, 0x80 | 'G')}, 0ms, &request);
  ReplyView v = link.SendString(kReadSerial, 13, "GetSerialNumber", false);
  meter.join();
  // the link writes the net address over byte 1 and appends the sum 07 + 52 = 59
  EXPECT_EQ(request, (Bytes{0x00, 0x07, 0x52, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x59}));
  ASSERT_FALSE(v.empty());
  EXPECT_EQ(v.length, 13);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(v.data + 5), 8), "20160007");
  EXPECT_EQ(link.LastError(), 0);
}

TEST(EskoLink, AnswerInThreePiecesIsCompleted) {
  PtyLine line;
  CMTR06LowLevelConnector link(line.connector, true);
  Bytes full = Reply(0, 0x80 | 'R');
  LogMark log;
  std::thread meter = line.Answer({Bytes(full.begin(), full.begin() + 5), Bytes(full.begin() + 5, full.begin() + 10),
                                   Bytes(full.begin() + 10, full.end())},
                                  150ms);
  ReplyView v = link.SendString(kReadSerial, 13, "GetSerialNumber", false);
  meter.join();
  ASSERT_FALSE(v.empty());
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(v.data + 5), 8), "20160007");
  EXPECT_EQ(log.Count("ReadCount - Read not full string, got 5, need 14"), 1u);
  EXPECT_EQ(log.Count("ReadCount - Read not full string, got 10, need 14"), 1u);
}

TEST(EskoLink, QueryAlwaysEndsInTheErrorPath) {
  PtyLine line;
  CMTR06LowLevelConnector link(line.connector, true);
  link.SetNetAddress(3);
  {
    std::thread meter = line.Answer({Bytes{0x00}});
    EXPECT_THROW(link.SendString(kQuery, 13, "Query", false), CDisconnectException);
    meter.join();
    EXPECT_EQ(link.LastError(), 0);
  }
  {
    std::thread meter = line.Answer({Bytes{0x51}});
    ReplyView v = link.SendString(kQuery, 13, "Query", true);
    meter.join();
    EXPECT_TRUE(v.empty());
    EXPECT_EQ(link.LastError(), 0);
  }
  // Both exchanges left a debug line with code 0 and the function name.
  auto lines = mcdtest::ReadLines(line.root.storage("MTR06.debug.log"));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find(" CMTR06LowLevelConnector::CheckResult - Error on return answer. Code error 0. function "
                          "0 Func name - Query"),
            std::string::npos);
}

TEST(EskoLink, UnknownCommandAndWrongSumThrowEvenUnderNoThrow) {
  PtyLine line;
  CMTR06LowLevelConnector link(line.connector, true);
  {
    std::thread meter = line.Answer({Reply(0, 0x80 | 'B')});
    EXPECT_THROW(link.SendString(kReadSerial, 13, "GetSerialNumber", true), CDisconnectException);
    meter.join();
  }
  {
    Bytes bad = Reply(0, 0x80 | 'R');
    bad[13] ^= 0x01;
    LogMark log;
    std::thread meter = line.Answer({bad});
    EXPECT_THROW(link.SendString(kReadSerial, 13, "GetSerialNumber", true), CDisconnectException);
    meter.join();
    EXPECT_EQ(log.Count("SendString - WRONG CS"), 1u);
  }
  // Neither is an error answer: no debug line.
  EXPECT_FALSE(mcdtest::FileExists(line.root.storage("MTR06.debug.log")));
}

TEST(EskoLink, ErrorAnswerSetsTheCodeAndWritesTheDebugLine) {
  mcdtest::TempRoot root;
  ScriptedConnector con;
  con.responder = [](const Bytes& r) { return Framed({0, r[1], 3, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}); };
  CTM3ELowLevelConnector link(&con, false);
  link.SetNetAddress(9);
  EXPECT_THROW(link.SendString(kReadSerial, 13, "FindArchDate", false), CDisconnectException);
  EXPECT_EQ(link.LastError(), 3);
  ReplyView v = link.SendString(kReadSerial, 13, "FindArchDate", true);
  EXPECT_TRUE(v.empty());
  EXPECT_EQ(con.writes.size(), 2u);  // an error answer is not retried
  EXPECT_GE(con.flushes, 2);
  std::string text = mcdtest::ReadFile(root.storage("TM3E.debug.log"));
  EXPECT_NE(text.find(" CTM3ELowLevelConnector::CheckResult - Error on return answer. Code error 3. function 9 Func "
                      "name - FindArchDate\n"),
            std::string::npos);
  // The line starts with the uncorrected broken-down time: years since 1900, month from 0.
  time_t now = time(nullptr);
  struct tm t;
  localtime_r(&now, &t);
  EXPECT_EQ(text.rfind(std::to_string(t.tm_year) + "-" + std::to_string(t.tm_mon) + "-", 0), 0u);
}

TEST(EskoLink, ReadFailuresAreRetriedFiveTimesThenWrongPacket) {
  mcdtest::TempRoot root;
  eskotest::LogPath();
  ScriptedConnector con;
  con.failReads = true;
  CMTR06LowLevelConnector link(&con, true);
  LogMark log;
  EXPECT_THROW(link.SendString(kReadSerial, 13, "GetSerialNumber", false), CWrongPacketException);
  ASSERT_EQ(con.writes.size(), 5u);  // no sixth write
  for (const Bytes& w : con.writes) EXPECT_EQ(w, con.writes[0]);
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(log.Count("CMTR06LowLevelConnector::Resend " + std::to_string(i) + " time"), 1u) << i;
  EXPECT_EQ(log.Count("Resend 5 time"), 0u);
}

TEST(EskoLink, TrickleBeyondFiveSecondsIsATimeOut) {
  mcdtest::TempRoot root;
  ScriptedConnector con;
  con.responder = [](const Bytes&) { return Reply(0, 0x80 | 'R'); };
  con.chunks = std::vector<int>(1000, 0);  // the line keeps answering nothing
  CMTR06LowLevelConnector link(&con, true);
  auto start = std::chrono::steady_clock::now();
  ReplyView v = link.SendString(kReadSerial, 13, "GetSerialNumber", true);
  auto took = std::chrono::steady_clock::now() - start;
  EXPECT_TRUE(v.empty());
  EXPECT_EQ(con.writes.size(), 1u);
  EXPECT_GE(took, 4s);
  EXPECT_LT(took, 8s);
}

TEST(EskoLink, CheckResultAndDebugFileLimit) {
  mcdtest::TempRoot root;
  ScriptedConnector con;
  CMTR06LowLevelConnector link(&con, true);
  Bytes sent = Framed({0, 1, 'R', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0});
  Bytes ok = Reply(1, 0x80 | 'W');
  Bytes wrong = Reply(1, 0x80 | 'Z');
  Bytes error = Reply(1, 5);
  EXPECT_EQ(link.CheckResult(sent.data(), ok.data(), "f", false), 0);
  EXPECT_EQ(link.CheckResult(sent.data(), wrong.data(), "f", true), 0xFF);
  EXPECT_THROW(link.CheckResult(sent.data(), wrong.data(), "f", false), CDisconnectException);
  EXPECT_EQ(link.CheckResult(sent.data(), error.data(), "f", true), 5);
  EXPECT_THROW(link.CheckResult(sent.data(), error.data(), "f", false), CDisconnectException);
  const unsigned char wrap[] = {0xFF, 0x02};
  EXPECT_EQ(CEskoLowLevelConnector::CalcCS(wrap, 2), 0x01);

  // A debug file that crosses 5242880 bytes is removed after the line was written.
  const std::string path = root.storage("MTR06.debug.log");
  mcdtest::WriteFile(path, std::string(5242680, 'x'));
  link.WriteDebugLog(1, 2, "short");
  struct stat st;
  ASSERT_EQ(stat(path.c_str(), &st), 0);
  EXPECT_LE(st.st_size, 5242880);
  link.WriteDebugLog(1, 2, "this line crosses the limit");
  EXPECT_FALSE(mcdtest::FileExists(path));

  const unsigned char raw[] = {0x01, 0xAB};
  link.WriteRawLog(raw, 2, "label");
  EXPECT_EQ(mcdtest::ReadFile(root.storage("MTR06log.log")), "label\n0x01 0xAB \n\n");
}

}  // namespace
