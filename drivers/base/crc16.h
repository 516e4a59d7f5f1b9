// CRC-16 of the Modbus family: reflected polynomial 0xA001, initial value 0xFFFF,
// no final XOR, computed byte-wise through a 256-entry table.
#pragma once

#include <cstddef>
#include <cstdint>

namespace mcd {

uint16_t Crc16(const unsigned char* data, size_t count);

// Stores the CRC of data[0..count) at data[count] (low byte) and data[count+1] (high byte).
void AppendCrc16(unsigned char* data, size_t count);

// True when data[count], data[count+1] hold the CRC of data[0..count), low byte first.
bool CheckCrc16(const unsigned char* data, size_t count);

}  // namespace mcd
