#include "live/node_verdict.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include "output/duration.h"

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;
using ::testing::Test;

constexpr int64_t kJudgedUs = 1'795'178'096'000'000;

class NodeVerdictTest : public Test {
 protected:
  NodeVerdictTest() {
    facts_.nowUs = kJudgedUs;
    facts_.view.name = "a";
    facts_.view.condition = Condition::RUNNING;
    facts_.view.pid = 7;
  }

  /// The last exit of the node, a minute ago.
  void exit(int code, int status, Cause cause = Cause::ITSELF) {
    HistoryEvent exit;
    exit.kind = Kind::EXITED;
    exit.cause = cause;
    exit.timeUs = kJudgedUs - 60 * kSecondUs;
    exit.pid = 42;
    exit.code = code;
    exit.status = status;
    facts_.history.emplace();
    facts_.history->exit = exit;
    facts_.view.pid = 0;
  }

  void action(const std::string& command, const std::string& reason) {
    facts_.action.emplace();
    facts_.action->timeUs = kJudgedUs - 120 * kSecondUs;
    facts_.action->user = "alice";
    facts_.action->command = command;
    facts_.action->outcome = "done";
    facts_.action->reason = reason;
  }

  std::string summary() const { return judge(facts_).summary; }
  bool isAsWanted() const { return judge(facts_).isAsWanted; }

  std::string detail(const std::string& label) const {
    for (const auto& [name, text] : judge(facts_).details) {
      if (name == label) return text;
    }
    return "";
  }

  NodeFacts facts_;
};

TEST_F(NodeVerdictTest, ARunningNodeIsAsWanted) {
  EXPECT_EQ(summary().rfind("has been running since ", 0), 0U);
  EXPECT_TRUE(isAsWanted());
  EXPECT_EQ(detail("State"), "running, pid 7");
}

TEST_F(NodeVerdictTest, APhaseOfVornrunExplainsANodeThatIsNotReady) {
  RunState& run = facts_.view.run.state.emplace();
  run.phase = "starting";
  EXPECT_EQ(summary().rfind("has not been ready since ", 0), 0U);
  EXPECT_TRUE(isAsWanted());
  run.phase = "waiting";
  run.status = "path:/x";
  EXPECT_EQ(summary().rfind("waits for path:/x of its --wait-for since ", 0),
            0U);
  EXPECT_FALSE(isAsWanted());
  run.phase = "delayed";
  run.delayedUntil = 1;
  EXPECT_EQ(summary().rfind("is delayed by its --backoff until ", 0), 0U);
  run.phase = "unhealthy";
  run.lastProbe = {false, "connection refused", 1};
  EXPECT_NE(summary().find(": connection refused"), std::string::npos);
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, ADisabledNodeMayHaveGivenUp) {
  exit(CLD_KILLED, SIGTERM, Cause::OPERATOR);
  facts_.view.condition = Condition::DISABLED;
  facts_.view.run.state.emplace().phase = "gave up";
  EXPECT_EQ(summary(), "has given up after too many restarts");
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, TheStateOfVornrunIsADetail) {
  RunState& run = facts_.view.run.state.emplace();
  run.phase = "ready";
  run.status = "3 clients";
  run.droppedBytes = 2048;
  EXPECT_EQ(summary().rfind("has been running since ", 0), 0U);
  EXPECT_EQ(detail("Phase").rfind("ready since ", 0), 0U);
  EXPECT_EQ(detail("Status"), "3 clients");
  EXPECT_NE(detail("Lost output").find("reached no log"), std::string::npos);
}

TEST_F(NodeVerdictTest, ACrashLoopIsNotAsWantedEvenWhileTheNodeRuns) {
  exit(CLD_DUMPED, SIGSEGV);
  facts_.view.restarts = 5;
  facts_.view.isCrashLoop = true;
  facts_.coreHandler = "|/lib/systemd/systemd-coredump %P";
  EXPECT_EQ(summary(),
            "is in a crash loop: it was killed by SIGSEGV (Segmentation "
            "fault), core dumped; 5 restarts in the last hour");
  EXPECT_FALSE(isAsWanted());
  EXPECT_EQ(detail("Core dump"), "coredumpctl info 42");
}

TEST_F(NodeVerdictTest, ACoreFileIsWhereTheKernelWritesIt) {
  exit(CLD_DUMPED, SIGSEGV);
  facts_.coreHandler = "core";
  EXPECT_EQ(detail("Core dump"),
            "the kernel has written it to 'core', see core(5)");
}

TEST_F(NodeVerdictTest, ARestartIsExplainedByTheExit) {
  exit(CLD_EXITED, 3);
  facts_.view.condition = Condition::RESTARTING;
  facts_.view.restartInSeconds = 4;
  EXPECT_EQ(summary(), "restarts in 4s: it exited with status 3");
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, TheKernelLogExplainsASigkill) {
  exit(CLD_KILLED, SIGKILL);
  facts_.view.condition = Condition::RESTARTING;
  facts_.isMemoryKill = true;
  EXPECT_NE(summary().find("(Killed) by the kernel for lack of memory"),
            std::string::npos);
}

TEST_F(NodeVerdictTest, TheControlGroupMakesAMemoryKillProbable) {
  exit(CLD_KILLED, SIGKILL);
  facts_.view.condition = Condition::RESTARTING;
  facts_.memoryKills = 1;
  EXPECT_NE(summary().find("probably by the kernel for lack of memory"),
            std::string::npos);
}

TEST_F(NodeVerdictTest, AStopHasItsUserAndReason) {
  facts_.view.condition = Condition::STOPPED;
  action("stop", "battery change");
  EXPECT_EQ(summary(), "is stopped: stop by alice: battery change, 2m 00s ago");
  EXPECT_TRUE(isAsWanted());
}

TEST_F(NodeVerdictTest, AnotherActionIsNotTheReasonOfAStop) {
  facts_.view.condition = Condition::STOPPED;
  action("start", "");
  EXPECT_EQ(summary(), "is stopped: a command has stopped it");
}

TEST_F(NodeVerdictTest, AMissingExecutableDisablesANode) {
  facts_.view.condition = Condition::DISABLED;
  facts_.view.executable = "/bin/a";
  facts_.view.isExecutableMissing = true;
  EXPECT_EQ(summary(), "is disabled: its executable /bin/a does not exist");
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, AOneshotThatSucceededIsAsWanted) {
  exit(CLD_EXITED, 0);
  facts_.view.condition = Condition::DISABLED;
  facts_.isOneshot = true;
  EXPECT_EQ(summary(),
            "has finished: it is a oneshot, and it exited with status 0");
  EXPECT_TRUE(isAsWanted());
}

TEST_F(NodeVerdictTest, AReplacedExecutableIsNotAsWanted) {
  facts_.view.isStale = true;
  EXPECT_NE(summary().find("executable that was replaced"), std::string::npos);
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, AFullFileSystemIsPartOfTheSummary) {
  facts_.fullFileSystems = {"the log /var/log/vorn"};
  EXPECT_NE(
      summary().find("; the file system of the log /var/log/vorn is full"),
      std::string::npos);
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, OrphansOfANodeArePartOfTheSummary) {
  facts_.orphans = {99};
  EXPECT_NE(summary().find("; process 99 of an earlier run"),
            std::string::npos);
  facts_.hasLauncher = false;
  EXPECT_EQ(summary(),
            "runs without a launcher: its launcher was killed or has crashed");
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, AStopThatContinuesHasItsAction) {
  facts_.view.condition = Condition::STOPPING;
  EXPECT_EQ(summary(), "is stopping: a command has stopped it");
  action("restart", "");
  EXPECT_EQ(summary(), "is stopping: restart by alice, 2m 00s ago");
  EXPECT_TRUE(isAsWanted());
}

TEST_F(NodeVerdictTest, ANodeThatNeverStartedHasAReasonInTheLaunchFile) {
  facts_.view.condition = Condition::NEVER_STARTED;
  EXPECT_EQ(summary(), "has never started: its autostart is false");
  facts_.isDisabledInFile = true;
  EXPECT_EQ(summary(), "has never started: it is disabled in the launch file");
  EXPECT_TRUE(isAsWanted());
}

TEST_F(NodeVerdictTest, AnUnknownNodeNeedsARestartOfTheLauncher) {
  facts_.view.condition = Condition::UNKNOWN_NODE;
  EXPECT_EQ(judge(facts_).remedies,
            std::vector<std::string>{"restart the launcher"});
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, WithoutALauncherNoNodeRuns) {
  facts_.hasLauncher = false;
  EXPECT_EQ(summary(), "does not run: no launcher is running");
  EXPECT_EQ(judge(facts_).remedies,
            std::vector<std::string>{"start the launcher"});
  EXPECT_EQ(detail("State"), "");
  facts_.orphans = {99};
  EXPECT_EQ(detail("Process"), "99");
}

TEST_F(NodeVerdictTest, ARestartInTheLastHourIsPartOfTheSummary) {
  exit(CLD_EXITED, 3);
  facts_.view.restarts = 1;
  const std::string text =
      ", after 1 restart in the last hour: it exited with status 3";
  EXPECT_NE(summary().find(text), std::string::npos);
  EXPECT_TRUE(isAsWanted());
  exit(CLD_KILLED, SIGTERM, Cause::OPERATOR);
  EXPECT_EQ(summary().find("after"), std::string::npos);
}

TEST_F(NodeVerdictTest, ADelayIsExplainedByTheExit) {
  exit(CLD_EXITED, 3);
  facts_.view.run.state.emplace().phase = "delayed";
  EXPECT_NE(summary().find(": it exited with status 3"), std::string::npos);
}

TEST_F(NodeVerdictTest, ARunningNodeMayHaveGivenUp) {
  facts_.view.run.state.emplace().phase = "gave up";
  EXPECT_EQ(summary(), "has given up after too many restarts");
}

TEST_F(NodeVerdictTest, TheLastCheckOfVornrunIsADetail) {
  RunState& run = facts_.view.run.state.emplace();
  run.phase = "running";
  run.lastProbe = {true, "unused", 1};
  EXPECT_EQ(detail("Last check").rfind("passed, at ", 0), 0U);
  run.lastProbe = {false, "timed out", 1};
  EXPECT_EQ(detail("Last check").rfind("failed: timed out, at ", 0), 0U);
}

TEST_F(NodeVerdictTest, AFailedForkStopsANode) {
  facts_.view.condition = Condition::STOPPED;
  facts_.view.isForkFailed = true;
  EXPECT_EQ(summary(),
            "is stopped: the launcher could not create a process for it");
  EXPECT_FALSE(isAsWanted());
}

TEST_F(NodeVerdictTest, AFailedOneshotCanRunAgain) {
  exit(CLD_EXITED, 3);
  facts_.view.condition = Condition::FAILED;
  EXPECT_EQ(summary(), "has failed: it exited with status 3");
  EXPECT_EQ(judge(facts_).remedies,
            std::vector<std::string>{"run it again: vornctl enable --now a"});
}

TEST_F(NodeVerdictTest, ARestartWithoutALogHasNoExit) {
  facts_.view.condition = Condition::RESTARTING;
  facts_.view.restartInSeconds = 4;
  EXPECT_EQ(summary(), "restarts in 4s: it exited by itself");
}

TEST_F(NodeVerdictTest, ANodeInALoopBetweenTwoRunsIsNotAsWanted) {
  exit(CLD_EXITED, 3);
  facts_.view.condition = Condition::RESTARTING;
  facts_.view.isCrashLoop = true;
  facts_.view.restarts = 7;
  EXPECT_EQ(summary(),
            "is in a crash loop: it exited with status 3; 7 restarts in the "
            "last hour");
  EXPECT_EQ(judge(facts_).remedies.back(), "end the loop: vornctl disable a");
}

TEST_F(NodeVerdictTest, TheLogKnowsAnExecutableThatWasMissing) {
  facts_.view.condition = Condition::DISABLED;
  facts_.view.executable = "/bin/a";
  facts_.history.emplace().obstacle.emplace().kind = Kind::EXECUTABLE_MISSING;
  EXPECT_EQ(summary(),
            "is disabled: its executable /bin/a did not exist at its last "
            "start");
  facts_.history->obstacle->kind = Kind::FORK_FAILED;
  EXPECT_EQ(summary(), "is disabled: a command has disabled it");
}

TEST_F(NodeVerdictTest, ADisabledNodeHasAReason) {
  facts_.view.condition = Condition::DISABLED;
  facts_.view.pid = 0;
  EXPECT_EQ(summary(), "is disabled: a command has disabled it");
  facts_.isDisabledInFile = true;
  EXPECT_EQ(summary(), "is disabled in the launch file");
  facts_.view.startSeconds = 1;
  EXPECT_EQ(summary(), "is disabled: a command has disabled it");
  action("disable", "");
  EXPECT_EQ(summary(), "is disabled: disable by alice, 2m 00s ago");
  EXPECT_EQ(judge(facts_).remedies,
            std::vector<std::string>{"start it: vornctl enable --now a"});
  EXPECT_TRUE(isAsWanted());
}

TEST_F(NodeVerdictTest, ADisabledOneshotHasRunOrWasStopped) {
  facts_.view.condition = Condition::DISABLED;
  facts_.isOneshot = true;
  EXPECT_EQ(summary(), "is disabled: it is a oneshot that has run");
  exit(CLD_KILLED, SIGTERM, Cause::OPERATOR);
  EXPECT_EQ(summary(),
            "is disabled: it is a oneshot, and it was killed by SIGTERM "
            "(Terminated), stopped by a command");
  exit(CLD_EXITED, 0, Cause::UNKNOWN);
  EXPECT_EQ(summary(),
            "is disabled: it is a oneshot, and it exited with status 0");
}

TEST_F(NodeVerdictTest, OnlyAnUnexpectedSigkillCanBeForLackOfMemory) {
  facts_.isMemoryKill = true;
  facts_.view.condition = Condition::RESTARTING;
  exit(CLD_KILLED, SIGKILL, Cause::OPERATOR);
  EXPECT_EQ(summary().find("memory"), std::string::npos);
  exit(CLD_KILLED, SIGSEGV);
  EXPECT_EQ(summary().find("memory"), std::string::npos);
  exit(CLD_EXITED, SIGKILL);
  EXPECT_EQ(summary().find("memory"), std::string::npos);
}

TEST_F(NodeVerdictTest, TheLastExitHasItsTimeProcessAndDuration) {
  exit(CLD_EXITED, 3);
  facts_.history->exit->runUs = 5 * kSecondUs;
  EXPECT_EQ(detail("Last exit"),
            "exited with status 3, 1m 00s ago, pid 42, after 5s");
  facts_.history->exit->timeUs = kJudgedUs + kSecondUs;  // the clock was set
  facts_.history->exit->pid = 0;
  facts_.history->exit->runUs = -1;
  EXPECT_EQ(detail("Last exit"), "exited with status 3, 0s ago");
}

TEST_F(NodeVerdictTest, AnUnreadableLogIsADetail) {
  facts_.logError = "cannot read the log";
  facts_.view.restarts = 2;
  EXPECT_EQ(detail("Log"), "cannot read the log");
  EXPECT_EQ(detail("Restarts"), "2 restarts in the last hour");
}

}  // namespace
}  // namespace vorn::launch
