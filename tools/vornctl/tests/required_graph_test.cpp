#include "launchfile/required_graph.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <utility>

namespace vorn::launch {
namespace {

using Cmd = ControlRequest::Cmd;
using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

LaunchFile::Node nodeOf(const std::string& name,
                        const std::vector<std::string>& required,
                        uint32_t sleep_ms = 0, bool oneshot = false) {
  LaunchFile::Node node;
  node.name.value = name;
  node.sleepMs.value = sleep_ms;
  node.oneshot.value = oneshot;
  for (const std::string& other : required)
    node.required.push_back({other, {}});
  return node;
}

LaunchFile readingOf(const std::vector<LaunchFile::Node>& nodes) {
  LaunchFile file;
  for (const auto& node : nodes) file.nodes.add(node);
  return file;
}

/// The cycles, by the indices of their nodes.
std::vector<std::vector<size_t>> cyclesIn(const LaunchFile& file) {
  const RequiredGraph graph(file);
  std::vector<std::vector<size_t>> cycles;
  for (const auto& cycle : graph.cycles()) {
    std::vector<size_t> nodes;
    nodes.reserve(cycle.size());
    for (const auto& step : cycle) nodes.push_back(step.from);
    EXPECT_EQ(cycle.back().edge.to, nodes.front());
    cycles.push_back(std::move(nodes));
  }
  return cycles;
}

RequiredGraph::Cascade cascadeOfFirst(const LaunchFile& file) {
  return RequiredGraph(file).cascades().at(0);
}

milliseconds longestDuration(const LaunchFile& file, Cmd cmd,
                             const std::string& node) {
  return RequiredGraph(file).longestDuration(cmd, node);
}

TEST(EffectiveSleepTest, WrapsAround32BitsOfMicroseconds) {
  EXPECT_EQ(effectiveSleepMs(0), 0U);
  EXPECT_EQ(effectiveSleepMs(4'294'967), 4'294'967U);
  EXPECT_EQ(effectiveSleepMs(4'294'968), 0U);
  EXPECT_EQ(effectiveSleepMs(4'295'968), 1000U);
}

TEST(RequiredGraphTest, HasNoEdgeToTheNodeItselfOrToAnUnknownNode) {
  const LaunchFile file =
      readingOf({nodeOf("a", {"a", "x", "b", "b"}), nodeOf("b", {})});
  const RequiredGraph graph(file);
  EXPECT_EQ(graph.edgesFrom(0).size(), 2U);
  EXPECT_EQ(graph.edgesFrom(0)[0].to, 1U);
  EXPECT_THAT(graph.edgesFrom(1), IsEmpty());
}

TEST(RequiredGraphTest, FindsTheFirstOfTwoNodesOfOneName) {
  const LaunchFile file =
      readingOf({nodeOf("b", {}), nodeOf("a", {"b"}), nodeOf("b", {"a"})});
  EXPECT_EQ(RequiredGraph(file).edgesFrom(1)[0].to, 0U);
  EXPECT_THAT(cyclesIn(file), IsEmpty());
}

TEST(RequiredGraphTest, FindsNoCycleWherePathsOnlyMeet) {
  EXPECT_THAT(cyclesIn(readingOf({nodeOf("a", {"b", "c"}), nodeOf("b", {"d"}),
                                  nodeOf("c", {"d"}), nodeOf("d", {})})),
              IsEmpty());
}

TEST(RequiredGraphTest, FindsACycleWithoutTheWayToIt) {
  EXPECT_THAT(cyclesIn(readingOf({nodeOf("a", {"b"}), nodeOf("b", {"c"}),
                                  nodeOf("c", {"d"}), nodeOf("d", {"b"})})),
              ElementsAre(ElementsAre(1, 2, 3)));
}

TEST(RequiredGraphTest, FindsACycleThroughEachNodeThatIsInOne) {
  EXPECT_THAT(
      cyclesIn(readingOf({nodeOf("a", {"b", "c"}), nodeOf("b", {"a"}),
                          nodeOf("c", {"a"}), nodeOf("d", {"e"}),
                          nodeOf("e", {"d"})})),
      ElementsAre(ElementsAre(0, 1), ElementsAre(0, 2), ElementsAre(3, 4)));
}

TEST(RequiredGraphTest, FindsEachOfManyNodesOnOneWayThatRequireTheFirst) {
  EXPECT_THAT(cyclesIn(readingOf({nodeOf("a", {"b"}), nodeOf("b", {"a", "c"}),
                                  nodeOf("c", {"b", "a"})})),
              ElementsAre(ElementsAre(0, 1), ElementsAre(1, 2)));
}

TEST(RequiredGraphTest, KeepsAMillionEdgesOfCyclesAndKnowsAllNodesInThem) {
  std::vector<LaunchFile::Node> nodes;
  constexpr int kNodes = 20'000;
  nodes.reserve(kNodes);
  for (int i = 0; i < kNodes; ++i) {
    nodes.push_back(nodeOf(std::to_string(i), {"0", std::to_string(i + 1)}));
  }
  const LaunchFile file = readingOf(nodes);
  const RequiredGraph graph(file);
  size_t edges = 0;
  for (const auto& cycle : graph.cycles()) edges += cycle.size();
  EXPECT_LE(edges, 1'000'000U + kNodes);
  for (const auto& cascade : graph.cascades()) {
    EXPECT_TRUE(cascade.isEndless);
  }
}

TEST(RequiredGraphTest, FollowsAChainHoweverLong) {
  std::vector<LaunchFile::Node> nodes;
  constexpr int kNodes = 100'000;
  nodes.reserve(kNodes);
  for (int i = 0; i < kNodes; ++i) {
    nodes.push_back(nodeOf(std::to_string(i), {std::to_string(i + 1)}));
  }
  const LaunchFile file = readingOf(nodes);
  EXPECT_THAT(cyclesIn(file), IsEmpty());
  EXPECT_EQ(cascadeOfFirst(file).stops, kNodes);
}

TEST(CascadeTest, IsOneStopForANodeThatRequiresNone) {
  const auto cascade = cascadeOfFirst(readingOf({nodeOf("a", {}, 700)}));
  EXPECT_EQ(cascade.stops, 1);
  EXPECT_EQ(cascade.duration, seconds(10));
}

TEST(CascadeTest, CountsEveryPathWithPausesAndDelays) {
  const auto cascade =
      cascadeOfFirst(readingOf({nodeOf("a", {"b", "c"}), nodeOf("b", {"d"}),
                                nodeOf("c", {"d"}), nodeOf("d", {}, 300)}));
  EXPECT_EQ(cascade.stops, 5);
  EXPECT_EQ(cascade.duration,
            seconds(50) + 4 * milliseconds(200) + 2 * milliseconds(300));
}

TEST(CascadeTest, DoesNotStartAOneshotAgain) {
  const auto cascade = cascadeOfFirst(
      readingOf({nodeOf("a", {"b"}), nodeOf("b", {}, 300, true)}));
  EXPECT_EQ(cascade.duration, milliseconds(20'200));
}

TEST(CascadeTest, IsEndlessOnlyForANodeThatReachesACycle) {
  const LaunchFile file = readingOf({nodeOf("a", {"b"}), nodeOf("b", {"c"}),
                                     nodeOf("c", {"b"}), nodeOf("d", {})});
  const auto cascades = RequiredGraph(file).cascades();
  EXPECT_TRUE(cascades[0].isEndless);
  EXPECT_TRUE(cascades[1].isEndless);
  EXPECT_TRUE(cascades[2].isEndless);
  EXPECT_FALSE(cascades[3].isEndless);
}

TEST(CascadeTest, IsAYearAtMostHoweverThePathsMultiply) {
  std::vector<LaunchFile::Node> nodes;
  nodes.reserve(200);
  for (int i = 0; i < 200; ++i) {
    const std::string next = std::to_string(i + 1);
    nodes.push_back(nodeOf(std::to_string(i), {next, next}));
  }
  EXPECT_EQ(cascadeOfFirst(readingOf(nodes)).duration, hours(24 * 365));
}

TEST(StopOfAllTest, AddsTheStopsOfAllNodes) {
  const LaunchFile file = readingOf({nodeOf("a", {}, 5), nodeOf("b", {})});
  EXPECT_EQ(RequiredGraph(file).stopOfAll(), seconds(22));
}

TEST(StopOfAllTest, RestartsRequiredNodesThatAreNotStoppedYet) {
  const LaunchFile file = readingOf(
      {nodeOf("b", {}), nodeOf("a", {"b", "c"}), nodeOf("c", {}, 100)});
  // b, a, c for a with its pause and delay, c.
  EXPECT_EQ(RequiredGraph(file).stopOfAll(), seconds(44) + milliseconds(300));
}

TEST(StopOfAllTest, IsAYearAtMostForAChainHoweverLong) {
  std::vector<LaunchFile::Node> nodes;
  constexpr int kNodes = 100'000;
  nodes.reserve(kNodes);
  for (int i = 0; i < kNodes; ++i) {
    nodes.push_back(nodeOf(std::to_string(i), {std::to_string(i + 1)}));
  }
  const LaunchFile file = readingOf(nodes);
  EXPECT_EQ(RequiredGraph(file).stopOfAll(), hours(24 * 365));
}

TEST(StopOfAllTest, NeverEndsWithACycle) {
  const LaunchFile file = readingOf({nodeOf("a", {"b"}), nodeOf("b", {"a"})});
  EXPECT_FALSE(RequiredGraph(file).stopOfAll());
}

TEST(LongestDurationTest, OfAStopIsTenSeconds) {
  EXPECT_EQ(longestDuration(readingOf({nodeOf("a", {}, 700)}), Cmd::STOP, "a"),
            seconds(10));
  EXPECT_EQ(
      longestDuration(readingOf({nodeOf("a", {}, 700)}), Cmd::DISABLE, "a"),
      seconds(10));
}

TEST(LongestDurationTest, OfAStartIsTheNodesSleep) {
  EXPECT_EQ(
      longestDuration(readingOf({nodeOf("a", {"a"}, 700)}), Cmd::START, "a"),
      milliseconds(700));
}

TEST(LongestDurationTest, OfARestartHasAStopAPauseAndTheSleep) {
  EXPECT_EQ(
      longestDuration(readingOf({nodeOf("a", {}, 700)}), Cmd::RESTART, "a"),
      milliseconds(10'900));
}

TEST(LongestDurationTest, OfStatusAndEnableIsNothing) {
  EXPECT_EQ(
      longestDuration(readingOf({nodeOf("a", {}, 700)}), Cmd::STATUS, "a"),
      seconds(0));
  EXPECT_EQ(
      longestDuration(readingOf({nodeOf("a", {}, 700)}), Cmd::ENABLE, "a"),
      seconds(0));
}

TEST(LongestDurationTest, FollowsACycleOnce) {
  const LaunchFile file = readingOf({nodeOf("a", {"b"}), nodeOf("b", {"a"})});
  EXPECT_EQ(longestDuration(file, Cmd::STOP, "a"), milliseconds(30'400));
}

TEST(LongestDurationTest, IsADayAtMostHoweverThePathsMultiply) {
  LaunchFile file;
  for (int i = 0; i < 60; ++i) {
    const std::string next = std::to_string(i + 1);
    file.nodes.add(nodeOf(std::to_string(i), {next, next}));
  }
  EXPECT_EQ(longestDuration(file, Cmd::STOP, "0"), hours(24));
}

TEST(LongestDurationTest, OfAnUnknownNodeIsThatOfAPlainOne) {
  EXPECT_EQ(longestDuration({}, Cmd::STOP, "a"), seconds(10));
}

TEST(DefaultReplyLimitTest, IsTwiceTheLongestDurationAndHalfAMinute) {
  EXPECT_EQ(
      RequiredGraph(readingOf({nodeOf("a", {})})).replyLimit(Cmd::STOP, "a"),
      seconds(50));
  EXPECT_EQ(
      RequiredGraph(readingOf({nodeOf("a", {})})).replyLimit(Cmd::STATUS, "a"),
      seconds(30));
}

}  // namespace
}  // namespace vorn::launch
