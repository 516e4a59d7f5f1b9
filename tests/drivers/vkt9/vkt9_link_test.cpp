#include <gtest/gtest.h>

#include <chrono>

#include "drivers/base/crc16.h"
#include "drivers/base/exceptions.h"
#include "drivers/vkt9/link_peer.h"
#include "drivers/vkt9/vkt9_link.h"

using linktest::Bytes;
using linktest::LinkBench;
using linktest::LogCapture;
using linktest::ScriptedPeer;

namespace {

Bytes WithCrc(Bytes frame) {
  uint16_t crc = mcd::Crc16(frame.data(), frame.size());
  frame.push_back(static_cast<unsigned char>(crc & 0xFF));
  frame.push_back(static_cast<unsigned char>(crc >> 8));
  return frame;
}

ScriptedPeer::Splitter FixedLength(size_t n) {
  return [n](const Bytes& pending) { return pending.size() >= n ? n : size_t(0); };
}

// A peer that answers every request with the same reply.
ScriptedPeer::Script Always(Bytes reply) {
  return [reply](size_t, const Bytes&, ScriptedPeer& peer) { peer.Send(reply); };
}

const unsigned char kRead10[] = {0x03, 0x00, 0x00, 0x00, 0x0A};

}  // namespace

TEST(VKT9Link, FramesAddressBodyAndCrcAndReturnsTheReply) {
  LogCapture log;
  LinkBench bench;
  Bytes reply = WithCrc({0x01, 0x03, 0x04, 0x11, 0x22, 0x33, 0x44});
  ScriptedPeer peer(bench.pty.master(), FixedLength(8), Always(reply));
  CVKT9LowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);

  auto view = link.SendString(kRead10, sizeof kRead10, "ReadRegisters");

  ASSERT_FALSE(view.empty());
  // the well-known Modbus frame for "read 10 registers from 0 at address 1"
  ASSERT_EQ(peer.Requests().size(), 1u);
  EXPECT_EQ(peer.Requests()[0], (Bytes{0x01, 0x03, 0x00, 0x00, 0x00, 0x0A, 0xC5, 0xCD}));
  EXPECT_EQ(Bytes(view.data, view.data + view.length), (Bytes{0x01, 0x03, 0x04, 0x11, 0x22, 0x33, 0x44}));
  EXPECT_EQ(link.GetLastError(), 0);
}

TEST(VKT9Link, BlockReplyIsSizedByItsFlagByte) {
  // 3 or 47 bytes, plus 106 for each of the two extra blocks
  LogCapture log;
  LinkBench bench;
  Bytes reply = {0x01, 0x41, 0x00, 0x38};
  for (int i = 0; i < 259; ++i) reply.push_back(static_cast<unsigned char>(i * 3));
  reply = WithCrc(reply);
  ASSERT_EQ(reply.size(), 265u);
  // the reply comes in three pieces, as on a slow line
  ScriptedPeer peer(bench.pty.master(), FixedLength(5), [&](size_t, const Bytes&, ScriptedPeer& p) {
    p.Send(Bytes(reply.begin(), reply.begin() + 2));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    p.Send(Bytes(reply.begin() + 2, reply.begin() + 100));
    std::this_thread::sleep_for(std::chrono::milliseconds(150));
    p.Send(Bytes(reply.begin() + 100, reply.end()));
  });
  CVKT9LowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);
  const unsigned char body[] = {0x41, 0x38};

  auto view = link.SendString(body, sizeof body, "ReadBlock");

  ASSERT_FALSE(view.empty());
  EXPECT_EQ(view.length, 263);
  EXPECT_EQ(Bytes(view.data, view.data + view.length), Bytes(reply.begin(), reply.end() - 2));
  EXPECT_EQ(peer.Requests().size(), 1u);
  EXPECT_GE(log.Count("CVKT9LowLevelConnector::ReadCount - Read not full string"), 1u);
  // nothing of the reply is left behind on the line
  EXPECT_EQ(bench.connector->ReadBufferCycle(reply.data(), 1, false, 200), -1);
}

TEST(VKT9Link, ErrorReplyThrowsOrIsEmptyUnderNoThrow) {
  LogCapture log;
  LinkBench bench;
  ScriptedPeer peer(bench.pty.master(), FixedLength(8), Always(WithCrc({0x01, 0x83, 0x02})));
  CVKT9LowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);

  EXPECT_THROW(link.SendString(kRead10, sizeof kRead10, "ReadCurrent"), CDisconnectException);
  EXPECT_EQ(link.GetLastError(), 2);
  EXPECT_EQ(peer.Requests().size(), 1u);  // an error reply is not retried

  auto view = link.SendString(kRead10, sizeof kRead10, "ReadCurrent", true);
  EXPECT_TRUE(view.empty());
  EXPECT_EQ(link.GetLastError(), 2);

  EXPECT_EQ(log.Count("CVKT9LowLevelConnector::CheckResult - Error on return answer. Code error 2. Function 83"), 2u);
  auto lines = mcdtest::ReadLines(bench.root.storage("VKT9.debug.log"));
  ASSERT_EQ(lines.size(), 2u);
  const std::string tail = " CVKT9LowLevelConnector::CheckResult - Error on return answer. Code error 2. function 131 "
                           "Func name - ReadCurrent";
  EXPECT_EQ(lines[0].substr(lines[0].size() - tail.size()), tail);
  EXPECT_NE(lines[0].find('-'), std::string::npos);  // raw time in front
}

TEST(VKT9Link, ErrorReplyIsRecognisedWhateverTheRequestWas) {
  // a block request reads a 4-byte header, but an error reply is still an error reply
  LogCapture log;
  LinkBench bench;
  ScriptedPeer peer(bench.pty.master(), FixedLength(5), Always(WithCrc({0x01, 0xC1, 0x04})));
  CVKT9LowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);
  const unsigned char body[] = {0x41, 0x08};
  EXPECT_TRUE(link.SendString(body, sizeof body, "ReadBlock", true).empty());
  EXPECT_EQ(link.GetLastError(), 4);
}

TEST(VKT9Link, AcceptedFunctionOtherThanTheRequestsIsTakenAsIs) {
  LogCapture log;
  LinkBench bench;
  // a 0x06 reply to a 0x03 request: 3 data bytes by the reply's function
  Bytes reply = WithCrc({0x01, 0x06, 0x00, 0x10, 0x00, 0x2A});
  ScriptedPeer peer(bench.pty.master(), FixedLength(8), Always(reply));
  CVKT9LowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);

  auto view = link.SendString(kRead10, sizeof kRead10, "ReadRegisters");

  ASSERT_FALSE(view.empty());
  EXPECT_EQ(view.length, 6);
  EXPECT_EQ(view.data[1], 0x06);
  EXPECT_EQ(view.data[5], 0x2A);
  EXPECT_EQ(link.GetLastError(), 0);
}

TEST(VKT9Link, WrongCrcAndUnknownFunctionFailAtOnceEvenUnderNoThrow) {
  LogCapture log;
  {
    LinkBench bench;
    Bytes reply = WithCrc({0x01, 0x03, 0x02, 0x12, 0x34});
    uint16_t crc = mcd::Crc16(reply.data(), 5);
    reply[6] ^= 0x01;
    ScriptedPeer peer(bench.pty.master(), FixedLength(8), Always(reply));
    CVKT9LowLevelConnector link(bench.connector.get(), false);
    link.SetNetAddr(1);
    EXPECT_THROW(link.SendString(kRead10, sizeof kRead10, "ReadRegisters", true), CDisconnectException);
    EXPECT_EQ(peer.Requests().size(), 1u);
    char expected[80];
    snprintf(expected, sizeof expected, "CVKT9LowLevelConnector::SendString - WRONG CRC: x%02x%02x(LH)", crc & 0xFF,
             crc >> 8);
    EXPECT_EQ(log.Count(expected), 1u) << log.Text();
  }
  {
    LinkBench bench;
    ScriptedPeer peer(bench.pty.master(), FixedLength(8), Always(WithCrc({0x01, 0x07, 0x00, 0x00})));
    CVKT9LowLevelConnector link(bench.connector.get(), false);
    link.SetNetAddr(1);
    EXPECT_THROW(link.SendString(kRead10, sizeof kRead10, "ReadRegisters", true), CDisconnectException);
    EXPECT_EQ(peer.Requests().size(), 1u);
    EXPECT_EQ(log.Count("CVKT9LowLevelConnector::SendString - Wrong Packet Type"), 1u);
  }
}

TEST(VKT9Link, SilentMeterGetsThreeSendsThenWrongPacket) {
  LogCapture log;
  LinkBench bench;
  ScriptedPeer peer(bench.pty.master(), FixedLength(8), [](size_t, const Bytes&, ScriptedPeer&) {});
  CVKT9LowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(7);

  EXPECT_THROW(link.SendString(kRead10, sizeof kRead10, "ReadRegisters"), CWrongPacketException);

  auto requests = peer.Requests();
  ASSERT_EQ(requests.size(), 3u);
  EXPECT_EQ(requests[0][0], 7);
  EXPECT_EQ(requests[1], requests[0]);
  EXPECT_EQ(requests[2], requests[0]);
  for (int i = 0; i < 3; ++i)
    EXPECT_EQ(log.Count("CVKT9LowLevelConnector::Resend " + std::to_string(i) + " time"), 1u) << i;
  EXPECT_EQ(log.Count("CVKT9LowLevelConnector::Resend 3 time"), 0u);
}

TEST(VKT9Link, ReplyToTheSecondAttemptIsAccepted) {
  LogCapture log;
  LinkBench bench;
  Bytes reply = WithCrc({0x01, 0x04, 0x02, 0xBE, 0xEF});
  ScriptedPeer peer(bench.pty.master(), FixedLength(8), [&](size_t index, const Bytes&, ScriptedPeer& p) {
    if (index == 0) p.Send(Bytes(reply.begin(), reply.begin() + 4));  // cut off: the rest never comes
    else p.Send(reply);
  });
  CVKT9LowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);
  const unsigned char body[] = {0x04, 0x00, 0x01, 0x00, 0x01};

  auto view = link.SendString(body, sizeof body, "ReadInput");

  ASSERT_FALSE(view.empty());
  EXPECT_EQ(Bytes(view.data, view.data + view.length), Bytes(reply.begin(), reply.end() - 2));
  EXPECT_EQ(peer.Requests().size(), 2u);
  EXPECT_EQ(log.Count("CVKT9LowLevelConnector::Resend 0 time"), 1u);
}

namespace {
// A line that takes only part of every frame.
class ShortWriteConnector : public CConnector {
 public:
  int WriteBuffer(const unsigned char*, unsigned short len, bool) override {
    ++writes;
    return len - 1;
  }
  int ReadBuffer(unsigned char*, unsigned short, bool) override {
    ++reads;
    return -1;
  }
  int writes = 0, reads = 0;
};
}  // namespace

TEST(VKT9Link, ShortWriteIsNotRetried) {
  LogCapture log;
  mcdtest::TempRoot root;
  ShortWriteConnector line;
  CVKT9LowLevelConnector link(&line, false);
  EXPECT_THROW(link.SendString(kRead10, sizeof kRead10, "ReadRegisters", true), CDisconnectException);
  EXPECT_EQ(line.writes, 1);
  EXPECT_EQ(line.reads, 0);
  EXPECT_EQ(log.Count("CVKT9LowLevelConnector::SendString failed - Sent not full string"), 1u);
}
