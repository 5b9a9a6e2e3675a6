#include "output/point_in_time.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

namespace vorn::launch {
namespace {

constexpr int64_t kPresentUs = 1'795'180'000'000'000;

/// Two hours ahead of UTC.
class PointInTimeTest : public testing::Test {
 protected:
  PointInTimeTest() {
    if (const char* const zone = std::getenv("TZ")) former_ = zone;
    (void)::setenv("TZ", "XXX-2", 1);
    ::tzset();
  }
  ~PointInTimeTest() override {
    if (former_) {
      (void)::setenv("TZ", former_->c_str(), 1);
    } else {
      (void)::unsetenv("TZ");
    }
    ::tzset();
  }

  static std::optional<int64_t> parse(const std::string& text) {
    return parsePointInTime(text, kPresentUs);
  }

 private:
  std::optional<std::string> former_;
};

TEST_F(PointInTimeTest, ADurationIsBeforeNow) {
  EXPECT_EQ(parse("1h"), kPresentUs - 3'600'000'000);
  EXPECT_EQ(parse("30"), kPresentUs - 30'000'000);
}

TEST_F(PointInTimeTest, ATimeIsLocalUnlessItEndsWithZ) {
  EXPECT_EQ(parse("2026-11-20T12:34:56.789012Z"), 1'795'178'096'789'012);
  EXPECT_EQ(parse("2026-11-20 14:34:56.789012"), 1'795'178'096'789'012);
  EXPECT_EQ(parse("2026-11-20T14:34:56"), 1'795'178'096'000'000);
  EXPECT_EQ(parse("2026-11-20 14:34"), 1'795'178'040'000'000);
  EXPECT_EQ(parse("2026-11-20"), 1'795'125'600'000'000);
}

TEST_F(PointInTimeTest, RejectsOtherText) {
  for (const char* const text :
       {"", "yesterday", "12:34", "2026-11", "2026-02-30", "2026-13-01",
        "2026-11-20 25:00", "2026-11-20 12", "2026-11-20 12:34 ",
        "2026-11-20 12:34:56,7", "2026-11-20 12:34:56+01:00", "1d"}) {
    EXPECT_FALSE(parse(text)) << text;
  }
}

}  // namespace
}  // namespace vorn::launch
