#include "output/quantity.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

TEST(FormatBytesTest, UsesTheLargestUnitThatGivesAtLeastOne) {
  EXPECT_EQ(formatBytes(0), "0");
  EXPECT_EQ(formatBytes(1023), "1023");
  EXPECT_EQ(formatBytes(655'360), "640K");
  EXPECT_EQ(formatBytes(12'700'000), "12.1M");
  EXPECT_EQ(formatBytes(int64_t{3} << 29), "1.5G");
}

TEST(FormatBytesTest, NoNumberIsRoundedUpTo1024) {
  EXPECT_EQ(formatBytes((1 << 30) - 1), "1.0G");
  EXPECT_EQ(formatBytes((1 << 20) - 1), "1.0M");
}

TEST(FormatPercentTest, HasOneDecimal) {
  EXPECT_EQ(formatPercent(0), "0.0");
  EXPECT_EQ(formatPercent(12.34), "12.3");
  EXPECT_EQ(formatPercent(399.96), "400.0");
}

}  // namespace
}  // namespace vorn::launch
