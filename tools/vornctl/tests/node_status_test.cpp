#include "live/node_status.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <limits>
#include <string>

namespace vorn::launch {
namespace {

StatusReply statusOf(NodeState state, pid_t pid, int64_t start) {
  StatusReply status;
  status.outcome = Outcome::DONE;
  status.state = state;
  status.pid = pid;
  status.startSeconds = start;
  return status;
}

/// A launcher that shares our pids.
LauncherProcess launcherOf(const std::vector<LaunchFile::Node>& nodes = {}) {
  LauncherProcess launcher;
  launcher.pid = ::getpid();
  launcher.sharesPids = true;
  for (const auto& node : nodes) launcher.file.nodes.add(node);
  return launcher;
}

TEST(NodeViewTest, ARunningProcessHasAnUptime) {
  const NodeView view = viewOf(
      launcherOf(), "a", statusOf(NodeState::RUNNING, ::getpid(), 100), 142);
  EXPECT_EQ(view.condition, Condition::RUNNING);
  EXPECT_EQ(view.uptimeSeconds, 42);
  EXPECT_EQ(view.pid, ::getpid());
}

TEST(NodeViewTest, AClockThatWasSetBackGivesNoNegativeUptime) {
  EXPECT_EQ(viewOf(launcherOf(), "a",
                   statusOf(NodeState::RUNNING, ::getpid(), 100), 50)
                .uptimeSeconds,
            0);
}

TEST(NodeViewTest, ARunningNodeWhoseProcessIsAZombieIsExiting) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  siginfo_t info;
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(child), &info, WEXITED | WNOWAIT),
            0);
  const NodeView zombie =
      viewOf(launcherOf(), "a", statusOf(NodeState::RUNNING, child, 100), 101);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  const NodeView gone =
      viewOf(launcherOf(), "a", statusOf(NodeState::RUNNING, child, 100), 101);
  EXPECT_EQ(zombie.condition, Condition::EXITING);
  EXPECT_EQ(zombie.uptimeSeconds, 0);
  EXPECT_EQ(gone.condition, Condition::EXITING);
}

TEST(NodeViewTest, AStoppedNodeWithAPidIsStopping) {
  EXPECT_EQ(
      viewOf(launcherOf(), "a", statusOf(NodeState::STOPPED, 42, 100), 101)
          .condition,
      Condition::STOPPING);
}

TEST(NodeViewTest, AStoppedNodeWithoutAStartWasNeverStarted) {
  EXPECT_EQ(viewOf(launcherOf(), "a", statusOf(NodeState::STOPPED, 0, 0), 101)
                .condition,
            Condition::NEVER_STARTED);
  EXPECT_EQ(viewOf(launcherOf(), "a", statusOf(NodeState::STOPPED, 0, 100), 101)
                .condition,
            Condition::STOPPED);
}

TEST(NodeViewTest, ARestartingNodeShowsTheSecondsLeft) {
  const auto left = [](int64_t now) {
    return viewOf(launcherOf(), "a", statusOf(NodeState::RESTARTING, 0, 100),
                  now)
        .restartInSeconds;
  };
  EXPECT_EQ(left(100), 5);
  EXPECT_EQ(left(103), 2);
  EXPECT_EQ(left(105), 0);
  EXPECT_EQ(left(200), 0);
  EXPECT_EQ(left(50), 5);
}

TEST(NodeViewTest, AStartOutOfAllBoundsIsBorne) {
  constexpr int64_t kLatest = std::numeric_limits<int64_t>::max();
  EXPECT_EQ(viewOf(launcherOf(), "a",
                   statusOf(NodeState::RESTARTING, 0, kLatest), 100)
                .restartInSeconds,
            5);
  EXPECT_EQ(formatTime(kLatest), std::to_string(kLatest));
}

TEST(NodeViewTest, AnUnknownNodeIsUnknown) {
  StatusReply status;
  status.outcome = Outcome::NOT_FOUND;
  EXPECT_EQ(viewOf(launcherOf(), "a", status, 1).condition,
            Condition::UNKNOWN_NODE);
}

TEST(NodeViewTest, ThePolicyIsWhatTheLaunchFileSays) {
  const auto policy = [](bool oneshot, bool autostart) {
    LaunchFile::Node node;
    node.name.value = "a";
    node.oneshot.value = oneshot;
    node.autostart.value = autostart;
    return viewOf(launcherOf({node}), "a", statusOf(NodeState::STOPPED, 0, 0),
                  1)
        .policy;
  };
  EXPECT_EQ(policy(false, true), "restart");
  EXPECT_EQ(policy(true, true), "oneshot");
  EXPECT_EQ(policy(false, false), "manual");
  EXPECT_EQ(policy(true, false), "manual+oneshot");
  EXPECT_EQ(
      viewOf(launcherOf(), "a", statusOf(NodeState::STOPPED, 0, 0), 1).policy,
      "");
}

TEST(NodeViewTest, RequiredNodesAreOnOneLine) {
  LaunchFile::Node node;
  node.name.value = "a";
  node.required = {{"b", {}}, {"c", {}}};
  EXPECT_EQ(
      viewOf(launcherOf({node}), "a", statusOf(NodeState::STOPPED, 0, 0), 1)
          .required,
      "b c");
}

TEST(WordTest, EveryConditionAndStateHasItsOwn) {
  EXPECT_STREQ(wordFor(Condition::RUNNING), "running");
  EXPECT_STREQ(wordFor(Condition::EXITING), "exiting");
  EXPECT_STREQ(wordFor(Condition::STOPPING), "stopping");
  EXPECT_STREQ(wordFor(Condition::STOPPED), "stopped");
  EXPECT_STREQ(wordFor(Condition::NEVER_STARTED), "never started");
  EXPECT_STREQ(wordFor(Condition::RESTARTING), "restarting");
  EXPECT_STREQ(wordFor(Condition::DISABLED), "disabled");
  EXPECT_STREQ(wordFor(Condition::UNKNOWN_NODE), "unknown");
  EXPECT_STREQ(wordFor(NodeState::STOPPED), "stopped");
  EXPECT_STREQ(wordFor(NodeState::RUNNING), "running");
  EXPECT_STREQ(wordFor(NodeState::RESTARTING), "restarting");
  EXPECT_STREQ(wordFor(NodeState::DISABLED), "disabled");
}

TEST(FormatTest, ASpanHasItsTwoLargestUnits) {
  EXPECT_EQ(formatSpan(0), "0s");
  EXPECT_EQ(formatSpan(59), "59s");
  EXPECT_EQ(formatSpan(60), "1m 00s");
  EXPECT_EQ(formatSpan(3599), "59m 59s");
  EXPECT_EQ(formatSpan(3600), "1h 00m");
  EXPECT_EQ(formatSpan(86399), "23h 59m");
  EXPECT_EQ(formatSpan(86400), "1d 00h");
  EXPECT_EQ(formatSpan(100 * 86400 + 3 * 3600), "100d 03h");
}

TEST(FormatTest, ATimeIsLocal) {
  ASSERT_EQ(::setenv("TZ", "UTC-2", 1), 0);  // two hours east
  ::tzset();
  EXPECT_EQ(formatTime(1763040288), "2025-11-13 15:24:48");
  EXPECT_EQ(formatTime(0), "never");
}

}  // namespace
}  // namespace vorn::launch
