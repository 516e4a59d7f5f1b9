// The serial connectors on real pseudo-terminals.
#include "transport/connector.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <mutex>
#include <thread>

#include "support/test_support.h"
#include "transport/modbus_connector.h"

namespace {
// A pseudo-terminal forces 8 data bits and no parity whatever it is told, so the
// settings are checked as handed to tcsetattr.
std::mutex g_mutex;
termios g_passed{};
int g_calls = 0;
}  // namespace

// Takes the place of the C library's function for every caller and forwards to it.
extern "C" int tcsetattr(int fd, int action, const struct termios* settings) {
  using Real = int (*)(int, int, const struct termios*);
  static Real real = reinterpret_cast<Real>(dlsym(RTLD_NEXT, "tcsetattr"));
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_passed = *settings;
    g_calls += action == TCSAFLUSH;
  }
  return real ? real(fd, action, settings) : -1;
}

namespace {

using namespace std::chrono;
using Params = std::map<std::string, std::string>;

double SecondsSince(steady_clock::time_point start) { return duration<double>(steady_clock::now() - start).count(); }

class ConnectorTest : public ::testing::Test {
 protected:
  std::unique_ptr<CConnector> Open(Params params) {
    if (!params.count("name")) params["name"] = pty.slaveName();
    return std::unique_ptr<CConnector>(CConnector::CreateConnector(params));
  }
  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  mcdtest::LogCapture log;
};

TEST_F(ConnectorTest, LineSettingsAreRawFromZeroWithSizeParityStopAndSpeed) {
  const struct {
    Params params;
    tcflag_t cflag;
  } cases[] = {
      {{{"protocol", "Modbus"}}, CREAD | CLOCAL | CS8 | B9600},  // only "modbus" makes the Modbus variant
      {{{"speed", "115200"}, {"data", "7"}, {"parity", "E"}}, CREAD | CLOCAL | CS7 | PARENB | B115200},
      {{{"speed", "14400"}, {"data", "5"}, {"parity", "O"}, {"stop", "2"}},
       CREAD | CLOCAL | CS5 | PARENB | PARODD | CSTOPB | B9600},
  };
  for (const auto& c : cases) {
    g_calls = 0;
    auto connector = Open(c.params);
    ASSERT_GT(connector->GetFd(), 0);
    std::lock_guard<std::mutex> lock(g_mutex);
    EXPECT_EQ(1, g_calls);
    EXPECT_EQ(c.cflag, g_passed.c_cflag);
    EXPECT_EQ(0u, g_passed.c_iflag | g_passed.c_oflag | g_passed.c_lflag);
    EXPECT_EQ(15, g_passed.c_cc[VTIME]);
    EXPECT_EQ(0, g_passed.c_cc[VMIN]);
  }
  EXPECT_EQ(3u, log.Count("The CConnector is created in as simple UART."));
}

TEST_F(ConnectorTest, DeviceAbsentOrVanishedIsOpenedAgainEveryTenSeconds) {
  mcdtest::FakeClock clock;
  const std::string path = root.tmp("ttyUSB");
  auto c = Open({{"name", path}});
  const unsigned char b[1] = {0x5A};
  unsigned char r[1];
  EXPECT_EQ(-1, c->WriteBuffer(b, 1, true));
  auto first = std::make_unique<mcdtest::PtyPair>();
  ASSERT_EQ(0, symlink(first->slaveName().c_str(), path.c_str()));
  clock.Advance(9);
  EXPECT_EQ(-1, c->WriteBuffer(b, 1, false));
  clock.Advance(1);
  EXPECT_EQ(1, c->WriteBuffer(b, 1, false));
  EXPECT_EQ(std::vector<unsigned char>{0x5A}, first->Read(1, milliseconds(1000)));
  first.reset();  // unplugged: the line hangs up
  EXPECT_EQ(-1, c->ReadBuffer(r, 1, false));
  EXPECT_LT(c->GetFd(), 0);
  ASSERT_EQ(0, unlink(path.c_str()));
  ASSERT_EQ(0, symlink(pty.slaveName().c_str(), path.c_str()));
  clock.Advance(10);
  EXPECT_EQ(1, c->WriteBuffer(b, 1, false));
  EXPECT_EQ(std::vector<unsigned char>{0x5A}, pty.Read(1, milliseconds(1000)));
  pty.Write({0x33});
  EXPECT_EQ(1, c->ReadBufferCycle(r, 1, false, 1000));
  EXPECT_EQ(0x33, r[0]);
  // one line per change of state, however many attempts failed
  EXPECT_EQ(1u, log.Count(path + ": No such file or directory; opening again every 10 sec."));
  EXPECT_EQ(1u, log.Count("CConnector - device " + path + " lost ("));
  EXPECT_EQ(2u, log.Count("CConnector::open_device - device " + path + " is open again."));
}

// A second connector on the line is refused; a flush drops what is unread; a read
// collects a frame arriving in pieces and waits its time-out (1.5 s when not given).
TEST_F(ConnectorTest, OneConnectorALineFlushAndReadsInPieces) {
  auto c = Open({});
  auto second = Open({});
  EXPECT_TRUE(second->LineBusy());
  EXPECT_LT(second->GetFd(), 0);
  EXPECT_EQ("Device " + pty.slaveName() + " is in use by an unknown process; one process serves every meter of a line.",
            second->BusyMessage());
  const unsigned char frame[] = {0x01, 0x03, 0xff};
  EXPECT_EQ(3, c->WriteBuffer(frame, sizeof frame, false));
  EXPECT_EQ(std::vector<unsigned char>(frame, frame + 3), pty.Read(3, milliseconds(1000)));
  pty.Write({1, 2, 3, 4});
  int pending = 0;
  ASSERT_TRUE(mcdtest::WaitFor([&] { return ioctl(c->GetFd(), FIONREAD, &pending) == 0 && pending == 4; }, seconds(1)));
  EXPECT_EQ(0, c->flush());
  unsigned char in[8] = {0};
  auto start = steady_clock::now();
  EXPECT_EQ(-1, c->ReadBufferCycle(in, 4, false, 200));
  EXPECT_GE(SecondsSince(start), 0.19);
  EXPECT_LT(SecondsSince(start), 1.0);
  std::thread meter([&] {
    pty.Write({0x11, 0x22});
    std::this_thread::sleep_for(milliseconds(150));
    pty.Write({0x33, 0x44, 0x55, 0x66});  // one byte more than asked
  });
  EXPECT_EQ(5, c->ReadBufferCycle(in, 5, false, 1000));
  meter.join();
  EXPECT_EQ(0x55, in[4]);
  start = steady_clock::now();
  EXPECT_EQ(1, c->ReadBufferCycle(in, 4, false));  // the surplus byte, after the 1.5 s wait
  EXPECT_EQ(0x66, in[0]);
  EXPECT_GE(SecondsSince(start), 1.45);
  EXPECT_EQ(2u, log.Count("CConnector::ReadBufferCycle - Timeout receiving data."));
}

}  // namespace

namespace {

// The wait after a short read ends as soon as the bytes due are there, not at its
// time-out; bytes that do not come cost the whole time-out.
TEST_F(ConnectorTest, WaitForBytesEndsWhenTheBytesAreThere) {
  auto c = Open({});
  std::thread meter([&] {
    pty.Write({0x11});
    std::this_thread::sleep_for(milliseconds(100));
    pty.Write({0x22, 0x33, 0x44});
  });
  auto start = steady_clock::now();
  EXPECT_TRUE(c->WaitForBytes(4, 3000000));
  EXPECT_GE(SecondsSince(start), 0.09);
  EXPECT_LT(SecondsSince(start), 1.0);
  meter.join();
  start = steady_clock::now();
  EXPECT_FALSE(c->WaitForBytes(5, 300000));
  EXPECT_GE(SecondsSince(start), 0.29);
  EXPECT_LT(SecondsSince(start), 2.0);
  unsigned char in[8] = {0};
  EXPECT_EQ(4, c->ReadBuffer(in, 8, false));
}

// An RTU slave that answers at once still sees 3.5 characters of quiet (11 bits a
// character at 1200 baud with even parity: 32 ms) before the next request.
TEST_F(ConnectorTest, ModbusRequestsKeepTheFrameGapAfterAnAnswer) {
  auto c = Open({{"protocol", "modbus"}, {"speed", "1200"}, {"parity", "E"}});
  auto* modbus = dynamic_cast<CModbusConnector*>(c.get());
  ASSERT_NE(nullptr, modbus);
  EXPECT_EQ(32083, modbus->FrameGapMicros());
  const std::vector<unsigned char> request = {0x01, 0x04, 0x00, 0x00, 0x00, 0x01, 0x31, 0xCA};
  steady_clock::time_point answered, next;
  std::thread meter([&] {
    EXPECT_EQ(request, pty.Read(8, milliseconds(2000)));
    pty.Write({0x01, 0x04, 0x02, 0x00, 0x2A, 0x38, 0xEF});
    answered = steady_clock::now();
    EXPECT_EQ(request, pty.Read(8, milliseconds(2000)));
    next = steady_clock::now();
    pty.Write({0x01, 0x04, 0x02, 0x00, 0x2A, 0x38, 0xEF});
  });
  CModbusMeterLink link(modbus, 1);
  uint16_t value = 0;
  link.ReadInput(0, 1, &value);
  EXPECT_EQ(42, value);
  link.ReadInput(0, 1, &value);
  meter.join();
  EXPECT_GE(duration<double>(next - answered).count(), 0.031);
}

}  // namespace
