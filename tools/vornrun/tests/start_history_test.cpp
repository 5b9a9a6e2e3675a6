#include "start/start_history.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vorn::run {
namespace {

constexpr Backoff kBackoff{milliseconds(1000), milliseconds(5000)};
constexpr milliseconds kResetAfter{60'000};

StartHistory historyOf(const std::vector<int64_t>& starts) {
  StartHistory history;
  for (const int64_t start : starts) history.add(start);
  return history;
}

TEST(StartHistory, TheDelayDoublesUpToTheLongest) {
  EXPECT_EQ(historyOf({}).delay(kBackoff), milliseconds(0));
  EXPECT_EQ(historyOf({1}).delay(kBackoff), milliseconds(1000));
  EXPECT_EQ(historyOf({1, 2}).delay(kBackoff), milliseconds(2000));
  EXPECT_EQ(historyOf({1, 2, 3}).delay(kBackoff), milliseconds(4000));
  EXPECT_EQ(historyOf({1, 2, 3, 4}).delay(kBackoff), milliseconds(5000));
  EXPECT_EQ(historyOf(std::vector<int64_t>(2000, 1)).delay(kBackoff),
            milliseconds(5000));
}

TEST(StartHistory, ALongRunEndsTheSeries) {
  StartHistory history = historyOf({1000, 2000});
  history.beginStart(61'999, kResetAfter);
  EXPECT_EQ(history.size(), 2U);
  history.beginStart(62'000, kResetAfter);
  EXPECT_EQ(history.size(), 0U);
}

TEST(StartHistory, StartsWithinThePeriodAreACrashLoop) {
  const GiveUp rate{2, milliseconds(10'000)};
  const StartHistory history = historyOf({1000, 5000});
  EXPECT_TRUE(history.isCrashLoop(rate, 10'999));
  EXPECT_FALSE(history.isCrashLoop(rate, 11'000));
  EXPECT_FALSE(historyOf({5000}).isCrashLoop(rate, 5001));
}

TEST(StartHistory, AFileContainsTheStartsOfOneBoot) {
  const std::string text = historyOf({1, 2}).text("boot");
  EXPECT_EQ(text, "boot\n1\n2\n");
  EXPECT_EQ(StartHistory::parse(text, "boot").text("boot"), text);
  EXPECT_EQ(StartHistory::parse(text, "other").size(), 0U);
}

TEST(StartHistory, AnInvalidFileIsEmpty) {
  for (const char* text : {"", "boot\nx\n", "boot\n1\n\n2\n", "boot\n-1\n"}) {
    EXPECT_EQ(StartHistory::parse(text, "boot").size(), 0U) << text;
  }
}

}  // namespace
}  // namespace vorn::run
