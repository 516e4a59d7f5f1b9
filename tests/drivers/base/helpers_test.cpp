// Byte order, bounded cursors, value rendering, CRC-16, the diagnostic files and the
// driver of a model without one.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "drivers/base/byte_buffer.h"
#include "drivers/base/change_type.h"
#include "drivers/base/crc16.h"
#include "drivers/base/diag_files.h"
#include "drivers/base/driver_factory.h"
#include "drivers/base/value_text.h"
#include "server/jsonrpc_connector.h"
#include "support/test_support.h"
#include "tz_fixture.h"

namespace {

using mcd::CChangeType;
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

template <class T>
T Convert(std::vector<unsigned char> bytes) {
  CChangeType<T> change;
  change.SetSource(bytes.data());
  return change.Convert();
}

TEST(ChangeType, IntegersSwapWordsOrBytesFloatsReverseAllFour) {
  // source word 0 (01 02) becomes the high word, each word keeps its byte order
  EXPECT_EQ(Convert<uint32_t>({0x01, 0x02, 0x03, 0x04}), 0x02010403u);
  EXPECT_EQ(Convert<int32_t>({0xFF, 0xFF, 0xFE, 0xFF}), -2);
  EXPECT_EQ(Convert<uint16_t>({0x12, 0x34}), 0x1234);
  EXPECT_EQ(Convert<int16_t>({0xFF, 0xFE}), -2);
  EXPECT_FLOAT_EQ(Convert<float>({0x42, 0xF6, 0xE6, 0x66}), 123.45f);
}

TEST(Cursor, BoundsRenderingAndTheNameOfTheFailure) {
  unsigned char data[8] = {0x39, 0x30, 0x00, 0x00, 0xC7, 0xCF, 0xFF, 0xFF};
  TestBuffer cursor(data, 4);
  EXPECT_EQ(cursor[4], 0xC7);  // one past the end is read without error
  EXPECT_EQ(mcd::GetLongAsString(cursor, 4, 2), "123.45");
  EXPECT_EQ(mcd::GetLongAsString(cursor, 2, 3), "12.345");
  EXPECT_TRUE(g_failures.empty());
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
  frame[3] ^= 0x01;
  EXPECT_FALSE(mcd::CheckCrc16(frame, 6));
}

TEST(DiagFiles, FormatsAndTheSizeLimit) {
  mcdtest::TempRoot root;
  EXPECT_EQ(mcd::RawLocalTime(1457161447), "116-2-5 10:4:7");  // 2016-03-05 10:04:07 local
  const std::string path = root.storage("big.log");
  // "L\n" + "0x01 \n\n": a dump of one byte adds 9 bytes
  mcdtest::WriteFile(path, std::string(mcd::kDiagFileLimit - 9, 'x'));
  const unsigned char one = 1;
  mcd::AppendFrameDump(path, "L", &one, 1);
  ASSERT_TRUE(mcdtest::FileExists(path));  // exactly at the limit: kept
  mcd::AppendFrameDump(path, "L", &one, 0);
  EXPECT_FALSE(mcdtest::FileExists(path));
  const unsigned char bytes[] = {0x00, 0xAB, 0x7F};
  mcd::AppendFrameDump(path, "Request", bytes, 3);
  EXPECT_EQ(mcdtest::ReadFile(path), "Request\n0x00 0xAB 0x7F \n\n");
}

TEST(DriverFactory, AModelWithoutADriverSaysSoOnceAndNeverGetsReady) {
  mcdtest::TempRoot root;
  mcdtest::FakeClock clock;
  mcdtest::LogCapture log(4);
  CJSONRPCConnector client("31", 0);
  std::unique_ptr<CMcdBaseDriver> a(CreateDriver({{"manufacturer", "tem-104"}}, nullptr, &client));
  std::unique_ptr<CMcdBaseDriver> b(CreateDriver({{"manufacturer", "VKT-7"}}, nullptr, &client));
  EXPECT_FALSE(a->IsReady());
  EXPECT_EQ(log.Count("no driver for manufacturer tem-104: nothing is read"), 1u);
  EXPECT_EQ(log.Count("no driver for manufacturer"), 2u);
}

}  // namespace
