// The plain serial connector on real pseudo-terminals.
#include "transport/connector.h"

#include <dirent.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <pthread.h>
#include <signal.h>
#include <termios.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "app/clock.h"
#include "support/test_support.h"
#include "transport/led.h"
#include "transport/modbus_connector.h"
#include "termios_probe.h"
#include "transport_helpers.h"

using namespace std::chrono;
using transporttest::LogCapture;

namespace {

using Params = std::map<std::string, std::string>;

class ConnectorTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  LogCapture log{root.tmp("mcd.log")};

  std::unique_ptr<CConnector> Open(Params params) {
    if (!params.count("name")) params["name"] = pty.slaveName();
    transporttest::ResetTcsetattr();
    return std::unique_ptr<CConnector>(CConnector::CreateConnector(params));
  }

  // The settings as handed to the terminal by the last open.
  termios Passed(const CConnector& c) {
    transporttest::TermiosCall call = transporttest::LastTcsetattr();
    EXPECT_EQ(1, call.calls);
    EXPECT_EQ(c.GetFd(), call.fd);
    EXPECT_EQ(TCSAFLUSH, call.action);
    return call.settings;
  }

  termios Settings(const CConnector& c) {
    termios t{};
    EXPECT_EQ(0, tcgetattr(c.GetFd(), &t));
    return t;
  }
};

double SecondsSince(steady_clock::time_point start) {
  return duration<double>(steady_clock::now() - start).count();
}

// How many descriptors of this process refer to the given device.
int DescriptorsOn(int deviceFd) {
  struct stat device;
  if (fstat(deviceFd, &device) != 0) return -1;
  int n = 0;
  DIR* dir = opendir("/proc/self/fd");
  if (!dir) return -1;
  while (dirent* entry = readdir(dir)) {
    struct stat st;
    std::string path = std::string("/proc/self/fd/") + entry->d_name;
    if (entry->d_name[0] != '.' && stat(path.c_str(), &st) == 0 && S_ISCHR(st.st_mode) &&
        st.st_rdev == device.st_rdev)
      ++n;
  }
  closedir(dir);
  return n;
}

TEST_F(ConnectorTest, DefaultsAreRaw9600Eight_None_One) {
  auto c = Open({});
  ASSERT_GT(c->GetFd(), 0);
  termios t = Settings(*c);
  EXPECT_EQ(B9600, cfgetospeed(&t));
  EXPECT_EQ(B9600, cfgetispeed(&t));
  EXPECT_EQ(CS8, t.c_cflag & CSIZE);
  EXPECT_EQ(0u, t.c_cflag & (PARENB | PARODD));
  EXPECT_EQ(0u, t.c_cflag & CSTOPB);
  EXPECT_EQ(0u, t.c_cflag & CRTSCTS);
  EXPECT_NE(0u, t.c_cflag & CREAD);
  EXPECT_NE(0u, t.c_cflag & CLOCAL);
  EXPECT_EQ(0u, t.c_lflag & (ICANON | ECHO | ISIG));
  EXPECT_EQ(0u, t.c_iflag & (ICRNL | IXON | IXOFF));
  EXPECT_EQ(0u, t.c_oflag & OPOST);
  EXPECT_EQ(15, t.c_cc[VTIME]);
  EXPECT_EQ(0, t.c_cc[VMIN]);
  termios passed = Passed(*c);
  EXPECT_EQ(CS8, passed.c_cflag & CSIZE);
  EXPECT_EQ(0u, passed.c_cflag & (PARENB | PARODD));
  // built from zero: nothing but receiver, local line, size and speed
  EXPECT_EQ(0u, passed.c_iflag);
  EXPECT_EQ(0u, passed.c_oflag);
  EXPECT_EQ(0u, passed.c_lflag);
  EXPECT_EQ(static_cast<tcflag_t>(CREAD | CLOCAL | CS8 | B9600), passed.c_cflag);
  EXPECT_EQ(1, log.Count("The CConnector is created in as simple UART."));
}

TEST_F(ConnectorTest, SpeedComesFromTheTableOrFallsBackTo9600) {
  struct Case {
    const char* speed;
    speed_t expected;
  } cases[] = {{"115200", B115200}, {"19200", B19200}, {"1200", B1200},
               {"14400", B9600},    {"921600", B921600}, {"4000000", B4000000},
               // atoi gives 0, which is a rate of the table (hang-up)
               {"abc", B0}};
  for (const Case& k : cases) {
    auto c = Open({{"speed", k.speed}});
    termios t = Settings(*c);
    EXPECT_EQ(k.expected, cfgetospeed(&t)) << k.speed;
    EXPECT_EQ(k.expected, cfgetispeed(&t)) << k.speed;
  }
  // an unknown rate is no error
  EXPECT_EQ(0, log.Count("CConnector::open_device"));
}

TEST_F(ConnectorTest, CharacterSize) {
  struct Case {
    const char* data;
    tcflag_t expected;
  } cases[] = {{"5", CS5}, {"6", CS6}, {"7", CS7}, {"8", CS8}, {"4", CS8}, {"9", CS8}, {"x", CS8}};
  for (const Case& k : cases) {
    auto c = Open({{"data", k.data}});
    EXPECT_EQ(k.expected, Passed(*c).c_cflag & CSIZE) << k.data;
  }
}

TEST_F(ConnectorTest, ParityAndStopBits) {
  struct Case {
    const char* parity;
    const char* stop;
    tcflag_t parityBits;
    bool twoStop;
  } cases[] = {{"E", "1", PARENB, false}, {"O", "2", PARENB | PARODD, true}, {"e", "1.5", 0, false},
               {"N", "2", 0, true},       {"o", "", 0, false}};
  for (const Case& k : cases) {
    auto c = Open({{"parity", k.parity}, {"stop", k.stop}, {"data", "7"}});
    termios passed = Passed(*c);
    EXPECT_EQ(k.parityBits, passed.c_cflag & (PARENB | PARODD)) << k.parity;
    EXPECT_EQ(k.twoStop, (passed.c_cflag & CSTOPB) != 0) << k.stop;
    EXPECT_EQ(CS7, passed.c_cflag & CSIZE);
    // the terminal keeps the stop bits and the speed
    termios t = Settings(*c);
    EXPECT_EQ(k.twoStop, (t.c_cflag & CSTOPB) != 0) << k.stop;
    EXPECT_EQ(B9600, cfgetospeed(&t));
  }
}

TEST_F(ConnectorTest, FactoryChoosesTheVariantByExactProtocolName) {
  auto plain = Open({{"protocol", "Modbus"}});
  EXPECT_EQ(nullptr, dynamic_cast<CModbusConnector*>(plain.get()));
  EXPECT_GT(plain->GetFd(), 0);
  EXPECT_EQ(pty.slaveName(), plain->GetName());
  // the device is a raw tty, so bytes really pass
  const unsigned char ping[] = {0x10, 0x5B};
  EXPECT_EQ(2, plain->WriteBuffer(ping, 2, false));
  EXPECT_EQ(std::vector<unsigned char>({0x10, 0x5B}), pty.Read(2, milliseconds(1000)));
  EXPECT_EQ(1, log.Count("The CConnector is created in as simple UART."));
  EXPECT_EQ(0, log.Count("\"Modbus\" mode"));
}

// The monotonic clock of the reopening schedule, moved by the test.
class SteppedClock : public mcd::Clock {
 public:
  time_t Now() override { return now; }
  void Sleep(unsigned seconds) override { now += seconds; }
  time_t now = 1700000000;
};

TEST_F(ConnectorTest, AbsentDeviceIsOpenedOnceItAppears) {
  SteppedClock clock;
  mcd::SetClock(&clock);
  const std::string path = root.tmp("ttyLate");
  auto c = std::unique_ptr<CConnector>(CConnector::CreateConnector({{"name", path}}));
  ASSERT_NE(nullptr, c);
  EXPECT_LT(c->GetFd(), 0);
  EXPECT_FALSE(c->LineBusy());
  const unsigned char b[1] = {0x5A};
  unsigned char r[1];
  EXPECT_EQ(-1, c->WriteBuffer(b, 1, true));
  EXPECT_EQ(-1, c->ReadBufferCycle(r, 1, true, 50));
  EXPECT_EQ(-1, c->flush());

  // the adapter enumerates; the next attempt is due 10 s after the last one
  ASSERT_EQ(0, symlink(pty.slaveName().c_str(), path.c_str()));
  clock.now += 9;
  EXPECT_EQ(-1, c->WriteBuffer(b, 1, false));
  clock.now += 1;
  EXPECT_EQ(1, c->WriteBuffer(b, 1, false));
  EXPECT_EQ(std::vector<unsigned char>{0x5A}, pty.Read(1, milliseconds(1000)));
  // one line per change of state, however many attempts failed
  EXPECT_EQ(1, log.Count("CConnector::open_device - Unable open device " + path + "."));
  EXPECT_EQ(1, log.Count(path + ": No such file or directory; opening again every 10 sec."));
  EXPECT_EQ(1, log.Count("CConnector::open_device - device " + path + " is open again."));
  c.reset();
  mcd::SetClock(nullptr);
}

TEST_F(ConnectorTest, VanishedDeviceIsReopened) {
  SteppedClock clock;
  mcd::SetClock(&clock);
  auto first = std::make_unique<mcdtest::PtyPair>();
  const std::string path = root.tmp("ttyUSB");
  ASSERT_EQ(0, symlink(first->slaveName().c_str(), path.c_str()));
  auto c = Open({{"name", path}});
  ASSERT_GT(c->GetFd(), 0);

  first.reset();  // unplugged: the line hangs up
  unsigned char r[1];
  EXPECT_EQ(-1, c->ReadBuffer(r, 1, false));
  EXPECT_LT(c->GetFd(), 0);
  EXPECT_EQ(-1, c->ReadBuffer(r, 1, false));
  EXPECT_EQ(1, log.Count("CConnector - device " + path + " lost (")) << log.Text();

  ASSERT_EQ(0, unlink(path.c_str()));
  ASSERT_EQ(0, symlink(pty.slaveName().c_str(), path.c_str()));
  clock.now += 10;
  const unsigned char b[1] = {0x44};
  EXPECT_EQ(1, c->WriteBuffer(b, 1, false));
  EXPECT_EQ(std::vector<unsigned char>{0x44}, pty.Read(1, milliseconds(1000)));
  pty.Write({0x33});
  EXPECT_EQ(1, c->ReadBufferCycle(r, 1, false, 1000));
  EXPECT_EQ(0x33, r[0]);
  EXPECT_EQ(1, log.Count("CConnector::open_device - device " + path + " is open again."));
  c.reset();
  mcd::SetClock(nullptr);
}

TEST_F(ConnectorTest, SecondConnectorOnTheLineIsRefused) {
  auto c = Open({});
  ASSERT_GT(c->GetFd(), 0);
  auto second = Open({});
  EXPECT_TRUE(second->LineBusy());
  EXPECT_LT(second->GetFd(), 0);
  EXPECT_EQ("Device " + pty.slaveName() + " is in use by an unknown process; one process serves every meter of a line.",
            second->BusyMessage());
  second.reset();
  // the holder keeps the line
  const unsigned char b[1] = {0x11};
  EXPECT_EQ(1, c->WriteBuffer(b, 1, false));
}

TEST_F(ConnectorTest, WriteAndReadMoveBytesBothWays) {
  auto c = Open({{"speed", "19200"}});
  const unsigned char frame[] = {0x01, 0x03, 0x00, 0x10, 0xff};
  EXPECT_EQ(5, c->WriteBuffer(frame, sizeof frame, true));
  EXPECT_EQ(0, c->drain());
  EXPECT_EQ(std::vector<unsigned char>(frame, frame + 5), pty.Read(5, milliseconds(1000)));

  pty.Write({0xAA, 0xBB, 0xCC});
  unsigned char in[16] = {0};
  // wait for all three bytes, then one read hands them over together
  ASSERT_TRUE(mcdtest::WaitFor(
      [&] {
        int pending = 0;
        return ioctl(c->GetFd(), FIONREAD, &pending) == 0 && pending == 3;
      },
      milliseconds(1000)));
  EXPECT_EQ(3, c->ReadBuffer(in, sizeof in, true));
  EXPECT_EQ(0xAA, in[0]);
  EXPECT_EQ(0xCC, in[2]);
}

TEST_F(ConnectorTest, FlushDiscardsUnreadInput) {
  auto c = Open({});
  pty.Write({1, 2, 3, 4});
  ASSERT_TRUE(mcdtest::WaitFor(
      [&] {
        int pending = 0;
        return ioctl(c->GetFd(), FIONREAD, &pending) == 0 && pending == 4;
      },
      milliseconds(1000)));
  EXPECT_EQ(0, c->flush());
  unsigned char in[4];
  EXPECT_EQ(-1, c->ReadBufferCycle(in, 4, false, 100));
}

TEST_F(ConnectorTest, ReadTimesOutAfterTheFixedTimeout) {
  auto c = Open({{"timeout", "100"}});
  unsigned char in[8];
  auto start = steady_clock::now();
  EXPECT_EQ(-1, c->ReadBuffer(in, sizeof in, true));
  double waited = SecondsSince(start);
  EXPECT_GE(waited, 1.45);
  EXPECT_LT(waited, 2.5);
  EXPECT_EQ(1, log.Count("CConnector::ReadBuffer - Timeout receiving data. 0 - "));
}

TEST_F(ConnectorTest, CycleReturnsAPartialFrameAsAShortCount) {
  auto c = Open({});
  pty.Write({1, 2, 3, 4, 5, 6});
  unsigned char in[10] = {0};
  auto start = steady_clock::now();
  EXPECT_EQ(6, c->ReadBufferCycle(in, 10, false));
  double waited = SecondsSince(start);
  EXPECT_GE(waited, 1.45);
  EXPECT_LT(waited, 2.5);
  EXPECT_EQ(6, in[5]);
  EXPECT_EQ(0, in[6]);
  EXPECT_EQ(1, log.Count("CConnector::ReadBufferCycle - Timeout receiving data."));
}

TEST_F(ConnectorTest, CycleCollectsAFrameArrivingInPieces) {
  auto c = Open({});
  std::thread meter([&] {
    pty.Write({0x11, 0x22});
    std::this_thread::sleep_for(milliseconds(150));
    pty.Write({0x33});
    std::this_thread::sleep_for(milliseconds(150));
    pty.Write({0x44, 0x55, 0x66});  // one byte more than asked
  });
  unsigned char in[5] = {0};
  EXPECT_EQ(5, c->ReadBufferCycle(in, 5, false, 1000));
  meter.join();
  EXPECT_EQ(0x11, in[0]);
  EXPECT_EQ(0x33, in[2]);
  EXPECT_EQ(0x55, in[4]);
  // the surplus byte stays for the next read
  unsigned char rest[4] = {0};
  EXPECT_EQ(1, c->ReadBuffer(rest, sizeof rest, false));
  EXPECT_EQ(0x66, rest[0]);
  EXPECT_EQ(0, log.Count("Timeout"));
}

TEST_F(ConnectorTest, CycleWithNothingArrivingFails) {
  auto c = Open({});
  unsigned char in[4];
  auto start = steady_clock::now();
  EXPECT_EQ(-1, c->ReadBufferCycle(in, 4, false, 200));
  double waited = SecondsSince(start);
  EXPECT_GE(waited, 0.19);
  EXPECT_LT(waited, 1.0);  // the explicit time-out replaces the member one
  EXPECT_EQ(1, log.Count("CConnector::ReadBufferCycle - Timeout receiving data."));
}

std::atomic<int> g_signals{0};
void CountSignal(int) { g_signals.fetch_add(1); }

// Sends SIGUSR1 to the test thread after `signalAt`, then writes a byte to the
// meter side after `dataAt`.
class Interrupter {
 public:
  Interrupter(mcdtest::PtyPair& pty, milliseconds signalAt, milliseconds dataAt) : m_target(pthread_self()) {
    struct sigaction sa {};
    sa.sa_handler = CountSignal;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;  // no SA_RESTART: select must see EINTR
    sigaction(SIGUSR1, &sa, &m_old);
    g_signals.store(0);
    m_thread = std::thread([this, &pty, signalAt, dataAt] {
      std::this_thread::sleep_for(signalAt);
      pthread_kill(m_target, SIGUSR1);
      std::this_thread::sleep_for(dataAt - signalAt);
      pty.Write({0x42});
    });
  }
  ~Interrupter() {
    m_thread.join();
    sigaction(SIGUSR1, &m_old, nullptr);
  }

 private:
  pthread_t m_target;
  struct sigaction m_old {};
  std::thread m_thread;
};

TEST_F(ConnectorTest, SignalDuringReadRestartsTheFullWait) {
  auto c = Open({});
  unsigned char in[4] = {0};
  auto start = steady_clock::now();
  int got;
  {
    // The byte comes 2.0 s after the start: later than the first 1.5 s wait,
    // but within a fresh 1.5 s wait begun at the signal (1.0 s).
    Interrupter interrupter(pty, milliseconds(1000), milliseconds(2000));
    got = c->ReadBuffer(in, sizeof in, false);
  }
  EXPECT_EQ(1, g_signals.load());
  EXPECT_EQ(1, got);
  EXPECT_EQ(0x42, in[0]);
  EXPECT_GE(SecondsSince(start), 1.9);
  EXPECT_EQ(0, log.Count("Timeout"));
}

TEST_F(ConnectorTest, ClosedPortFailsAndReopens) {
  auto c = Open({});
  c->close_device();
  EXPECT_EQ(-1, c->GetFd());
  c->close_device();  // twice is harmless
  unsigned char in[2];
  EXPECT_EQ(-1, c->ReadBuffer(in, 2, false));
  EXPECT_EQ(1, log.Count("CConnector::ReadBuffer - Timeout receiving data. -1 - 9"));  // EBADF
  ASSERT_TRUE(c->open_device());
  ASSERT_GT(c->GetFd(), 0);
  pty.Write({7, 8});
  EXPECT_EQ(2, c->ReadBufferCycle(in, 2, false, 1000));
  EXPECT_EQ(8, in[1]);
}

TEST_F(ConnectorTest, OpeningAnOpenPortDoesNotLeakDescriptors) {
  auto c = Open({});
  EXPECT_EQ(2, DescriptorsOn(pty.slave()));  // the test's own end and the connector's
  for (int i = 0; i < 5; ++i) ASSERT_TRUE(c->open_device());
  EXPECT_EQ(2, DescriptorsOn(pty.slave()));
  c.reset();
  EXPECT_EQ(1, DescriptorsOn(pty.slave()));
}

TEST_F(ConnectorTest, WritesFlashLampAReadsFlashLampB) {
  auto c = Open({});
  EXPECT_EQ("manager LED \"A\"", c->GetLedA()->threadName());
  EXPECT_EQ("manager LED \"B\"", c->GetLedB()->threadName());
  const unsigned char b[1] = {0x55};
  ASSERT_EQ(1, c->WriteBuffer(b, 1, true));
  EXPECT_TRUE(mcdtest::WaitFor([&] { return mcdtest::ReadFile(root.leds("kr_red")) == "010"; }, seconds(2)));
  EXPECT_EQ("0", mcdtest::ReadFile(root.leds("lan")));

  pty.Write({0x66});
  unsigned char in[1];
  ASSERT_EQ(1, c->ReadBuffer(in, 1, true));
  EXPECT_TRUE(mcdtest::WaitFor([&] { return mcdtest::ReadFile(root.leds("lan")) == "010"; }, seconds(2)));

  // transfers with led = false leave both lamps alone
  ASSERT_EQ(1, c->WriteBuffer(b, 1, false));
  pty.Write({0x67});
  ASSERT_EQ(1, c->ReadBufferCycle(in, 1, false, 1000));
  std::this_thread::sleep_for(milliseconds(100));
  EXPECT_FALSE(c->GetLedA()->RequestPending());
  EXPECT_EQ("010", mcdtest::ReadFile(root.leds("kr_red")));
  EXPECT_EQ("010", mcdtest::ReadFile(root.leds("lan")));
}

TEST_F(ConnectorTest, DeletingTheConnectorSwitchesTheLampsOff) {
  auto c = Open({});
  const unsigned char b[1] = {0x55};
  ASSERT_EQ(1, c->WriteBuffer(b, 1, true));
  ASSERT_TRUE(mcdtest::WaitFor([&] { return mcdtest::ReadFile(root.leds("kr_red")) == "01"; }, seconds(2)));
  c.reset();  // in the middle of the flash
  EXPECT_EQ("010", mcdtest::ReadFile(root.leds("kr_red")));
}

}  // namespace
