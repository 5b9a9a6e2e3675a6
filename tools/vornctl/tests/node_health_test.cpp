#include "live/node_health.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace vorn::launch {
namespace {

NodeView node(const std::string& name, Condition condition) {
  NodeView view;
  view.name = name;
  view.condition = condition;
  return view;
}

TEST(NodeHealthTest, NodesThatAnOperatorHasStoppedAreInOrder) {
  const Finding finding = nodesFinding(
      {node("a", Condition::RUNNING), node("b", Condition::STOPPED)}, "");
  EXPECT_EQ(finding.verdict, Verdict::PASSED);
  EXPECT_EQ(finding.text, "none of 2 nodes has failed");
}

TEST(NodeHealthTest, ACrashLoopIsAnErrorAlsoWhileTheNodeRuns) {
  NodeView view = node("camera", Condition::RUNNING);
  view.isCrashLoop = true;
  view.restarts = 5;
  view.lastExit.emplace();
  view.lastExit->kind = HistoryEvent::Kind::EXITED;
  view.lastExit->code = CLD_EXITED;
  view.lastExit->status = 3;
  const Finding finding = nodesFinding({view}, "");
  EXPECT_EQ(finding.verdict, Verdict::ERROR);
  EXPECT_EQ(finding.text,
            "camera is in a crash loop, with 5 restarts in the last hour (it "
            "exited with status 3)");
}

TEST(NodeHealthTest, ANodeThatVornrunReportsHasThatProblem) {
  NodeView view = node("camera", Condition::RUNNING);
  view.run.state.emplace().phase = "unhealthy";
  EXPECT_EQ(nodesFinding({view}, "").text, "camera is unhealthy");
  view.condition = Condition::DISABLED;
  view.run.state->phase = "gave up";
  EXPECT_EQ(nodesFinding({view}, "").text,
            "camera has given up after too many restarts");
}

TEST(NodeHealthTest, AFewNodesAreNamed) {
  NodeView missing = node("a", Condition::DISABLED);
  missing.isExecutableMissing = true;
  missing.executable = "/opt/a";
  NodeView not_forked = node("b", Condition::STOPPED);
  not_forked.isForkFailed = true;
  const NodeView restarting = node("c", Condition::RESTARTING);
  const Finding finding =
      nodesFinding({missing, not_forked, node("d", Condition::UNKNOWN_NODE),
                    restarting, node("e", Condition::FAILED)},
                   "no log");
  EXPECT_EQ(finding.verdict, Verdict::ERROR);
  EXPECT_EQ(finding.text,
            "a is disabled because its executable /opt/a is missing, b could "
            "not be started: fork failed, d is in the launch file, but unknown "
            "to the launcher and 2 more nodes have failed");
}

TEST(NodeHealthTest, WithoutALogEarlierExitsAreUnknown) {
  const Finding finding =
      nodesFinding({node("a", Condition::RUNNING)}, "cannot read the log");
  EXPECT_EQ(finding.verdict, Verdict::UNKNOWN);
  EXPECT_NE(finding.text.find("cannot read the log"), std::string::npos);
}

TEST(NodeHealthTest, NodesWithReplacedProgramsAreAWarning) {
  NodeView current = node("a", Condition::RUNNING);
  current.pid = 42;
  current.isStale = false;
  EXPECT_EQ(programsFinding({current}).verdict, Verdict::PASSED);
  NodeView stale = current;
  stale.name = "b c";
  stale.isStale = true;
  const Finding finding = programsFinding({current, stale, stale});
  EXPECT_EQ(finding.verdict, Verdict::WARNING);
  EXPECT_EQ(finding.remedy, "vornctl restart 'b c' 'b c'");
  current.isStale.reset();
  EXPECT_EQ(programsFinding({current}).verdict, Verdict::UNKNOWN);
}

TEST(NodeHealthTest, OrphansAreAWarning) {
  Orphans orphans;
  EXPECT_EQ(orphansFinding(orphans).verdict, Verdict::PASSED);
  orphans.unreadable = 1;
  EXPECT_EQ(orphansFinding(orphans).verdict, Verdict::UNKNOWN);
  orphans.processes.emplace_back();
  EXPECT_EQ(orphansFinding(orphans).verdict, Verdict::WARNING);
}

}  // namespace
}  // namespace vorn::launch
