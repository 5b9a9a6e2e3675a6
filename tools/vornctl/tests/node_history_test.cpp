#include "live/node_history.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;

constexpr int64_t kMinuteUs = 60'000'000;
constexpr int64_t kNowUs = 1000 * kMinuteUs;

HistoryEvent exitOf(const std::string& node, int64_t minutes_ago,
                    Cause cause = Cause::ITSELF) {
  HistoryEvent event;
  event.kind = Kind::EXITED;
  event.node = node;
  event.cause = cause;
  event.code = CLD_EXITED;
  event.status = 1;
  event.timeUs = kNowUs - minutes_ago * kMinuteUs;
  return event;
}

TEST(NodeHistoryTest, CountsTheExitsByItselfInTheLastHour) {
  NodeHistories histories;
  for (const int64_t minutes : {61, 59, 30, 20}) {
    histories.add(exitOf("a", minutes));
  }
  histories.add(exitOf("a", 10, Cause::OPERATOR));
  histories.add(exitOf("b", 5));
  EXPECT_EQ(histories.find("a")->restarts(kNowUs), 3U);
  EXPECT_EQ(histories.find("b")->restarts(kNowUs), 1U);
  EXPECT_EQ(histories.find("c"), nullptr);
}

TEST(NodeHistoryTest, ThreeExitsInTenMinutesAreACrashLoop) {
  NodeHistories histories;
  for (const int64_t minutes : {11, 9, 5}) histories.add(exitOf("a", minutes));
  EXPECT_FALSE(histories.find("a")->isCrashLoop(kNowUs));
  histories.add(exitOf("a", 1));
  EXPECT_TRUE(histories.find("a")->isCrashLoop(kNowUs));
  EXPECT_FALSE(histories.find("a")->isCrashLoop(kNowUs + 10 * kMinuteUs));
}

TEST(NodeHistoryTest, AStartEndsAnObstacle) {
  NodeHistories histories;
  HistoryEvent event;
  event.node = "a";
  event.kind = Kind::FORK_FAILED;
  histories.add(event);
  EXPECT_TRUE(histories.find("a")->obstacle);
  event.kind = Kind::STARTED;
  histories.add(event);
  EXPECT_FALSE(histories.find("a")->obstacle);
}

}  // namespace
}  // namespace vorn::launch
