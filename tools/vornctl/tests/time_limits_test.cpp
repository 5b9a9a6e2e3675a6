#include "launchfile/time_limits.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

using Cmd = ControlRequest::Cmd;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

LaunchFile::Node nodeOf(const std::string& name, uint32_t sleep_ms,
                        std::vector<std::string> required) {
  LaunchFile::Node node;
  node.name.value = name;
  node.sleepMs.value = sleep_ms;
  for (std::string& each : required) {
    node.required.push_back({std::move(each), {}});
  }
  return node;
}

LaunchFile fileOf(std::vector<LaunchFile::Node> nodes) {
  LaunchFile file;
  file.nodes = std::move(nodes);
  return file;
}

TEST(LongestDurationTest, OfAStopIsTenSeconds) {
  EXPECT_EQ(longestDuration(fileOf({nodeOf("a", 700, {})}), Cmd::STOP, "a"),
            seconds(10));
  EXPECT_EQ(longestDuration(fileOf({nodeOf("a", 700, {})}), Cmd::DISABLE, "a"),
            seconds(10));
}

TEST(LongestDurationTest, OfAStartIsTheNodesSleep) {
  EXPECT_EQ(longestDuration(fileOf({nodeOf("a", 700, {"a"})}), Cmd::START, "a"),
            milliseconds(700));
}

TEST(LongestDurationTest, OfASleepThatWrapsAroundIsWhatTheLauncherSleeps) {
  EXPECT_EQ(
      longestDuration(fileOf({nodeOf("a", 4'294'978, {})}), Cmd::START, "a"),
      milliseconds(10));
}

TEST(LongestDurationTest, OfARestartHasAStopAPauseAndTheSleep) {
  EXPECT_EQ(longestDuration(fileOf({nodeOf("a", 700, {})}), Cmd::RESTART, "a"),
            milliseconds(10'900));
}

TEST(LongestDurationTest, OfStatusAndEnableIsNothing) {
  EXPECT_EQ(longestDuration(fileOf({nodeOf("a", 700, {})}), Cmd::STATUS, "a"),
            seconds(0));
  EXPECT_EQ(longestDuration(fileOf({nodeOf("a", 700, {})}), Cmd::ENABLE, "a"),
            seconds(0));
}

TEST(LongestDurationTest, HasTheRestartsOfAllRequiredNodesOnEveryPath) {
  const LaunchFile file = fileOf({
      nodeOf("a", 0, {"b", "c", "a", "nobody"}),
      nodeOf("b", 0, {"d"}),
      nodeOf("c", 0, {"d"}),
      nodeOf("d", 300, {}),
  });
  // a; b and c with their pauses; d twice with pause and sleep.
  EXPECT_EQ(longestDuration(file, Cmd::STOP, "a"),
            5 * seconds(10) + 4 * milliseconds(200) + 2 * milliseconds(300));
}

TEST(LongestDurationTest, FollowsACycleOnce) {
  const LaunchFile file =
      fileOf({nodeOf("a", 0, {"b"}), nodeOf("b", 0, {"a"})});
  EXPECT_LE(longestDuration(file, Cmd::STOP, "a"), seconds(31));
}

TEST(LongestDurationTest, IsADayAtMostHoweverThePathsMultiply) {
  LaunchFile file;
  for (int i = 0; i < 60; ++i) {
    const std::string next = std::to_string(i + 1);
    file.nodes.push_back(nodeOf(std::to_string(i), 0, {next, next}));
  }
  EXPECT_EQ(longestDuration(file, Cmd::STOP, "0"), hours(24));
}

TEST(LongestDurationTest, OfAnUnknownNodeIsThatOfAPlainOne) {
  EXPECT_EQ(longestDuration({}, Cmd::STOP, "a"), seconds(10));
}

TEST(DefaultReplyLimitTest, IsTwiceTheLongestDurationAndHalfAMinute) {
  EXPECT_EQ(defaultReplyLimit(fileOf({nodeOf("a", 0, {})}), Cmd::STOP, "a"),
            seconds(50));
  EXPECT_EQ(defaultReplyLimit(fileOf({nodeOf("a", 0, {})}), Cmd::STATUS, "a"),
            seconds(30));
}

}  // namespace
}  // namespace vorn::launch
