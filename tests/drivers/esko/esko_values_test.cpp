#include <gtest/gtest.h>

#include "drivers/base/exceptions.h"
#include "drivers/esko/esko_link.h"
#include "drivers/esko/esko_values.h"
#include "esko_test_util.h"
#include "support/test_support.h"

using namespace mcd::esko;
using eskotest::Bytes;

namespace {

CMTR06Buffer Buf(const Bytes& b) { return CMTR06Buffer(b.data(), static_cast<int>(b.size())); }

TEST(EskoValues, NumbersTravelMostSignificantByteFirst) {
  Bytes b = {0x42, 0xF6, 0xE9, 0x79};  // 123.456 as an IEEE float, big-endian
  EXPECT_EQ(GetFloatAsString(Buf(b)), "123.456001281738");

  Bytes d = {0x40, 0x09, 0x21, 0xFB, 0x54, 0x44, 0x2D, 0x18};  // pi
  EXPECT_EQ(GetDoubleAsString(Buf(d)), "3.1415926535897931");

  Bytes l = {0xFF, 0xFF, 0xFF, 0xFE};
  EXPECT_EQ(GetLongAsString(Buf(l)), "-2");
  EXPECT_EQ(GetULongAsString(Buf(l)), "4294967294");
  EXPECT_EQ(GetShortAsString(Buf(l)), "-1");
  EXPECT_EQ(GetUShortAsString(Buf({0x12, 0x34})), "4660");
  EXPECT_EQ(GetByteAsString(Buf({0x80})), "-128");
  EXPECT_EQ(GetUByteAsString(Buf({0x80})), "128");
}

TEST(EskoValues, BcdFieldsAndDivisors) {
  // 14 digits 12345678901234 / 10^9
  Bytes q = {0x12, 0x34, 0x56, 0x78, 0x90, 0x12, 0x34};
  EXPECT_EQ(GetBCD14AsString(Buf(q), 9), "12345.6789012");  // 12 significant digits
  EXPECT_EQ(GetBCD14AsString(Buf({0, 0, 0, 0x10, 0x25, 0, 0}), 6), "10.25");
  // 8 digits 00123456 / 10^2
  EXPECT_EQ(GetBCD8AsString(Buf({0x00, 0x12, 0x34, 0x56}), 2), "1234.56");

  EXPECT_EQ(GetIntDivAsString(Buf({0x1B, 0x6A}), 2), "70.18");   // 7018
  EXPECT_EQ(GetIntDivAsString(Buf({0xFF, 0x9C}), 1), "-10.0");   // -100
  EXPECT_EQ(GetCharDivAsString(Buf({61}), 1), "6.1");
  EXPECT_EQ(GetCharDivAsString(Buf({200}), 0), "200");
}

TEST(EskoValues, ShortFieldFailsWithItsOwnNameInTheFamilyDebugFile) {
  mcdtest::TempRoot root;
  Bytes b = {1, 2, 3};
  const struct {
    const char* name;
    std::function<void()> call;
  } cases[] = {
      {"GetFloatAsString", [&] { GetFloatAsString(Buf(b)); }},
      {"GetDoubleAsString", [&] { GetDoubleAsString(Buf(b)); }},
      {"GetLongAsString", [&] { GetLongAsString(Buf(b)); }},
      {"GetBCD8AsString", [&] { GetBCD8AsString(Buf(b), 2); }},
      {"GetBCD14AsString", [&] { GetBCD14AsString(Buf(b), 9); }},
      {"GetShortAsString", [&] { GetShortAsString(Buf({1})); }},
      {"GetIntDivAsString", [&] { GetIntDivAsString(Buf({1}), 1); }},
      {"GetCharDivAsString", [&] { GetCharDivAsString(Buf({}), 1); }},
  };
  for (const auto& c : cases) EXPECT_THROW(c.call(), CDisconnectException) << c.name;
  auto lines = mcdtest::ReadLines(root.storage("MTR06.debug.log"));
  ASSERT_EQ(lines.size(), sizeof cases / sizeof cases[0]);
  for (size_t i = 0; i < lines.size(); ++i) {
    const std::string tail = std::string(" CMTR06LowLevelConnector::CheckResult - Error on return answer. Code error 0. "
                                         "function 0 Func name - ") + cases[i].name;
    ASSERT_GE(lines[i].size(), tail.size());
    EXPECT_EQ(lines[i].substr(lines[i].size() - tail.size()), tail);
  }

  // The TM-3E cursor writes to its own file; the cursor's own operators name the class.
  CTM3EBuffer t(b.data(), 3);
  EXPECT_THROW(t[4], CDisconnectException);
  EXPECT_NE(mcdtest::ReadFile(root.storage("TM3E.debug.log")).find("Func name - CTM3EBuffer []"), std::string::npos);
  EXPECT_NE(mcdtest::ReadFile(root.storage("TM3E.debug.log")).find(" CTM3ELowLevelConnector::CheckResult"),
            std::string::npos);
}

}  // namespace
