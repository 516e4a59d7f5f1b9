// The VKT-7 link layer against a meter played on a pseudo-terminal. Frames are golden
// vectors: every checksum is written out (Modbus CRC-16, low byte first).
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <ctime>
#include <memory>

#include "drivers/vkt7/vkt7_link.h"
#include "support/test_support.h"
#include "transport/connector.h"
#include "vkt7_test_util.h"

using namespace vkt7test;

namespace {

class Vkt7LinkTest : public ::testing::Test {
 protected:
  void SetUp() override {
    connector.reset(CConnector::CreateConnector({{"name", pty.slaveName()}}));
    link.reset(new CVKT7LowLevelConnector(connector.get(), false));
  }
  void TearDown() override {
    peer.reset();
    link.reset();
    connector.reset();
  }
  void Play(Peer::Script script) { peer.reset(new Peer(pty.master(), std::move(script))); }
  void Answer(const std::vector<std::string>& answers) {
    Play([=](size_t index, const Bytes&) {
      return std::vector<Bytes>{Hex(answers[std::min(index, answers.size() - 1)])};
    });
  }
  CVKT7Buffer Send(const char* name, bool tolerate) {
    request = Hex("FF FF 00 03 3F F9 00 00 00 00");  // read of 0x3FF9, checksum still empty
    return link->SendString(request.data(), static_cast<unsigned short>(request.size()), name, tolerate);
  }

  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  std::unique_ptr<CConnector> connector;
  std::unique_ptr<CVKT7LowLevelConnector> link;
  std::unique_ptr<Peer> peer;
  Bytes request;
};

TEST_F(Vkt7LinkTest, CompletesTheChecksumAndReadsAnswersOfEveryLength) {
  Answer({"00 03 04 11 22 33 44 5B 06", "00 03 00 71 30", "00 03 01 7E 71 94"});
  CVKT7Buffer view = Send("GetSystemData", false);
  // the checksum covers the bytes after the preamble
  EXPECT_EQ(request, Hex("FF FF 00 03 3F F9 00 00 98 3E"));
  ASSERT_EQ(peer->Requests().size(), 1u);
  EXPECT_EQ(peer->Requests()[0], request);
  ASSERT_EQ(view.remaining(), 7);
  EXPECT_EQ(view[6], 0x44);
  // a read answer with no data is five bytes and a view of three; nothing is left
  // unread for the next exchange
  EXPECT_EQ(Send("empty", false).remaining(), 3);
  CVKT7Buffer last = Send("next", false);
  ASSERT_EQ(last.remaining(), 4);
  EXPECT_EQ(last[3], 0x7E);
}

TEST_F(Vkt7LinkTest, ErrorAnswers) {
  LogCapture log;
  Answer({"00 83 02 01 31 6C", "00 90 03 3F 40 E9", "00 03 01 55 31 8B"});
  EXPECT_THROW(Send("GetSystemData", false), CDisconnectException);
  // raw broken-down local time, then code, type, function word (code | next byte << 8)
  std::vector<std::string> lines = mcdtest::ReadLines(root.storage("vkt7.debug.log"));
  ASSERT_EQ(lines.size(), 1u);
  const std::string tail =
      " CVKT7LowLevelConnector::CheckResult - Error on return answer. Code error 2. Type packet - 131. function 258 "
      "Func name - GetSystemData";
  ASSERT_GT(lines[0].size(), tail.size());
  EXPECT_EQ(lines[0].substr(lines[0].size() - tail.size()), tail);
  int year, month, day;
  ASSERT_EQ(sscanf(lines[0].c_str(), "%d-%d-%d ", &year, &month, &day), 3);
  struct tm now;
  const time_t t = time(nullptr);
  localtime_r(&t, &now);
  EXPECT_EQ(year, now.tm_year);  // years since 1900
  EXPECT_EQ(month, now.tm_mon);  // months from 0
  EXPECT_EQ(log.Count("CheckResult - Error on return answer. Code error 2. Type packet - 83. function 2"), 1u);

  // tolerated: no view, the code kept; the sixth byte was read with the answer
  EXPECT_TRUE(Send("SendDataForArch3", true).empty());
  EXPECT_EQ(link->LastError(), 3);
  EXPECT_EQ(Send("next", false)[3], 0x55);
  EXPECT_EQ(link->LastError(), 0);
  EXPECT_EQ(peer->Requests().size(), 3u);
}

TEST_F(Vkt7LinkTest, WrongChecksumAndUnknownTypeAreNotRetried) {
  LogCapture log;
  Answer({"00 03 02 01 02 05 D6", "00 04 00 01 02 03 04 05 06 07 08 09", "00 03 02 01 02 05 D5"});
  EXPECT_THROW(Send("GetSystemData", false), CDisconnectException);
  EXPECT_THROW(Send("GetSystemData", false), CDisconnectException);
  usleep(200000);
  EXPECT_EQ(peer->Requests().size(), 2u);
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::SendString - WRONG CRC"), 1u);
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::SendString - WrongTypePacket"), 1u);
  EXPECT_EQ(log.Count("Resend"), 0u);
  // the tail of the broken answer is not taken for the head of the next one
  CVKT7Buffer view = Send("GetSystemData", false);
  ASSERT_EQ(view.remaining(), 5);
  EXPECT_EQ(view[4], 0x02);
}

TEST_F(Vkt7LinkTest, SilentMeterIsAskedThreeTimes) {
  LogCapture log;
  Play([](size_t, const Bytes&) { return std::vector<Bytes>{}; });
  EXPECT_THROW(Send("GetSystemData", false), CWrongPacketException);
  EXPECT_EQ(peer->Requests().size(), 3u);
  for (const char* line : {"CVKT7LowLevelConnector::Resend 0 time", "CVKT7LowLevelConnector::Resend 1 time",
                           "CVKT7LowLevelConnector::Resend 2 time"})
    EXPECT_EQ(log.Count(line), 1u) << line;
  EXPECT_EQ(log.Count("readed -1 - need to read - \"3\", already readed - \"0\""), 3u);
}

TEST_F(Vkt7LinkTest, AnswerArrivingInPiecesIsJoined) {
  LogCapture log;
  const Bytes answer = Hex("00 03 06 01 02 03 04 05 06 96 23");
  Play([=](size_t index, const Bytes&) {
    // the first attempt stops after the header and the meter goes silent; the second
    // gets the answer in two pieces
    if (index == 0) return std::vector<Bytes>{Bytes(answer.begin(), answer.begin() + 3)};
    return std::vector<Bytes>{Bytes(answer.begin(), answer.begin() + 5), Bytes(answer.begin() + 5, answer.end())};
  });
  CVKT7Buffer view = Send("GetSystemData", false);
  ASSERT_EQ(view.remaining(), 9);
  EXPECT_EQ(view[8], 6);
  EXPECT_EQ(peer->Requests().size(), 2u);
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::Resend 0 time"), 1u);
  EXPECT_GE(log.Count("CVKT7LowLevelConnector::ReadCount - Readed not full string"), 1u);
}

TEST(Vkt7DiagTest, BrokenAnswerLineAndFrameDumpRemovalPastTheLimit) {
  mcdtest::TempRoot root;
  const unsigned char bytes[8] = {0xFF, 0x0A, 0x00, 0, 0, 0, 0, 0};
  CVKT7Buffer cursor(bytes, 3);
  EXPECT_EQ(cursor[3], 0);  // one past the end is accepted
  EXPECT_THROW(cursor[4], CDisconnectException);
  EXPECT_NE(mcdtest::ReadFile(root.storage("vkt7.debug.log"))
                .find("Code error 0. Type packet - 0. function 0 Func name - CVKT7Buffer []"),
            std::string::npos);

  vkt7::WriteFrameDump("SyncActiveParameters41", bytes, 3);
  const std::string path = root.storage("vkt7log.log");
  EXPECT_EQ(mcdtest::ReadFile(path), "SyncActiveParameters41\n0xFF 0x0A 0x00 \n\n");
  mcdtest::WriteFile(path, std::string(5242880 - 40, 'x'));
  vkt7::WriteFrameDump("TimeOfWork", bytes, 3);  // 11 + 15 + 2 bytes: still under the limit
  EXPECT_TRUE(mcdtest::FileExists(path));
  vkt7::WriteFrameDump("TimeOfWork", bytes, 3);
  EXPECT_FALSE(mcdtest::FileExists(path));
}

}  // namespace
