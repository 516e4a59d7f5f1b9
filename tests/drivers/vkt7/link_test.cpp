// The VKT-7 link layer against a meter played on a pseudo-terminal.
#include <gtest/gtest.h>

#include <unistd.h>

#include <memory>
#include <cstdio>
#include <ctime>

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

  // Read of 0x3FF9 as the driver builds it, checksum bytes still empty.
  static Bytes ReadRequest() { return {0xFF, 0xFF, 0x00, 0x03, 0x3F, 0xF9, 0x00, 0x00, 0x00, 0x00}; }

  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  std::unique_ptr<CConnector> connector;
  std::unique_ptr<CVKT7LowLevelConnector> link;
  std::unique_ptr<Peer> peer;
};

TEST_F(Vkt7LinkTest, CompletesTheChecksumAndReturnsTheWholeAnswer) {
  Bytes answer = WithCrc({0x00, 0x03, 0x04, 0x11, 0x22, 0x33, 0x44});
  Play([=](size_t, const Bytes&) { return std::vector<Bytes>{answer}; });
  Bytes request = ReadRequest();
  CVKT7Buffer view = link->SendString(request.data(), static_cast<unsigned short>(request.size()), "GetSystemData", false);

  // The checksum covers the bytes after the preamble, low byte first.
  Bytes expected = {0xFF, 0xFF};
  Bytes body = WithCrc({0x00, 0x03, 0x3F, 0xF9, 0x00, 0x00});
  expected.insert(expected.end(), body.begin(), body.end());
  ASSERT_EQ(peer->Requests().size(), 1u);
  EXPECT_EQ(peer->Requests()[0], expected);
  EXPECT_EQ(request, expected);

  ASSERT_EQ(view.remaining(), 7);
  EXPECT_EQ(view[2], 0x04);
  EXPECT_EQ(view[6], 0x44);
  EXPECT_EQ(link->LastError(), 0);
}

TEST_F(Vkt7LinkTest, EmptyReadAnswerIsFiveBytesAndAViewOfThree) {
  Play([=](size_t index, const Bytes&) {
    // the second exchange proves that nothing of the first answer was left unread
    if (index == 0) return std::vector<Bytes>{WithCrc({0x00, 0x03, 0x00})};
    return std::vector<Bytes>{WithCrc({0x00, 0x03, 0x01, 0x7E})};
  });
  Bytes request = ReadRequest();
  CVKT7Buffer first = link->SendString(request.data(), 10, "first", false);
  EXPECT_EQ(first.remaining(), 3);
  CVKT7Buffer second = link->SendString(request.data(), 10, "second", false);
  ASSERT_EQ(second.remaining(), 4);
  EXPECT_EQ(second[3], 0x7E);
}

TEST_F(Vkt7LinkTest, WriteConfirmationIsEightBytes) {
  Play([=](size_t, const Bytes&) { return std::vector<Bytes>{WithCrc({0x00, 0x10, 0x3F, 0xFD, 0x00, 0x00})}; });
  Bytes request = {0xFF, 0xFF, 0x00, 0x10, 0x3F, 0xFD, 0x00, 0x00, 0x02, 0x04, 0x00, 0x00, 0x00};
  CVKT7Buffer view = link->SendString(request.data(), 13, "select", false);
  EXPECT_EQ(view.remaining(), 0x3F + 3);  // the view's length follows answer[2]
  EXPECT_EQ(peer->Requests().size(), 1u);
}

TEST_F(Vkt7LinkTest, ErrorAnswerNotToleratedWritesTheDebugLineAndThrows) {
  LogCapture log;
  Play([=](size_t, const Bytes&) { return std::vector<Bytes>{WithCrc({0x00, 0x83, 0x02, 0x01})}; });
  Bytes request = ReadRequest();
  EXPECT_THROW(link->SendString(request.data(), 10, "GetSystemData", false), CDisconnectException);

  std::vector<std::string> lines = mcdtest::ReadLines(root.storage("vkt7.debug.log"));
  ASSERT_EQ(lines.size(), 1u);
  // raw broken-down local time, then code, type, function word (code | next byte << 8)
  const std::string tail =
      " CVKT7LowLevelConnector::CheckResult - Error on return answer. Code error 2. Type packet - 131. function 258 "
      "Func name - GetSystemData";
  ASSERT_GT(lines[0].size(), tail.size());
  EXPECT_EQ(lines[0].substr(lines[0].size() - tail.size()), tail);
  const std::string stamp = lines[0].substr(0, lines[0].size() - tail.size());
  int year, month, day, hour, minute, second;
  char end;
  ASSERT_EQ(sscanf(stamp.c_str(), "%d-%d-%d %d:%d:%d%c", &year, &month, &day, &hour, &minute, &second, &end), 6)
      << stamp;
  struct tm now;
  time_t t = time(nullptr);
  localtime_r(&t, &now);
  EXPECT_EQ(year, now.tm_year);  // years since 1900
  EXPECT_EQ(month, now.tm_mon);  // months from 0
  EXPECT_EQ(day, now.tm_mday);
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::CheckResult - Error on return answer. Code error 2. Type packet - 83. "
                      "function 2"),
            1u);
  EXPECT_EQ(peer->Requests().size(), 1u);
}

TEST_F(Vkt7LinkTest, ToleratedErrorAnswerReturnsNoViewAndTheCode) {
  Play([=](size_t index, const Bytes&) {
    if (index == 0) return std::vector<Bytes>{WithCrc({0x00, 0x90, 0x03, 0x00})};
    return std::vector<Bytes>{WithCrc({0x00, 0x03, 0x01, 0x55})};
  });
  Bytes request = {0xFF, 0xFF, 0x00, 0x10, 0x3F, 0xFB, 0x00, 0x00, 0x04, 0x01, 0x02, 0x10, 0x05, 0x00, 0x00};
  CVKT7Buffer view = link->SendString(request.data(), 15, "SendDataForArch3", true);
  EXPECT_TRUE(view.empty());
  EXPECT_EQ(link->LastError(), 3);
  EXPECT_EQ(mcdtest::ReadLines(root.storage("vkt7.debug.log")).size(), 1u);
  // The sixth byte of the error answer was read with it: the next answer is clean.
  Bytes read = ReadRequest();
  CVKT7Buffer next = link->SendString(read.data(), 10, "next", false);
  EXPECT_EQ(next[3], 0x55);
  EXPECT_EQ(link->LastError(), 0);
}

TEST_F(Vkt7LinkTest, WrongChecksumIsNotRetried) {
  LogCapture log;
  Play([=](size_t, const Bytes&) {
    Bytes answer = WithCrc({0x00, 0x03, 0x02, 0x01, 0x02});
    answer.back() ^= 0xFF;
    return std::vector<Bytes>{answer};
  });
  Bytes request = ReadRequest();
  EXPECT_THROW(link->SendString(request.data(), 10, "GetSystemData", false), CDisconnectException);
  usleep(300000);
  EXPECT_EQ(peer->Requests().size(), 1u);
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::SendString - WRONG CRC"), 1u);
  EXPECT_EQ(log.Count("Resend"), 0u);
}

TEST_F(Vkt7LinkTest, UnknownAnswerTypeIsNotRetried) {
  LogCapture log;
  Play([=](size_t, const Bytes&) { return std::vector<Bytes>{WithCrc({0x00, 0x04, 0x00})}; });
  Bytes request = ReadRequest();
  EXPECT_THROW(link->SendString(request.data(), 10, "GetSystemData", false), CDisconnectException);
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::SendString - WrongTypePacket"), 1u);
  EXPECT_EQ(peer->Requests().size(), 1u);
}

TEST_F(Vkt7LinkTest, TailOfABrokenAnswerDoesNotSpoilTheNextExchange) {
  // The first answer has an unknown type and twenty more bytes behind it; the second
  // is a good answer that must be read from its own first byte.
  Bytes broken = {0x00, 0x04};
  for (int i = 0; i < 20; ++i) broken.push_back(static_cast<unsigned char>(0x30 + i));
  Bytes good = WithCrc({0x00, 0x03, 0x02, 0xAB, 0xCD});
  Play([=](size_t index, const Bytes&) { return std::vector<Bytes>{index == 0 ? broken : good}; });
  Bytes request = ReadRequest();
  EXPECT_THROW(link->SendString(request.data(), 10, "GetSystemData", false), CDisconnectException);
  ASSERT_TRUE(mcdtest::WaitFor([&] { return peer->Requests().size() == 1; }, std::chrono::seconds(2)));
  usleep(100000);  // the whole broken answer is in the line's input by now
  request = ReadRequest();
  CVKT7Buffer view = link->SendString(request.data(), 10, "GetSystemData", false);
  ASSERT_EQ(view.remaining(), 5);
  EXPECT_EQ(view[3], 0xAB);
  EXPECT_EQ(view[4], 0xCD);
}

TEST_F(Vkt7LinkTest, SilentMeterIsAskedThreeTimes) {
  LogCapture log;
  Play([=](size_t, const Bytes&) { return std::vector<Bytes>{}; });
  Bytes request = ReadRequest();
  EXPECT_THROW(link->SendString(request.data(), 10, "GetSystemData", false), CWrongPacketException);
  EXPECT_EQ(peer->Requests().size(), 3u);
  for (const char* line : {"CVKT7LowLevelConnector::Resend 0 time", "CVKT7LowLevelConnector::Resend 1 time",
                           "CVKT7LowLevelConnector::Resend 2 time"})
    EXPECT_EQ(log.Count(line), 1u) << line;
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::Resend"), 3u);
  EXPECT_EQ(log.Count("readed -1 - need to read - \"3\", already readed - \"0\""), 3u);
}

TEST_F(Vkt7LinkTest, AnswerArrivingInPiecesIsJoined) {
  LogCapture log;
  Bytes answer = WithCrc({0x00, 0x03, 0x06, 1, 2, 3, 4, 5, 6});
  Play([=](size_t index, const Bytes&) {
    // the first attempt stops after the header and the meter goes silent; the second
    // attempt gets the answer in two pieces
    if (index == 0) return std::vector<Bytes>{Bytes(answer.begin(), answer.begin() + 3)};
    return std::vector<Bytes>{Bytes(answer.begin(), answer.begin() + 5), Bytes(answer.begin() + 5, answer.end())};
  });
  Bytes request = ReadRequest();
  CVKT7Buffer view = link->SendString(request.data(), 10, "GetSystemData", false);
  ASSERT_EQ(view.remaining(), 9);
  EXPECT_EQ(view[8], 6);
  EXPECT_EQ(peer->Requests().size(), 2u);
  EXPECT_EQ(log.Count("CVKT7LowLevelConnector::Resend 0 time"), 1u);
  EXPECT_GE(log.Count("CVKT7LowLevelConnector::ReadCount - Readed not full string"), 1u);
}

TEST(Vkt7BufferTest, FailedAccessWritesTheVkt7DebugLine) {
  mcdtest::TempRoot root;
  const unsigned char bytes[8] = {0, 3, 0, 0, 0, 0, 0, 0};
  CVKT7Buffer cursor(bytes, 3);
  EXPECT_EQ(cursor[3], 0);  // one past the end is accepted
  EXPECT_THROW(cursor[4], CDisconnectException);
  EXPECT_THROW(cursor += 4, CDisconnectException);
  std::vector<std::string> lines = mcdtest::ReadLines(root.storage("vkt7.debug.log"));
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].find(" CVKT7LowLevelConnector::CheckResult - Error on return answer. Code error 0. Type packet - "
                          "0. function 0 Func name - CVKT7Buffer []"),
            std::string::npos)
      << lines[0];
  EXPECT_NE(lines[1].find("Func name - CVKT7Buffer +="), std::string::npos) << lines[1];
}

TEST(Vkt7DiagTest, FrameDumpLinesAndRemovalPastTheLimit) {
  mcdtest::TempRoot root;
  const unsigned char bytes[3] = {0xFF, 0x0A, 0x00};
  vkt7::WriteFrameDump("SyncActiveParameters41", bytes, 3);
  EXPECT_EQ(mcdtest::ReadFile(root.storage("vkt7log.log")), "SyncActiveParameters41\n0xFF 0x0A 0x00 \n\n");
  // grown to one byte under the limit, the next dump pushes it past and removes it
  std::string path = root.storage("vkt7log.log");
  std::string filler(5242880 - 40, 'x');
  mcdtest::WriteFile(path, filler);
  vkt7::WriteFrameDump("TimeOfWork", bytes, 3);  // 11 + 15 + 2 bytes: still under
  EXPECT_TRUE(mcdtest::FileExists(path));
  vkt7::WriteFrameDump("TimeOfWork", bytes, 3);
  EXPECT_FALSE(mcdtest::FileExists(path));
}

}  // namespace
