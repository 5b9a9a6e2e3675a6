#include "output/duration.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

TEST(DurationTest, IsReadWithAndWithoutAUnit) {
  EXPECT_EQ(parseDuration("10"), milliseconds(10'000));
  EXPECT_EQ(parseDuration("10s"), milliseconds(10'000));
  EXPECT_EQ(parseDuration("500ms"), milliseconds(500));
  EXPECT_EQ(parseDuration("1.5m"), milliseconds(90'000));
  EXPECT_EQ(parseDuration("2h"), milliseconds(7'200'000));
  EXPECT_EQ(parseDuration("0"), milliseconds(0));
  EXPECT_EQ(parseDuration(".25s"), milliseconds(250));
}

TEST(DurationTest, IsAYearAtMost) {
  EXPECT_TRUE(parseDuration("8760h"));
  EXPECT_FALSE(parseDuration("8761h"));
}

TEST(DurationTest, RejectsOtherText) {
  for (const char* const text :
       {"", "s", "-1", "+1", "1d", "1 s", "1e3", "0x10", "1..2", "1ss", "nan",
        "inf", "1s ", "1m30s"}) {
    EXPECT_FALSE(parseDuration(text)) << text;
  }
}

}  // namespace
}  // namespace vorn::launch
