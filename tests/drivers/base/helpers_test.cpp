// Byte order, bounded cursors, value rendering, CRC-16 and the diagnostic files.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "drivers/base/byte_buffer.h"
#include "drivers/base/change_type.h"
#include "drivers/base/crc16.h"
#include "drivers/base/diag_files.h"
#include "drivers/base/value_text.h"
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

TEST(ChangeType, ThirtyTwoBitIntegersSwapWordsAndKeepBytesInsideWords) {
  // Source word 0 (01 02) becomes the high word, each word keeps its byte order.
  EXPECT_EQ(Convert<uint32_t>({0x01, 0x02, 0x03, 0x04}), 0x02010403u);
  EXPECT_EQ(Convert<uint32_t>({0x10, 0x27, 0x00, 0x00}), 0x27100000u);
  EXPECT_EQ(Convert<uint32_t>({0x00, 0x00, 0x10, 0x27}), 10000u);
  EXPECT_EQ(Convert<int32_t>({0xFF, 0xFF, 0xFE, 0xFF}), -2);
  EXPECT_EQ(Convert<int32_t>({0x00, 0x80, 0x00, 0x00}), INT32_MIN);
}

TEST(ChangeType, SixteenBitValuesSwapTheirBytes) {
  EXPECT_EQ(Convert<uint16_t>({0x12, 0x34}), 0x1234);
  EXPECT_EQ(Convert<uint16_t>({0xFF, 0x00}), 0xFF00);
  EXPECT_EQ(Convert<int16_t>({0xFF, 0xFE}), -2);
  EXPECT_EQ(Convert<int16_t>({0x80, 0x00}), INT16_MIN);
}

TEST(ChangeType, FloatsReverseAllFourBytes) {
  EXPECT_FLOAT_EQ(Convert<float>({0x3F, 0x80, 0x00, 0x00}), 1.0f);
  EXPECT_FLOAT_EQ(Convert<float>({0xC1, 0x48, 0x00, 0x00}), -12.5f);
  EXPECT_FLOAT_EQ(Convert<float>({0x42, 0xF6, 0xE6, 0x66}), 123.45f);
}

TEST(ChangeType, ConstructorSelectsWordSwapAndOrder4321CopiesInOrder) {
  CChangeType<uint32_t> change;
  EXPECT_EQ(change.Order(), 1234);
  std::vector<unsigned char> bytes{0x01, 0x02, 0x03, 0x04};
  change.SetSource(bytes.data());
  change.SetOrder(4321);
  uint32_t inOrder = 0;
  std::memcpy(&inOrder, bytes.data(), 4);
  EXPECT_EQ(change.Convert(), inOrder);
  EXPECT_EQ(change.Value(), inOrder);
}

class CursorTest : public ::testing::Test {
 protected:
  void SetUp() override { g_failures.clear(); }
  // Backing store larger than the views, so one-past-the-end stays inside it.
  unsigned char data[8] = {0xA0, 0xA1, 0xA2, 0xA3, 0xA4, 0xA5, 0xA6, 0xA7};
};

TEST_F(CursorTest, IndexUpToRemainingIsAcceptedOnePastFails) {
  TestBuffer cursor(data, 3);
  EXPECT_EQ(cursor[0], 0xA0);
  EXPECT_EQ(cursor[2], 0xA2);
  EXPECT_EQ(cursor[3], 0xA3);  // one past the end is read without error
  EXPECT_TRUE(g_failures.empty());
  EXPECT_THROW(cursor[4], CDisconnectException);
  ASSERT_EQ(g_failures.size(), 1u);
  EXPECT_EQ(g_failures[0], "TestBuffer []");
}

TEST_F(CursorTest, NegativeIndexReachesBackOverSkippedHeader) {
  TestBuffer cursor(data, 6);
  cursor += 3;
  EXPECT_EQ(cursor.remaining(), 3);
  EXPECT_EQ(cursor[-1], 0xA2);
  EXPECT_EQ(cursor[0], 0xA3);
  EXPECT_TRUE(g_failures.empty());
}

TEST_F(CursorTest, AdvancePastEndFailsAfterMoving) {
  TestBuffer cursor(data, 4);
  cursor += 4;  // exactly to the end is fine
  EXPECT_TRUE(cursor.empty());
  EXPECT_TRUE(g_failures.empty());

  TestBuffer other(data, 4);
  other += 2;
  EXPECT_THROW(other += 3, CDisconnectException);
  ASSERT_EQ(g_failures.size(), 1u);
  EXPECT_EQ(g_failures[0], "TestBuffer +=");
  // The cursor is not restored: it stands one byte past the end.
  EXPECT_EQ(other.remaining(), -1);
  EXPECT_EQ(other.position(), data + 5);
}

TEST_F(CursorTest, NullAnswerIsEmptyAndNeverDereferenced) {
  TestBuffer cursor(nullptr, 12);
  EXPECT_TRUE(cursor.empty());
  EXPECT_THROW(cursor[0], CDisconnectException);
  EXPECT_EQ(g_failures.size(), 1u);
}

TEST_F(CursorTest, LongRendersWithFractionDigits) {
  unsigned char bytes[] = {0x39, 0x30, 0x00, 0x00, 0xC7, 0xCF, 0xFF, 0xFF};
  TestBuffer cursor(bytes, 8);
  EXPECT_EQ(mcd::GetLongAsString(cursor, 4, 2), "123.45");
  EXPECT_EQ(mcd::GetLongAsString(cursor, 4, 0), "12345");
  EXPECT_EQ(mcd::GetLongAsString(cursor, 2, 3), "12.345");
  EXPECT_EQ(mcd::GetLongAsString(cursor, 1, 0), "57");  // only the first byte
  // Default stream format: six significant digits.
  EXPECT_EQ(mcd::GetLongAsString(cursor, 4, 1), "1234.5");
  cursor += 4;
  EXPECT_EQ(mcd::GetLongAsString(cursor, 4, 2), "-123.45");
  EXPECT_EQ(cursor.remaining(), 4);  // rendering does not advance
  EXPECT_TRUE(g_failures.empty());
}

TEST_F(CursorTest, FloatRendersInHostOrderWithSixDigits) {
  float value = 123.456789f;
  unsigned char bytes[4];
  std::memcpy(bytes, &value, 4);
  TestBuffer cursor(bytes, 4);
  EXPECT_EQ(mcd::GetFloatAsString(cursor, 4), "123.457");
  float big = 12345678.0f;
  std::memcpy(bytes, &big, 4);
  EXPECT_EQ(mcd::GetFloatAsString(cursor, 4), "1.23457e+07");
}

TEST_F(CursorTest, RenderersFailWithTheirOwnNameWhenShort) {
  unsigned char bytes[] = {'A', 'B', 'C', 'D', 0};
  TestBuffer cursor(bytes, 3);
  EXPECT_EQ(mcd::MakeStringDiapason(cursor, 3), "ABC");
  EXPECT_THROW(mcd::MakeStringDiapason(cursor, 4), CDisconnectException);
  EXPECT_THROW(mcd::GetLongAsString(cursor, 4, 0), CDisconnectException);
  EXPECT_THROW(mcd::GetFloatAsString(cursor, 4), CDisconnectException);
  EXPECT_EQ(g_failures, (std::vector<std::string>{"MakeStringDiapason", "GetLongAsString", "GetFloatAsString"}));
}

TEST(Crc16, KnownVectors) {
  const unsigned char check[] = {'1', '2', '3', '4', '5', '6', '7', '8', '9'};
  EXPECT_EQ(mcd::Crc16(check, sizeof check), 0x4B37);
  unsigned char frame[8] = {0x01, 0x03, 0x00, 0x00, 0x00, 0x01};
  EXPECT_EQ(mcd::Crc16(frame, 6), 0x0A84);
  mcd::AppendCrc16(frame, 6);
  EXPECT_EQ(frame[6], 0x84);  // low byte first
  EXPECT_EQ(frame[7], 0x0A);
  EXPECT_TRUE(mcd::CheckCrc16(frame, 6));
  frame[3] ^= 0x01;
  EXPECT_FALSE(mcd::CheckCrc16(frame, 6));
  EXPECT_EQ(mcd::Crc16(frame, 0), 0xFFFF);
}

TEST(DiagFiles, RawLocalTimeHasNoPaddingAndRawFields) {
  // 5 March 2016 10:04:07 in the test zone (UTC+3).
  EXPECT_EQ(mcd::RawLocalTime(1457161447), "116-2-5 10:4:7");
  EXPECT_EQ(mcd::RawLocalTime(1457161447 + 3600 * 14), "116-2-6 0:4:7");
}

TEST(DiagFiles, DumpAndDebugLineFormats) {
  mcdtest::TempRoot root;
  const std::string dump = root.storage("dump.log");
  const unsigned char bytes[] = {0x00, 0xAB, 0x7F};
  mcd::AppendFrameDump(dump, "Request", bytes, 3);
  mcd::AppendFrameDump(dump, "Answer", bytes, 0);
  EXPECT_EQ(mcdtest::ReadFile(dump), "Request\n0x00 0xAB 0x7F \n\nAnswer\n\n\n");

  const std::string debug = root.storage("debug.log");
  const time_t before = time(nullptr);
  mcd::AppendDebugLine(debug, " first");
  mcd::AppendDebugLine(debug, " second");
  const time_t after = time(nullptr);
  auto lines = mcdtest::ReadLines(debug);
  ASSERT_EQ(lines.size(), 2u);
  // Each line is the raw local time of the write followed by the text.
  for (const char* text : {" first", " second"}) {
    const std::string& line = lines[text[1] == 'f' ? 0 : 1];
    EXPECT_TRUE(line == mcd::RawLocalTime(before) + text || line == mcd::RawLocalTime(after) + text) << line;
  }
}

TEST(DiagFiles, FileRemovedOnlyWhenLargerThanLimit) {
  mcdtest::TempRoot root;
  const std::string path = root.storage("big.log");
  // "L\n" + "0x01 \n\n": a dump of one byte adds 9 bytes.
  mcdtest::WriteFile(path, std::string(mcd::kDiagFileLimit - 9, 'x'));
  const unsigned char one = 1;
  mcd::AppendFrameDump(path, "L", &one, 1);
  ASSERT_TRUE(mcdtest::FileExists(path));  // exactly at the limit: kept
  mcd::AppendFrameDump(path, "L", &one, 0);  // 4 more bytes: past the limit
  EXPECT_FALSE(mcdtest::FileExists(path));
  mcd::AppendFrameDump(path, "L", &one, 1);  // next write starts a new file
  EXPECT_EQ(mcdtest::ReadFile(path), "L\n0x01 \n\n");

  const std::string debug = root.storage("big.debug.log");
  mcdtest::WriteFile(debug, std::string(mcd::kDiagFileLimit, 'x'));
  mcd::AppendDebugLine(debug, " x");
  EXPECT_FALSE(mcdtest::FileExists(debug));
}

}  // namespace
