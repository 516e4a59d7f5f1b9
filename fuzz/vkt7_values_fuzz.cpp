// VKT-7 answer parsing through the driver's own operations: the fuzzer plays a meter
// whose read answers carry fuzz data (count byte and data from the input) under a
// correct checksum, so that the parsers, not the link, see the input.
#include <algorithm>
#include <vector>

#include "drivers/base/crc16.h"
#include "drivers/vkt7/vkt7_driver.h"
#include "fuzz_support.h"

namespace {

class Vkt7FuzzMeter : public mcdfuzz::FuzzLine {
 public:
  Vkt7FuzzMeter(const uint8_t* data, size_t size) : m_data(data), m_size(size) {}

  int WriteBuffer(const unsigned char* buf, unsigned short len, bool) override {
    m_answer.clear();
    m_pos = 0;
    if (len < 6) return len;
    if (buf[3] == 0x10) {
      m_answer = {0x00, 0x10, buf[4], buf[5], 0x00, 0x00};
    } else if (m_next < m_size) {
      const size_t wanted = m_data[m_next++];
      const size_t count = std::min<size_t>(wanted, m_size - m_next);
      m_answer = {0x00, 0x03, static_cast<unsigned char>(count)};
      m_answer.insert(m_answer.end(), m_data + m_next, m_data + m_next + count);
      m_next += count;
    } else {
      return len;  // input used up: silence
    }
    m_answer.resize(m_answer.size() + 2);
    mcd::AppendCrc16(m_answer.data(), m_answer.size() - 2);
    return len;
  }
  int ReadBuffer(unsigned char* buf, unsigned short len, bool) override {
    if (m_pos >= m_answer.size()) return -1;
    const size_t n = std::min<size_t>(len, m_answer.size() - m_pos);
    std::copy(m_answer.begin() + static_cast<long>(m_pos), m_answer.begin() + static_cast<long>(m_pos + n), buf);
    m_pos += n;
    return static_cast<int>(n);
  }

 private:
  const uint8_t* m_data;
  size_t m_size;
  size_t m_next = 0;
  std::vector<unsigned char> m_answer;
  size_t m_pos = 0;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  mcdfuzz::UsePrivateRoot();
  Vkt7FuzzMeter meter(data, size);
  Cmcd_VKT7 driver;
  driver.SaveConnector(&meter);
  driver.init();
  driver.get_all_curtime_cur_integ_values();
  driver.get_all_system_values();
  Timestamps stamps;
  driver.GetTimestamps(stamps);
  ParamValueList out;
  driver.get_arch_values(4, 1457163000, 1457163000 + 3 * 3600, out);
  driver.get_arch_values(5, 1457163000, 1457163000 + 3 * 86400, out);
  return 0;
}
