// Bounded cursors, value rendering and CRC-16.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "drivers/base/byte_buffer.h"
#include "drivers/base/crc16.h"
#include "drivers/base/value_text.h"

namespace {

using mcd::CMeterBuffer;
using mcd::MeterFamily;

// The failure writer of a test family: remembers the names it was given.
std::vector<std::string> g_failures;
void RecordFailure(const char* name) { g_failures.push_back(name); }
const MeterFamily kTestFamily{&RecordFailure};

class TestBuffer : public CMeterBuffer {
 public:
  TestBuffer(const unsigned char* data, int count) : CMeterBuffer(&kTestFamily, data, count) {
    SetNames("TestBuffer []", "TestBuffer +=");
  }
};

TEST(Cursor, BoundsRenderingAndTheNameOfTheFailure) {
  unsigned char data[8] = {0x39, 0x30, 0x00, 0x00, 0xC7, 0xCF, 0xFF, 0xFF};
  TestBuffer cursor(data, 4);
  EXPECT_EQ(cursor[4], 0xC7);  // one past the end is read without error
  EXPECT_EQ(mcd::GetLongAsString(cursor, 4, 2), "123.45");
  EXPECT_EQ(mcd::GetLongAsString(cursor, 2, 3), "12.345");
  EXPECT_THROW(cursor[5], CDisconnectException);
  TestBuffer next(data, 8);
  next += 4;
  EXPECT_EQ(next[-1], 0x00);
  EXPECT_EQ(mcd::GetLongAsString(next, 4, 2), "-123.45");
  EXPECT_THROW(next += 5, CDisconnectException);
  TestBuffer shortOne(data, 3);
  EXPECT_THROW(mcd::GetFloatAsString(shortOne, 4), CDisconnectException);
  EXPECT_THROW(TestBuffer(nullptr, 12)[0], CDisconnectException);
  EXPECT_EQ(g_failures, (std::vector<std::string>{"TestBuffer []", "TestBuffer +=", "GetFloatAsString", "TestBuffer []"}));
  float big = 12345678.0f;
  std::memcpy(data, &big, 4);
  EXPECT_EQ(mcd::GetFloatAsString(cursor, 4), "1.23457e+07");
}

TEST(Crc16, KnownVectors) {
  const unsigned char check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(mcd::Crc16(check, sizeof check), 0x4B37);
  unsigned char frame[8] = {0x01, 0x03, 0x00, 0x00, 0x00, 0x01};
  mcd::AppendCrc16(frame, 6);
  EXPECT_EQ(frame[6], 0x84);  // low byte first
  EXPECT_EQ(frame[7], 0x0A);
  EXPECT_TRUE(mcd::CheckCrc16(frame, 6));
  frame[7] ^= 0x01;  // one CRC byte wrong is a wrong CRC
  EXPECT_FALSE(mcd::CheckCrc16(frame, 6));
}

}  // namespace
