#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "drivers/base/exceptions.h"
#include "drivers/omegatr/omegatr_link.h"
#include "drivers/vkt9/link_peer.h"

using linktest::Bytes;
using linktest::FromText;
using linktest::LinkBench;
using linktest::LogCapture;
using linktest::ScriptedPeer;
using linktest::ToText;
using Clock = std::chrono::steady_clock;

namespace {

// ":" + hex body + LRC (negated sum of the body's characters) + CR LF
std::string Frame(const Bytes& binary) {
  std::string body;
  char hex[3];
  for (unsigned char b : binary) {
    snprintf(hex, sizeof hex, "%02X", b);
    body += hex;
  }
  unsigned sum = 0;
  for (char c : body) sum += static_cast<unsigned char>(c);
  snprintf(hex, sizeof hex, "%02X", (256 - sum % 256) % 256);
  return ":" + body + hex + "\r\n";
}

size_t UpToLf(const Bytes& pending) {
  for (size_t i = 0; i < pending.size(); ++i)
    if (pending[i] == '\n') return i + 1;
  return 0;
}

ScriptedPeer::Script Always(std::string reply) {
  return [reply](size_t, const Bytes&, ScriptedPeer& peer) { peer.Send(reply); };
}

long Millis(Clock::duration d) { return static_cast<long>(std::chrono::duration_cast<std::chrono::milliseconds>(d).count()); }

}  // namespace

TEST(OMEGATRLink, RequestGoesOutAsColonHexLrcCrLfAndTheReplyIsDecoded) {
  LogCapture log;
  LinkBench bench;
  ScriptedPeer peer(bench.pty.master(), UpToLf, Always(Frame({0x01, 0x04, 0x04, 0x00, 0x0A, 0xBE, 0xEF})));
  COMEGATRLowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);
  unsigned char request[] = {0x00, 0x04, 0x00, 0x00, 0x00, 0x02};

  auto view = link.SendString(request, sizeof request, "ReadCurrent");

  // LRC: nine '0' (0x30), '1', '4', '2' sum to 0x247; 0x100 - 0x47 = 0xB9
  ASSERT_EQ(peer.Requests().size(), 1u);
  EXPECT_EQ(ToText(peer.Requests()[0]), ":010400000002B9\r\n");
  EXPECT_EQ(request[0], 1);  // the address is written into the caller's request
  ASSERT_FALSE(view.empty());
  EXPECT_EQ(Bytes(view.data, view.data + view.length), (Bytes{0x01, 0x04, 0x04, 0x00, 0x0A, 0xBE, 0xEF}));
  EXPECT_EQ(link.GetLastError(), 0);
}

TEST(OMEGATRLink, LrcIsOverTheCharactersNotTheBytes) {
  const unsigned char text[] = {'0', '1', '0', '4', '0', '0', '0', '0', '0', '0', '0', '2'};
  EXPECT_EQ(COMEGATRLowLevelConnector::CalcLRC(text, sizeof text), 0xB9);
  const unsigned char bytes[] = {0x01, 0x04, 0x00, 0x00, 0x00, 0x02};
  EXPECT_NE(COMEGATRLowLevelConnector::CalcLRC(bytes, sizeof bytes), 0xB9);
  const unsigned char zero[] = {0x80, 0x80};  // sum 0x100: the complement is 0, not 0x100
  EXPECT_EQ(COMEGATRLowLevelConnector::CalcLRC(zero, sizeof zero), 0);
  EXPECT_EQ(COMEGATRLowLevelConnector::DecodeHexByte('b', '9'), 0xB9);
  EXPECT_EQ(COMEGATRLowLevelConnector::DecodeHexByte('F', '0'), 0xF0);
}

TEST(OMEGATRLink, CharactersMoreThanTwoSecondsApartFailTheRead) {
  LogCapture log;
  LinkBench bench;
  COMEGATRLowLevelConnector link(bench.connector.get(), false);
  std::thread meter([&] {
    bench.pty.Write(FromText(":0104"));
    std::this_thread::sleep_for(std::chrono::milliseconds(2300));
    bench.pty.Write(FromText("00B7\r\n"));
  });
  unsigned char buffer[COMEGATRLowLevelConnector::kBufferSize] = {0};
  int got = -1;
  auto start = Clock::now();
  bool ok = link.ReadCount(buffer, 9, got, 5);
  auto took = Clock::now() - start;
  meter.join();
  EXPECT_FALSE(ok);
  EXPECT_EQ(got, 5);
  EXPECT_GE(Millis(took), 2000);
  EXPECT_LT(Millis(took), 4500);  // well before the 5-second limit
  EXPECT_EQ(log.Count("COMEGATRLowLevelConnector::ReadCount: ret -1, already read - \"5\"!!!"), 1u) << log.Text();
}

TEST(OMEGATRLink, CharactersWithinTheGapKeepTheReadGoing) {
  LogCapture log;
  LinkBench bench;
  COMEGATRLowLevelConnector link(bench.connector.get(), false);
  std::thread meter([&] {
    for (const char* piece : {":01", "64", "ZZ", "\r\n"}) {
      bench.pty.Write(FromText(piece));
      std::this_thread::sleep_for(std::chrono::milliseconds(700));
    }
  });
  unsigned char buffer[COMEGATRLowLevelConnector::kBufferSize] = {0};
  int got = 0;
  // 2.1 s of characters against a 1-second overall limit: every character moves it on
  bool ok = link.ReadCount(buffer, 9, got, 1);
  meter.join();
  EXPECT_TRUE(ok);
  EXPECT_EQ(got, 9);
  EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), 9), ":0164ZZ\r\n");
}

TEST(OMEGATRLink, BrokenFramingFailsTheRead) {
  struct Case {
    const char* name;
    std::string wire;
    bool ok;
    std::string stored;
  } cases[] = {
      {"double colon", "::0104\r\n", false, ""},
      {"colon inside the frame", ":01:04\r\n", false, ""},
      {"CR before the colon", "\r:0104B7\r\n", false, ""},
      {"second CR", ":0104\r\r\n", false, ""},
      {"LF without CR", ":0104B7\n", false, ""},
      {"noise before the colon", "xy:0104B7\r\n", true, ":0104B7\r\n"},
      {"too long", ":" + std::string(300, 'A') + "\r\n", false, ""},
      {"longest accepted", ":" + std::string(268, 'A') + "\r\n", true, ":" + std::string(268, 'A') + "\r\n"},
  };
  LogCapture log;
  for (const auto& c : cases) {
    LinkBench bench;
    COMEGATRLowLevelConnector link(bench.connector.get(), false);
    bench.pty.Write(FromText(c.wire));
    unsigned char buffer[COMEGATRLowLevelConnector::kBufferSize] = {0};
    int got = 0;
    auto start = Clock::now();
    bool ok = link.ReadCount(buffer, 9, got, 4);
    EXPECT_EQ(ok, c.ok) << c.name;
    EXPECT_LT(Millis(Clock::now() - start), 1000) << c.name;  // decided by the characters, not by a time-out
    if (c.ok) {
      EXPECT_EQ(std::string(reinterpret_cast<char*>(buffer), static_cast<size_t>(got)), c.stored) << c.name;
    }
  }
}

TEST(OMEGATRLink, ShortReplyIsNotLrcCheckedLongerOneIs) {
  LogCapture log;
  {
    // nine characters with an LRC that is not even hex: accepted as it stands
    LinkBench bench;
    ScriptedPeer peer(bench.pty.master(), UpToLf, Always(":0164ZZ\r\n"));
    COMEGATRLowLevelConnector link(bench.connector.get(), false);
    link.SetNetAddr(1);
    unsigned char request[] = {0x00, 100, 0x01};
    auto view = link.SendString(request, sizeof request, "Command");
    ASSERT_FALSE(view.empty());
    EXPECT_EQ(Bytes(view.data, view.data + view.length), (Bytes{0x01, 100}));
    EXPECT_EQ(peer.Requests().size(), 1u);
    EXPECT_EQ(log.Count("WRONG CS"), 0u);
  }
  {
    // eleven characters with a wrong LRC: refused and asked again
    LinkBench bench;
    std::string good = Frame({0x01, 100, 0x00, 0x00});
    ScriptedPeer peer(bench.pty.master(), UpToLf, [&](size_t index, const Bytes&, ScriptedPeer& p) {
      p.Send(index == 0 ? std::string(":01640000FF\r\n") : good);
    });
    COMEGATRLowLevelConnector link(bench.connector.get(), false);
    link.SetNetAddr(1);
    unsigned char request[] = {0x00, 100, 0x01};
    auto view = link.SendString(request, sizeof request, "Command");
    ASSERT_FALSE(view.empty());
    EXPECT_EQ(view.length, 4);
    EXPECT_EQ(peer.Requests().size(), 2u);
    EXPECT_EQ(peer.Requests()[1], peer.Requests()[0]);
    char expected[80];
    // '0','1','6','4' and four '0' sum to 0x18B; 0x100 - 0x8B = 0x75
    snprintf(expected, sizeof expected, "COMEGATRLowLevelConnector::SendString - WRONG CS: x%02x, got x%02x", 0x75, 0xFF);
    EXPECT_EQ(log.Count(expected), 1u) << log.Text();
  }
}

TEST(OMEGATRLink, FiveBadRepliesThenWrongPacketAndNoSixthWrite) {
  LogCapture log;
  LinkBench bench;
  ScriptedPeer peer(bench.pty.master(), UpToLf, Always(":01040200010000\r\n"));
  COMEGATRLowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(1);
  unsigned char request[] = {0x00, 0x04, 0x00, 0x00, 0x00, 0x01};
  EXPECT_THROW(link.SendString(request, sizeof request, "ReadCurrent", true), CWrongPacketException);
  EXPECT_EQ(peer.Requests().size(), 5u);
  EXPECT_EQ(log.Count("WRONG CS"), 5u);
  EXPECT_EQ(link.GetLastError(), 0);
}

TEST(OMEGATRLink, CommandErrorByteFailsTheExchange) {
  LogCapture log;
  LinkBench bench;
  ScriptedPeer peer(bench.pty.master(), UpToLf, Always(Frame({0x02, 101, 0x00, 0x05})));
  COMEGATRLowLevelConnector link(bench.connector.get(), false);
  link.SetNetAddr(2);
  unsigned char request[] = {0x00, 101};

  EXPECT_TRUE(link.SendString(request, sizeof request, "SetClock", true).empty());
  EXPECT_EQ(link.GetLastError(), 5);
  EXPECT_THROW(link.SendString(request, sizeof request, "SetClock"), CDisconnectException);
  EXPECT_EQ(link.GetLastError(), 5);
  EXPECT_EQ(peer.Requests().size(), 2u);  // a reply that carries an error is not asked again

  auto lines = mcdtest::ReadLines(bench.root.storage("OMEGATR.debug.log"));
  ASSERT_EQ(lines.size(), 2u);
  const std::string tail =
      " COMEGATRLowLevelConnector::CheckResult - Error on return answer. Code error 5. function 101 Func name - SetClock";
  EXPECT_EQ(lines[1].substr(lines[1].size() - tail.size()), tail);
}

TEST(OMEGATRLink, CheckResultCases) {
  LogCapture log;
  LinkBench bench;
  COMEGATRLowLevelConnector link(bench.connector.get(), false);
  const unsigned char read4[] = {0x01, 0x04, 0x00, 0x00, 0x00, 0x02};
  const unsigned char cmd104[] = {0x01, 104};
  const unsigned char other[] = {0x01, 0x06, 0x00, 0x01};

  const unsigned char readOk[] = {0x01, 0x04, 0x04, 1, 2, 3, 4};
  EXPECT_EQ(link.CheckResult(read4, readOk, 7, "R", false), 0);

  const unsigned char wrongAddr[] = {0x03, 0x04, 0x04, 1, 2, 3, 4};
  EXPECT_EQ(link.CheckResult(read4, wrongAddr, 7, "R", true), -1);
  EXPECT_EQ(link.GetLastError(), 0xFF);
  EXPECT_THROW(link.CheckResult(read4, wrongAddr, 7, "R", false), CDisconnectException);
  EXPECT_EQ(log.Count("Wrong addr: sent 1, ret 3"), 2u) << log.Text();

  const unsigned char wrongFunc[] = {0x01, 0x14, 0x04, 1, 2, 3, 4};
  EXPECT_THROW(link.CheckResult(read4, wrongFunc, 7, "R", false), CDisconnectException);
  EXPECT_EQ(log.Count("Wrong func: sent 4, ret 14"), 1u);

  // a count of 4 needs 7 bytes; a short reply is refused without an exception
  EXPECT_EQ(link.CheckResult(read4, readOk, 6, "R", false), -1);
  EXPECT_EQ(log.Count("COMEGATRLowLevelConnector::CheckResult:Func 04 - wrong data len, need x04+3, got x06"), 1u);
  EXPECT_EQ(link.CheckResult(read4, readOk, 2, "R", false), -1);
  EXPECT_EQ(log.Count("COMEGATRLowLevelConnector::CheckResult - No data in returned answer. Func 04"), 1u);

  const unsigned char version[] = {0x01, 104, 0x01, 0x07};
  EXPECT_EQ(link.CheckResult(cmd104, version, 4, "V", false), 0);
  EXPECT_EQ(link.CheckResult(cmd104, version, 3, "V", false), -1);
  EXPECT_EQ(log.Count("Func 68 - wrong data len, need 4, got x03"), 1u);

  const unsigned char otherReply[] = {0x01, 0x06, 0x00, 0x01};
  EXPECT_EQ(link.CheckResult(other, otherReply, 4, "W", true), -1);
  EXPECT_THROW(link.CheckResult(other, otherReply, 4, "W", false), CDisconnectException);
  EXPECT_EQ(log.Count("Wrong cmd: sent 6, ret 6"), 2u);
  EXPECT_EQ(link.GetLastError(), 0xFF);

  // a good check clears the last error
  EXPECT_EQ(link.CheckResult(read4, readOk, 7, "R", false), 0);
  EXPECT_EQ(link.GetLastError(), 0);
}
