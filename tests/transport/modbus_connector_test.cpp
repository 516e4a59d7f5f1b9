// The Modbus connector against a libmodbus RTU slave on the other end of a
// pseudo-terminal.
#include "transport/modbus_connector.h"

#include <poll.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "support/test_support.h"
#include "termios_probe.h"
#include "transport_helpers.h"

using namespace std::chrono;
using transporttest::LogCapture;

namespace {

// A Modbus RTU slave with ten holding registers, answering on the master side of
// the pty. libmodbus is given the master descriptor directly; the thread polls so
// that it can be stopped between requests.
class RtuSlave {
 public:
  explicit RtuSlave(mcdtest::PtyPair& pty, int address = 1) {
    m_ctx = modbus_new_rtu(pty.slaveName().c_str(), 9600, 'N', 8, 1);
    modbus_set_socket(m_ctx, pty.master());
    modbus_set_slave(m_ctx, address);
    m_map = modbus_mapping_new(0, 0, 10, 0);
    for (int i = 0; i < 10; ++i) m_map->tab_registers[i] = static_cast<uint16_t>(0x1000 + i * 0x111);
    m_thread = std::thread([this, fd = pty.master()] { Serve(fd); });
  }
  ~RtuSlave() {
    m_stop.store(true);
    m_thread.join();
    modbus_mapping_free(m_map);
    modbus_free(m_ctx);  // the descriptor belongs to the pty pair
  }
  // Register values as the slave holds them; read only while no request is served.
  uint16_t Register(int i) const { return m_map->tab_registers[i]; }
  int Served() const { return m_served.load(); }

 private:
  void Serve(int fd) {
    uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH];
    while (!m_stop.load()) {
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, 20) <= 0) continue;
      int n = modbus_receive(m_ctx, query);
      if (n > 0) {
        modbus_reply(m_ctx, query, n, m_map);
        m_served.fetch_add(1);
      }
    }
  }

  modbus_t* m_ctx;
  modbus_mapping_t* m_map;
  std::atomic<bool> m_stop{false};
  std::atomic<int> m_served{0};
  std::thread m_thread;
};

class ModbusConnectorTest : public ::testing::Test {
 protected:
  mcdtest::TempRoot root;
  mcdtest::PtyPair pty;
  LogCapture log{root.tmp("mcd.log")};

  std::unique_ptr<CConnector> Create(std::map<std::string, std::string> params) {
    params["protocol"] = "modbus";
    return std::unique_ptr<CConnector>(CConnector::CreateConnector(params));
  }
};

TEST_F(ModbusConnectorTest, ReadsAndWritesRegistersOfARealSlave) {
  RtuSlave slave(pty);
  auto c = Create({{"name", pty.slaveName()}, {"speed", "19200"}, {"parity", "E"}});
  auto* m = dynamic_cast<CModbusConnector*>(c.get());
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(1, log.Count("The CConnector is created in the \"Modbus\" mode."));
  ASSERT_NE(nullptr, m->GetContext());
  EXPECT_EQ(-1, c->GetFd());  // the line belongs to libmodbus

  uint16_t regs[4] = {0};
  {
    ModbusLock lock(*c);
    ASSERT_EQ(4, modbus_read_registers(m->GetContext(), 2, 4, regs)) << modbus_strerror(errno);
    ASSERT_EQ(1, modbus_write_register(m->GetContext(), 9, 0xBEEF)) << modbus_strerror(errno);
  }
  EXPECT_EQ(0x1222, regs[0]);
  EXPECT_EQ(0x1555, regs[3]);
  ASSERT_TRUE(mcdtest::WaitFor([&] { return slave.Served() == 2; }, seconds(2)));
  EXPECT_EQ(0xBEEF, slave.Register(9));
}

TEST_F(ModbusConnectorTest, ContextIsSetUpForSlaveOneWithTheFixedTimeouts) {
  transporttest::ResetTcsetattr();
  auto c = Create({{"name", pty.slaveName()}, {"speed", "38400"}, {"data", "7"}, {"parity", "O"},
                   {"stop", "2"}, {"timeout", "200"}});
  modbus_t* ctx = static_cast<CModbusConnector*>(c.get())->GetContext();
  ASSERT_NE(nullptr, ctx);
  EXPECT_EQ(1, modbus_get_slave(ctx));
  uint32_t sec = 0, usec = 0;
  modbus_get_byte_timeout(ctx, &sec, &usec);
  EXPECT_EQ(1u, sec);
  EXPECT_EQ(500000u, usec);
  modbus_get_response_timeout(ctx, &sec, &usec);
  EXPECT_EQ(3u, sec);
  EXPECT_EQ(0u, usec);
  // the line parameters reach the terminal through libmodbus
  transporttest::TermiosCall call = transporttest::LastTcsetattr();
  ASSERT_GE(call.calls, 1);
  EXPECT_EQ(B38400, cfgetospeed(&call.settings));
  EXPECT_EQ(CS7, call.settings.c_cflag & CSIZE);
  EXPECT_EQ(static_cast<tcflag_t>(PARENB | PARODD), call.settings.c_cflag & (PARENB | PARODD));
  EXPECT_NE(0u, call.settings.c_cflag & CSTOPB);
}

TEST_F(ModbusConnectorTest, RawOperationsAreRefused) {
  auto c = Create({{"name", pty.slaveName()}});
  const unsigned char out[3] = {1, 2, 3};
  unsigned char in[3];
  EXPECT_EQ(-1, c->WriteBuffer(out, 3, true));
  EXPECT_EQ(-1, c->ReadBuffer(in, 3, true));
  EXPECT_EQ(-1, c->ReadBufferCycle(in, 3, true, 10));
  EXPECT_EQ(-1, c->drain());
  EXPECT_TRUE(pty.Read(1, milliseconds(100)).empty());
  EXPECT_EQ("0", mcdtest::ReadFile(root.leds("kr_red")));
  EXPECT_EQ(0, log.Count("Timeout"));
}

TEST_F(ModbusConnectorTest, FlushWaitsForTheConnectorMutex) {
  auto c = Create({{"name", pty.slaveName()}});
  std::atomic<int> result{1};
  std::atomic<bool> done{false};
  std::thread flusher;
  {
    ModbusLock lock(*c);
    flusher = std::thread([&] {
      result.store(c->flush());
      done.store(true);
    });
    std::this_thread::sleep_for(milliseconds(100));
    EXPECT_FALSE(done.load());
  }
  flusher.join();
  EXPECT_EQ(0, result.load());
}

TEST_F(ModbusConnectorTest, WithoutANameTheContextIsRefused) {
  auto c = Create({});
  auto* m = dynamic_cast<CModbusConnector*>(c.get());
  ASSERT_NE(nullptr, m);
  EXPECT_EQ(nullptr, m->GetContext());
  EXPECT_EQ("/dev/ttyS1", c->GetName());
  EXPECT_EQ(1, log.Count("CModbusConnector::open_device - Unable to allocate libmodbus context and open device "
                         "/dev/ttyS1."));
  EXPECT_EQ(-1, c->flush());
}

TEST_F(ModbusConnectorTest, FailedConnectLeavesNoContextAndCanBeRetried) {
  std::string missing = root.tmp("no-such-tty");
  auto c = Create({{"name", missing}});
  auto* m = static_cast<CModbusConnector*>(c.get());
  EXPECT_EQ(nullptr, m->GetContext());
  EXPECT_EQ(1, log.Count("CModbusConnector::open_device - Connection failed. Unable to open device " + missing + "."));
  EXPECT_EQ(-1, c->flush());
  EXPECT_FALSE(c->open_device());
  EXPECT_EQ(2, log.Count("Connection failed."));
}

TEST_F(ModbusConnectorTest, ReopeningReplacesTheContext) {
  RtuSlave slave(pty);
  auto c = Create({{"name", pty.slaveName()}});
  auto* m = static_cast<CModbusConnector*>(c.get());
  ASSERT_TRUE(c->open_device());
  ASSERT_NE(nullptr, m->GetContext());
  uint16_t reg = 0;
  ModbusLock lock(*c);
  ASSERT_EQ(1, modbus_read_registers(m->GetContext(), 0, 1, &reg)) << modbus_strerror(errno);
  EXPECT_EQ(0x1000, reg);
}

}  // namespace
