#include "live/node_stability.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

namespace vorn::launch {
namespace {

using Result = NodeStability::Verdict;
using std::chrono::milliseconds;
using std::chrono::seconds;

WantedNode nodeIn(Condition condition) {
  WantedNode node;
  node.view.name = "camera";
  node.view.condition = condition;
  return node;
}

HistoryEvent exitWith(int status) {
  HistoryEvent exit;
  exit.kind = HistoryEvent::Kind::EXITED;
  exit.cause = HistoryEvent::Cause::ITSELF;
  exit.code = CLD_EXITED;
  exit.status = status;
  return exit;
}

void expect(const WantedNode& node, milliseconds run_for, Result verdict,
            const std::string& reason = "") {
  const NodeStability found = judgeStability(node, run_for);
  EXPECT_EQ(found.verdict, verdict) << found.reason;
  EXPECT_EQ(found.reason, reason);
}

TEST(NodeStabilityTest, ARunningNodeMustHaveRunForTheTime) {
  WantedNode node = nodeIn(Condition::RUNNING);
  node.age = milliseconds(29'999);
  expect(node, seconds(0), Result::STABLE);
  expect(node, seconds(30), Result::PENDING, "has run for only 29s");
  node.age = seconds(30);
  expect(node, seconds(30), Result::STABLE);
}

TEST(NodeStabilityTest, ACrashLoopFailsUnlessTheNodeHasRunForTheTime) {
  WantedNode node = nodeIn(Condition::RUNNING);
  node.age = seconds(3);
  node.view.isCrashLoop = true;
  node.view.lastExit = exitWith(3);
  expect(node, seconds(0), Result::FAILED,
         "is in a crash loop: it exited with status 3");
  expect(node, seconds(3), Result::STABLE);
  node.restartsSeen = 1;
  expect(node, seconds(5), Result::PENDING,
         "has run for only 3s: it exited with status 3");
  node.restartsSeen = 3;
  expect(node, seconds(5), Result::FAILED,
         "has restarted 3 times: it exited with status 3");
}

TEST(NodeStabilityTest, ANodeThatWaitsForItsRestartCanRecover) {
  WantedNode node = nodeIn(Condition::RESTARTING);
  node.view.restartInSeconds = 4;
  expect(node, seconds(0), Result::PENDING, "restarts in 4s");
  expect(nodeIn(Condition::EXITING), seconds(0), Result::PENDING,
         "has just exited");
}

TEST(NodeStabilityTest, AOneshotMustHaveSucceeded) {
  WantedNode node = nodeIn(Condition::RUNNING);
  node.isOneshot = true;
  node.age = seconds(100);
  expect(node, seconds(1), Result::PENDING, "has not finished yet");
  node.view.condition = Condition::DISABLED;
  node.view.startSeconds = 1;
  expect(node, seconds(1), Result::PENDING,
         "has finished, but the log does not contain its exit status");
  node.view.lastExit = exitWith(0);
  expect(node, seconds(1), Result::STABLE);
  node.view.condition = Condition::FAILED;
  node.view.lastExit = exitWith(1);
  expect(node, seconds(1), Result::FAILED,
         "has failed: it exited with status 1");
}

TEST(NodeStabilityTest, ANodeThatAnOperatorHasStoppedOrDisabledIsStable) {
  for (const Condition condition :
       {Condition::STOPPED, Condition::STOPPING, Condition::DISABLED}) {
    expect(nodeIn(condition), seconds(1), Result::STABLE);
  }
}

TEST(NodeStabilityTest, ANodeThatTheLauncherCouldNotStartHasFailed) {
  WantedNode node = nodeIn(Condition::DISABLED);
  node.view.isExecutableMissing = true;
  node.view.executable = "/opt/camera";
  expect(node, seconds(1), Result::FAILED,
         "was not started: its executable /opt/camera does not exist");
  node = nodeIn(Condition::STOPPED);
  node.view.isForkFailed = true;
  expect(node, seconds(1), Result::FAILED,
         "is stopped: the launcher could not create a process for it");
  expect(nodeIn(Condition::UNKNOWN_NODE), seconds(1), Result::FAILED,
         "is unknown to the launcher: it was added to the launch file after "
         "the launcher started");
}

TEST(NodeStabilityTest, OnlyANodeThatTheFileStartsMustHaveBeenStarted) {
  WantedNode node = nodeIn(Condition::NEVER_STARTED);
  expect(node, seconds(0), Result::FAILED, "was not started");
  node.isAutostart = false;
  expect(node, seconds(0), Result::STABLE);
  node.isAutostart = true;
  node.isDisabledInFile = true;
  expect(node, seconds(0), Result::STABLE);
}

}  // namespace
}  // namespace vorn::launch
