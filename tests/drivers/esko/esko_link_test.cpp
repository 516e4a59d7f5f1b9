// The ESKO link on golden frames: request and answer bytes written out with their sums.
#include <gtest/gtest.h>
#include <unistd.h>

#include "drivers/base/exceptions.h"
#include "drivers/esko/esko_link.h"
#include "esko_test_util.h"
#include "support/test_support.h"

using eskotest::Bytes;
using eskotest::Hex;
using eskotest::TakePauses;

namespace {
std::mutex g_pauseMutex;
std::vector<unsigned> g_pauses;
}  // namespace

// Every usleep of this program (the links' pauses) is recorded instead of slept.
extern "C" int usleep(useconds_t us) {
  std::lock_guard<std::mutex> lock(g_pauseMutex);
  g_pauses.push_back(static_cast<unsigned>(us));
  return 0;
}

std::vector<unsigned> eskotest::TakePauses() {
  std::lock_guard<std::mutex> lock(g_pauseMutex);
  std::vector<unsigned> taken;
  taken.swap(g_pauses);
  return taken;
}

namespace {

const unsigned char kReadSerial[13] = {0, 0, 'R', 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
const Bytes kSerialRequest = Hex("00 07 52 00 00 00 00 00 00 00 00 00 00 59");  // 07 + 52 = 59
// Answered with another accepted letter ('G' | 0x80 = C7) than asked: accepted.
const Bytes kSerialAnswer = Hex("00 07 C7 00 00 32 30 31 36 30 30 30 37 5E");

struct Line {
  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  eskotest::ScriptedConnector con;
  CMTR06LowLevelConnector link{&con, true};
  explicit Line(Bytes answer) {
    con.meter = [answer](const Bytes&) { return answer; };
    link.SetNetAddress(7);
    TakePauses();
  }
  std::string DebugFile() { return mcdtest::ReadFile(root.storage("MTR06.debug.log")); }
};

TEST(EskoLink, FrameSumAndAnswerReadInPieces) {
  Line line(kSerialAnswer);
  line.con.chunks = {5, 5, 4};
  ReplyView v = line.link.SendString(kReadSerial, 13, "GetSerialNumber", false);
  ASSERT_EQ(line.con.writes, std::vector<Bytes>{kSerialRequest});
  ASSERT_FALSE(v.empty());
  EXPECT_EQ(v.length, 13);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(v.data + 5), 8), "20160007");
  EXPECT_EQ(line.log.Count("ReadCount - Read not full string, got 5, need 14"), 1u);
  EXPECT_EQ(line.log.Count("ReadCount - Read not full string, got 10, need 14"), 1u);
  EXPECT_EQ(TakePauses(), (std::vector<unsigned>{100000, 10000, 10000}));
  EXPECT_EQ(line.con.flushes, 0);
}

// An error answer is not retried: its code, a debug line, 500 ms, a flush.
TEST(EskoLink, ErrorAnswerPausesHalfASecondAndIsNotRetried) {
  Line line(Hex("00 09 03 00 00 00 00 00 00 00 00 00 00 0C"));
  EXPECT_THROW(line.link.SendString(kReadSerial, 13, "FindArchDate", false), CDisconnectException);
  EXPECT_EQ(line.link.LastError(), 3);
  EXPECT_TRUE(line.link.SendString(kReadSerial, 13, "FindArchDate", true).empty());
  EXPECT_EQ(line.con.writes.size(), 2u);
  EXPECT_EQ(line.con.flushes, 2);
  EXPECT_EQ(TakePauses(), (std::vector<unsigned>{100000, 500000, 100000, 500000}));
  EXPECT_NE(line.DebugFile().find(" CMTR06LowLevelConnector::CheckResult - Error on return answer. Code error 3. "
                                  "function 9 Func name - FindArchDate\n"),
            std::string::npos);
  // A 'Q' answer is one byte: it always ends as an error answer with the code 0.
  Line query(Hex("51"));
  const unsigned char kQuery[13] = {0, 0, 'Q'};
  EXPECT_TRUE(query.link.SendString(kQuery, 13, "Query", true).empty());
  EXPECT_EQ(query.link.LastError(), 0);
  EXPECT_NE(query.DebugFile().find("Code error 0. function 0 Func name - Query\n"), std::string::npos);
}

TEST(EskoLink, WrongSumOrUnknownCommandThrowsEvenUnderNoThrow) {
  Line line(Hex("00 00 D2 00 00 00 00 00 00 00 00 00 00 D3"));  // the sum is D2
  EXPECT_THROW(line.link.SendString(kReadSerial, 13, "GetSerialNumber", true), CDisconnectException);
  EXPECT_EQ(line.log.Count("CMTR06LowLevelConnector::SendString - WRONG CS: xd2, got xd3"), 1u);
  Line unknown(Hex("00 00 C2 00 00 00 00 00 00 00 00 00 00 C2"));  // 'B' | 0x80
  EXPECT_THROW(unknown.link.SendString(kReadSerial, 13, "GetSerialNumber", true), CDisconnectException);
  EXPECT_EQ(unknown.log.Count("SendString - Wrong Packet Type"), 1u);
  EXPECT_EQ(TakePauses(), (std::vector<unsigned>{100000, 500000}));
  EXPECT_EQ(line.DebugFile(), "");  // neither is an error answer
}

TEST(EskoLink, FiveAttemptsOnReadFailuresThenWrongPacket) {
  Line line(Bytes{});  // the line stays silent: every read fails
  EXPECT_THROW(line.link.SendString(kReadSerial, 13, "GetSerialNumber", false), CWrongPacketException);
  EXPECT_EQ(line.con.writes, std::vector<Bytes>(5, kSerialRequest));
  for (int i = 0; i < 5; ++i)
    EXPECT_EQ(line.log.Count("CMTR06LowLevelConnector::Resend " + std::to_string(i) + " time"), 1u) << i;
  EXPECT_EQ(line.log.Count("Resend 5 time"), 0u);
  std::vector<unsigned> expected;
  for (int i = 0; i < 5; ++i) expected.insert(expected.end(), {100000, 500000});
  expected.push_back(500000);
  EXPECT_EQ(TakePauses(), expected);
}

}  // namespace
