#include "live/log_time.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

TEST(LogTimeTest, IsInMicrosecondsSinceTheEpoch) {
  EXPECT_EQ(parseLogTime("1970-01-01T00:00:00.000001Z x"), 1);
  EXPECT_EQ(parseLogTime("2026-11-20T12:34:56.789012Z *INFO  x"),
            1'795'178'096'789'012);
  EXPECT_EQ(parseLogTime("2024-02-29T23:59:59.999999Z x"),
            1'709'251'199'999'999);
  EXPECT_EQ(parseLogTime("2000-03-01T00:00:00.000000Z x"), 951'868'800'000'000);
}

TEST(LogTimeTest, RejectsOtherText) {
  for (const char* const text :
       {"", "2026-11-20", "2026-11-20T12:34:56.789012Z",
        "2026-11-20 12:34:56.789012Z x", "2026-11-20T12:34:56.789012+ x",
        "2026-13-20T12:34:56.789012Z x", "2026-11-00T12:34:56.789012Z x",
        "2026-11-20T24:34:56.789012Z x", "2026-11-20T12:60:56.789012Z x",
        "2026-11-20T12:34:61.789012Z x", "2026-11-2xT12:34:56.789012Z x"}) {
    EXPECT_FALSE(parseLogTime(text)) << text;
  }
}

}  // namespace
}  // namespace vorn::launch
