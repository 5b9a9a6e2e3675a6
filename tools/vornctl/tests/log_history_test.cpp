#include "live/log_history.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "output/duration.h"

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;

constexpr pid_t kLauncher = 42;

/// Writes the lines of a launcher, one second after the other.
class LogHistoryTest : public ::testing::Test {
 protected:
  void line(const std::string& text, pid_t pid = kLauncher,
            const std::string& function = "f") {
    now_ += kSecondUs;
    lineNow(text, pid, function);
  }

  void lineNow(const std::string& text, pid_t pid = kLauncher,
               const std::string& function = "f") {
    history_.add(now_, 0,
                 "INFO  vornlaunch[" + std::to_string(pid) + "] a.cpp:1 " +
                     function + ": " + text);
  }

  /// A launcher that reads a file and starts the nodes.
  void startUp(const std::vector<std::string>& nodes, pid_t pid = kLauncher) {
    for (const std::string& node : nodes) line("name: " + node, pid);
    line("Created socket '/tmp/vornlaunch/vornlaunch.sock' with mode '600'",
         pid);
    for (const std::string& node : nodes) start(node, pid);
  }

  void start(const std::string& node, pid_t pid = kLauncher) {
    line("Node start '" + node + "' ok", pid);
  }

  void unnamedExit(pid_t pid, int code, int status) {
    line("ssi_signo: 17");
    nextExit(pid, code, status);
  }

  void nextExit(pid_t pid, int code, int status) {
    lineNow("si_pid: " + std::to_string(pid) + ", si_code: " +
            std::to_string(code) + ", si_status: " + std::to_string(status));
  }

  /// The exit of `node` and its effect, such as "' stoped".
  void exit(const std::string& node, int code, int status,
            const std::string& effect) {
    unnamedExit(100, code, status);
    lineNow(
        "'" + node +
        (code == CLD_EXITED ? "' exited with status: " : "' receive signal: ") +
        std::to_string(status) + ".");
    lineNow("Node '" + node + effect);
    if (effect == "' disabled - oneshot!") {
      lineNow("Node '" + node + "' disabled!");
    }
  }

  void command(int number) { line("control cmd: " + std::to_string(number)); }

  /// The events since the last call.
  std::vector<HistoryEvent> events() {
    history_.finish();
    return std::exchange(events_, {});
  }

  /// The only event since the last call.
  HistoryEvent event() {
    std::vector<HistoryEvent> all = events();
    EXPECT_EQ(all.size(), 1U);
    return all.empty() ? HistoryEvent() : all.back();
  }

  int64_t now_ = 0;
  std::vector<HistoryEvent> events_;
  LogHistory history_{[this](const HistoryEvent& e) { events_.push_back(e); },
                      {{"/bin/a", "a"}, {"/bin/b", "b"}, {"/bin/b", "c"}}};
};

TEST_F(LogHistoryTest, TheStartUpStartsNodes) {
  startUp({"a"});
  const auto all = events();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].kind, Kind::LAUNCHER_STARTED);
  EXPECT_EQ(all[0].launcher, kLauncher);
  EXPECT_EQ(all[1].kind, Kind::STARTED);
  EXPECT_EQ(all[1].cause, Cause::START_UP);
  EXPECT_EQ(all[1].node, "a");
  EXPECT_EQ(all[1].timeUs, now_);
}

TEST_F(LogHistoryTest, AnExitHasItsStatusAndTheDurationOfTheRun) {
  startUp({"a"});
  (void)events();
  exit("a", CLD_EXITED, 3, "' ready to restarting");
  const HistoryEvent found = event();
  EXPECT_EQ(found.kind, Kind::EXITED);
  EXPECT_EQ(found.cause, Cause::ITSELF);
  EXPECT_EQ(found.pid, 100);
  EXPECT_EQ(found.status, 3);
  EXPECT_EQ(found.runUs, kSecondUs);
  EXPECT_FALSE(found.isSignal());
  EXPECT_TRUE(found.isFailure());
}

TEST_F(LogHistoryTest, ACoreDumpIsSeenInTheCode) {
  startUp({"a"});
  (void)events();
  exit("a", CLD_DUMPED, SIGSEGV, "' ready to restarting");
  const HistoryEvent found = event();
  EXPECT_TRUE(found.isSignal());
  EXPECT_TRUE(found.isCoreDumped());
  EXPECT_EQ(found.status, SIGSEGV);
}

TEST_F(LogHistoryTest, AStartAfterAnExitIsCausedByTheNodeItself) {
  startUp({"a"});
  exit("a", CLD_EXITED, 0, "' ready to restarting");
  (void)events();
  start("a");
  EXPECT_EQ(event().cause, Cause::ITSELF);
}

TEST_F(LogHistoryTest, AStartCommandStartsANodeThatWaitsForItsRestart) {
  startUp({"a"});
  exit("a", CLD_EXITED, 0, "' ready to restarting");
  (void)events();
  command(0);
  line("a sleep 500ms");
  start("a");
  EXPECT_EQ(event().cause, Cause::OPERATOR);
}

TEST_F(LogHistoryTest, AStopIsTheOperatorsAndForcedIfItNeededSigkill) {
  startUp({"a"});
  (void)events();
  command(1);
  exit("a", CLD_KILLED, SIGKILL, "' stoped");
  const HistoryEvent found = event();
  EXPECT_EQ(found.cause, Cause::OPERATOR);
  EXPECT_TRUE(found.isForced());
  EXPECT_FALSE(found.isFailure());
}

TEST_F(LogHistoryTest, ARestartCommandEndsTheRunWhoseExitHasNoName) {
  startUp({"a"});
  (void)events();
  command(2);
  start("a");
  line("Node 'a' success");
  unnamedExit(7, CLD_KILLED, SIGTERM);
  const auto all = events();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].kind, Kind::STARTED);
  EXPECT_EQ(all[0].cause, Cause::OPERATOR);
  EXPECT_EQ(all[1].kind, Kind::EXITED);
  EXPECT_EQ(all[1].cause, Cause::OPERATOR);
  EXPECT_EQ(all[1].node, "a");
  EXPECT_EQ(all[1].pid, 7);
  EXPECT_EQ(all[1].runUs, 4 * kSecondUs);
}

TEST_F(LogHistoryTest, RequiredNodesRestartWithTheNodeThatIsStopped) {
  startUp({"b", "c", "a"});
  (void)events();
  command(1);
  start("c");
  start("b");
  unnamedExit(7, CLD_KILLED,
              SIGTERM);  // the kernel's order: oldest start first
  nextExit(8, CLD_KILLED, SIGKILL);
  nextExit(9, CLD_KILLED, SIGTERM);
  lineNow("'a' receive signal: 15.");
  lineNow("Node 'a' stoped");
  const auto all = events();
  ASSERT_EQ(all.size(), 5U);
  EXPECT_EQ(all[0].cause, Cause::REQUIRED);
  EXPECT_EQ(all[2].node, "b");
  EXPECT_EQ(all[2].pid, 7);
  EXPECT_EQ(all[2].cause, Cause::REQUIRED);
  EXPECT_EQ(all[3].node, "c");
  EXPECT_TRUE(all[3].isForced());
  EXPECT_EQ(all[4].node, "a");
  EXPECT_EQ(all[4].cause, Cause::OPERATOR);
}

TEST_F(LogHistoryTest, AOneshotThatExitsFirstIsNotTheOperators) {
  startUp({"a"});
  (void)events();
  exit("a", CLD_EXITED, 1, "' disabled - oneshot!");
  const HistoryEvent found = event();
  EXPECT_TRUE(found.isOneshot);
  EXPECT_TRUE(found.isFailure());
}

TEST_F(LogHistoryTest, AOneshotIsTheOperatorsAfterAStopCommand) {
  startUp({"a"});
  (void)events();
  command(1);
  command(3);  // a status request between the stop and the exit
  exit("a", CLD_KILLED, SIGTERM, "' disabled - oneshot!");
  const HistoryEvent found = event();
  EXPECT_TRUE(found.isOneshot);
  EXPECT_EQ(found.cause, Cause::OPERATOR);
}

TEST_F(LogHistoryTest, AOneshotThatExitsWithTheStoppedNodeIsNotTheOperators) {
  startUp({"a", "b"});
  (void)events();
  command(1);
  exit("a", CLD_EXITED, 1, "' disabled - oneshot!");
  nextExit(101, CLD_KILLED, SIGTERM);
  lineNow("'b' receive signal: 15.");
  lineNow("Node 'b' stoped");
  const auto all = events();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].cause, Cause::ITSELF);
  EXPECT_EQ(all[1].cause, Cause::OPERATOR);
}

TEST_F(LogHistoryTest, ARequiredOneshotIsStoppedAndRefused) {
  startUp({"a"});
  (void)events();
  command(1);
  line("Node 'a' disabled");
  exit("a", CLD_KILLED, SIGTERM, "' disabled - oneshot!");
  const auto all = events();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].kind, Kind::START_REFUSED);
  EXPECT_EQ(all[1].cause, Cause::REQUIRED);
}

TEST_F(LogHistoryTest, ANodeWhoseStopFailedCanExitByItself) {
  startUp({"a"});
  (void)events();
  command(1);
  line("kill service 'a' failed, error: Operation not permitted");
  EXPECT_EQ(event().detail, "Operation not permitted");
  exit("a", CLD_EXITED, 1, "' stoped");
  EXPECT_EQ(event().cause, Cause::ITSELF);
}

TEST_F(LogHistoryTest, AFailedStopWithoutAReasonIsIgnored) {
  startUp({"a"});
  (void)events();
  command(1);
  line("kill service 'a'");
  EXPECT_TRUE(events().empty());
}

TEST_F(LogHistoryTest, AMissingExecutableIsThatOfTheNodeThatWaits) {
  startUp({"a", "b", "c"});
  exit("c", CLD_EXITED, 0, "' ready to restarting");
  command(1);
  exit("b", CLD_KILLED, SIGTERM, "' stoped");
  (void)events();
  line("Can't find file: /bin/b");
  const HistoryEvent found = event();
  EXPECT_EQ(found.kind, Kind::EXECUTABLE_MISSING);
  EXPECT_EQ(found.node, "c");
  EXPECT_EQ(found.detail, "/bin/b");
  line("Can't find file: /bin/other");
  EXPECT_EQ(event().node, "");
}

TEST_F(LogHistoryTest, AFailedForkLeavesTheOldRunToItself) {
  startUp({"a"});
  (void)events();
  command(2);
  line("name: a fork failed.");
  line("Node 'a' failed");
  unnamedExit(7, CLD_KILLED, SIGTERM);
  const auto all = events();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].kind, Kind::FORK_FAILED);
  EXPECT_EQ(all[0].cause, Cause::OPERATOR);
  EXPECT_EQ(all[1].node, "a");
}

TEST_F(LogHistoryTest, AStopOfANodeThatWaitsCancelsItsRestart) {
  startUp({"a"});
  exit("a", CLD_EXITED, 0, "' ready to restarting");
  (void)events();
  command(1);
  line("Node 'a' is restarting, set stopped.");
  EXPECT_EQ(event().kind, Kind::RESTART_CANCELLED);
  command(0);
  start("a");
  EXPECT_EQ(event().cause, Cause::OPERATOR);
}

TEST_F(LogHistoryTest, AProgramThatCannotBeExecutedIsMarked) {
  startUp({"a"});
  line("Can't execv /bin/a", 100, "runChild");
  (void)events();
  exit("a", CLD_EXITED, 127, "' ready to restarting");
  EXPECT_TRUE(event().isExecutionFailed);
}

TEST_F(LogHistoryTest, TheRunsOfALauncherThatEndedAreLost) {
  startUp({"a"});
  startUp({"b"}, kLauncher + 1);
  const auto all = events();
  ASSERT_EQ(all.size(), 5U);
  EXPECT_EQ(all[2].kind, Kind::LOST);
  EXPECT_EQ(all[2].node, "a");
  EXPECT_EQ(all[3].kind, Kind::LAUNCHER_STARTED);
}

TEST_F(LogHistoryTest, ALauncherOfTheSamePidBeginsWithItsLaunchFile) {
  startUp({"a"});
  startUp({"a"});
  const auto all = events();
  ASSERT_EQ(all.size(), 5U);
  EXPECT_EQ(all[2].kind, Kind::LOST);
  EXPECT_EQ(all[4].cause, Cause::START_UP);
}

TEST_F(LogHistoryTest, SigtermEndsTheRunsOfALauncher) {
  startUp({"a"});
  (void)events();
  line("ssi_signo: 15");
  const auto all = events();
  ASSERT_EQ(all.size(), 2U);
  EXPECT_EQ(all[0].kind, Kind::LAUNCHER_STOPPING);
  EXPECT_EQ(all[1].kind, Kind::LOST);
}

TEST_F(LogHistoryTest, ALineOfAnotherProcessOrProgramHasNoEffect) {
  const std::string text = "[42] a.cpp:1 f: Node start 'a' ok";
  history_.add(1, kLauncher + 1, "INFO  vornlaunch" + text);
  history_.add(1, kLauncher, "INFO  planner" + text);
  EXPECT_TRUE(events().empty());
}

TEST_F(LogHistoryTest, ALogThatBeginsInTheMiddleHasUnknownCausesAndDurations) {
  exit("a", CLD_EXITED, 0, "' ready to restarting");
  EXPECT_EQ(event().runUs, -1);
  start("b");
  EXPECT_EQ(event().cause, Cause::UNKNOWN);
}

}  // namespace
}  // namespace vorn::launch
