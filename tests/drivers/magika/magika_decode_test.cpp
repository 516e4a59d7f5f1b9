// MAGIKA line templates and line dates; the transfer itself is checked against the
// gateway simulator in the Modbus end-to-end run.
#include "drivers/magika/magika_decode.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "drivers/base/base_driver.h"

namespace {

using namespace mcd::magika;

TEST(MagikaLines, TemplatesAndDatesThatDoNotCheckAreRefused) {
  setenv("TZ", "UTC", 1);
  tzset();
  std::vector<Field> fields;
  std::string why;
  EXPECT_TRUE(ParseTemplate("DATE TNORM1 TMIN1 ERRORCODE1", ARCH_DAILY, fields, why));
  ASSERT_EQ(fields.size(), 4u);
  EXPECT_EQ(fields[1].size, 2);  // daily time counters are two bytes, hourly ones one
  EXPECT_TRUE(ParseTemplate("DATE HOUR TNORM1", ARCH_HOURLY, fields, why));
  EXPECT_EQ(fields[2].size, 1);
  EXPECT_FALSE(ParseTemplate("DATE HOUR X9", ARCH_HOURLY, fields, why));
  EXPECT_FALSE(ParseTemplate("DATE Q1", ARCH_HOURLY, fields, why));  // no HOUR
  ASSERT_TRUE(ParseTemplate("DATE HOUR Q1", ARCH_HOURLY, fields, why));
  const uint8_t good[] = {0x15, 0x05, 0x24, 0x23}, badBcd[] = {0x1A, 0x05, 0x24, 0x10},
                badHour[] = {0x15, 0x05, 0x24, 0x24};
  EXPECT_EQ(LineTime(fields, good, ARCH_HOURLY), 1715767200 + 13 * 3600);  // 15.05.2024 23:00 UTC
  EXPECT_EQ(LineTime(fields, good, ARCH_DAILY), 1715731200);               // 15.05.2024
  EXPECT_EQ(LineTime(fields, badBcd, ARCH_HOURLY), -1);
  EXPECT_EQ(LineTime(fields, badHour, ARCH_HOURLY), -1);
}

}  // namespace
