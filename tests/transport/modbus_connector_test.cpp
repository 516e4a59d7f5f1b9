// The Modbus connector against a libmodbus RTU slave on the other end of a pty.
#include "transport/modbus_connector.h"

#include <gtest/gtest.h>
#include <poll.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>

#include "support/test_support.h"

namespace {

using namespace std::chrono;

// Ten holding registers 0x1000 + 0x111 i, answered on the master side of the pty.
class RtuSlave {
 public:
  explicit RtuSlave(mcdtest::PtyPair& pty) {
    m_ctx = modbus_new_rtu(pty.slaveName().c_str(), 9600, 'N', 8, 1);
    modbus_set_socket(m_ctx, pty.master());
    modbus_set_slave(m_ctx, 1);
    m_map = modbus_mapping_new(0, 0, 10, 0);
    for (int i = 0; i < 10; ++i) m_map->tab_registers[i] = static_cast<uint16_t>(0x1000 + i * 0x111);
    m_thread = std::thread([this, fd = pty.master()] {
      uint8_t query[MODBUS_RTU_MAX_ADU_LENGTH];
      while (!m_stop.load()) {
        pollfd p{fd, POLLIN, 0};
        if (poll(&p, 1, 20) <= 0) continue;
        const int n = modbus_receive(m_ctx, query);
        if (n <= 0) continue;
        modbus_reply(m_ctx, query, n, m_map);
        served.fetch_add(1);
      }
    });
  }
  ~RtuSlave() {
    m_stop.store(true);
    m_thread.join();
    modbus_mapping_free(m_map);
    modbus_free(m_ctx);  // the descriptor belongs to the pty pair
  }
  uint16_t Register(int i) const { return m_map->tab_registers[i]; }
  std::atomic<int> served{0};

 private:
  modbus_t* m_ctx;
  modbus_mapping_t* m_map;
  std::atomic<bool> m_stop{false};
  std::thread m_thread;
};

std::unique_ptr<CConnector> Create(std::map<std::string, std::string> params) {
  params["protocol"] = "modbus";
  return std::unique_ptr<CConnector>(CConnector::CreateConnector(params));
}

TEST(ModbusConnector, TalksToARealSlaveWithSlaveOneAndTheFixedTimeouts) {
  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  mcdtest::PtyPair pty;
  RtuSlave slave(pty);
  auto c = Create({{"name", pty.slaveName()}, {"speed", "19200"}, {"parity", "E"}});
  modbus_t* ctx = static_cast<CModbusConnector*>(c.get())->GetContext();
  ASSERT_NE(nullptr, ctx);
  EXPECT_EQ(1u, log.Count("The CConnector is created in the \"Modbus\" mode."));
  EXPECT_EQ(1, modbus_get_slave(ctx));
  uint32_t sec = 0, usec = 0;
  modbus_get_byte_timeout(ctx, &sec, &usec);
  EXPECT_EQ(1500000u, sec * 1000000 + usec);
  modbus_get_response_timeout(ctx, &sec, &usec);
  EXPECT_EQ(3000000u, sec * 1000000 + usec);
  uint16_t regs[4] = {0};
  {
    ModbusLock lock(*c);
    ASSERT_EQ(4, modbus_read_registers(ctx, 2, 4, regs)) << modbus_strerror(errno);
    ASSERT_EQ(1, modbus_write_register(ctx, 9, 0xBEEF)) << modbus_strerror(errno);
  }
  EXPECT_EQ(0x1222, regs[0]);
  EXPECT_EQ(0x1555, regs[3]);
  ASSERT_TRUE(mcdtest::WaitFor([&] { return slave.served.load() == 2; }, seconds(2)));
  EXPECT_EQ(0xBEEF, slave.Register(9));
  // the raw byte operations are refused, and nothing reaches the line
  const unsigned char out[3] = {1, 2, 3};
  EXPECT_EQ(-1, c->WriteBuffer(out, 3, true));
  unsigned char in[3];
  EXPECT_EQ(-1, c->ReadBufferCycle(in, 3, true, 10));
}

TEST(ModbusConnector, AFailedOpenLeavesNoContextAndIsTriedAgain) {
  mcdtest::TempRoot root;
  mcdtest::LogCapture log;
  const std::string missing = root.tmp("no-such-tty");
  auto c = Create({{"name", missing}});
  EXPECT_EQ(nullptr, static_cast<CModbusConnector*>(c.get())->GetContext());
  EXPECT_EQ(-1, c->flush());
  EXPECT_FALSE(c->open_device());
  EXPECT_EQ(2u, log.Count("CModbusConnector::open_device - Connection failed. Unable to open device " + missing + "."));
}

}  // namespace
