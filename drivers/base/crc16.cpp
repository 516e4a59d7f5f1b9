#include "drivers/base/crc16.h"

#include <array>

namespace mcd {
namespace {

std::array<uint16_t, 256> MakeTable() {
  std::array<uint16_t, 256> table{};
  for (unsigned i = 0; i < 256; ++i) {
    uint16_t crc = static_cast<uint16_t>(i);
    for (int bit = 0; bit < 8; ++bit) crc = (crc & 1) ? static_cast<uint16_t>((crc >> 1) ^ 0xA001) : (crc >> 1);
    table[i] = crc;
  }
  return table;
}

const std::array<uint16_t, 256> kTable = MakeTable();

}  // namespace

uint16_t Crc16(const unsigned char* data, size_t count) {
  uint16_t crc = 0xFFFF;
  for (size_t i = 0; i < count; ++i) crc = static_cast<uint16_t>(kTable[(crc ^ data[i]) & 0xFF] ^ (crc >> 8));
  return crc;
}

void AppendCrc16(unsigned char* data, size_t count) {
  uint16_t crc = Crc16(data, count);
  data[count] = static_cast<unsigned char>(crc & 0xFF);
  data[count + 1] = static_cast<unsigned char>(crc >> 8);
}

bool CheckCrc16(const unsigned char* data, size_t count) {
  uint16_t crc = Crc16(data, count);
  return data[count] == (crc & 0xFF) && data[count + 1] == (crc >> 8);
}

}  // namespace mcd
