#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "config.h"
#include "node.h"
#include "support/children.h"
#include "support/node_fixture.h"

namespace vorn::launch {
namespace {

using namespace std::chrono_literals;
using std::chrono::steady_clock;
using std::chrono::system_clock;
using std::filesystem::perms;
using test::logLine;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

const test::LogLine kIsDisabled =
    logLine("WARN", true, "startInternal", "Node 'worker' disabled");
const test::LogLine kIsNotAutostart =
    logLine("WARN", true, "startInternal", "Node 'worker' is not autostart");
const test::LogLine kAlreadyRunning =
    logLine("INFO", true, "startInternal", "Node 'worker' already running");
const test::LogLine kFileMissing =
    logLine("ERROR", true, "startInternal", "Can't find file: /bin/worker");
const test::LogLine kForkFailed =
    logLine("ERROR", true, "startInternal", "name: worker fork failed.");
const test::LogLine kStarted =
    logLine("INFO", true, "startInternal", "Node start 'worker' ok");

// ---- Effects of a start in every state.

class NodeStartInStateTest : public test::FakedNodeInStateTest {};

TEST_P(NodeStartInStateTest, ADisabledNodeIsRefusedAndDisabled) {
  const pid_t pid = node_.pid;
  node_.disabled = true;
  EXPECT_FALSE(node_.start());
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_EQ(node_.pid, pid);
  EXPECT_TRUE(node_.disabled);
  EXPECT_THAT(log_.lines(), ElementsAre(kIsDisabled));
  EXPECT_THAT(processes_.calls(), IsEmpty());
}

TEST_P(NodeStartInStateTest, TheAutostartSkipChangesOnlyTheFlag) {
  const pid_t pid = node_.pid;
  node_.autostart = false;
  EXPECT_FALSE(node_.start());
  EXPECT_TRUE(node_.autostart);
  EXPECT_EQ(node_.state, GetParam());
  EXPECT_EQ(node_.pid, pid);
  EXPECT_THAT(log_.lines(), ElementsAre(kIsNotAutostart));
  EXPECT_THAT(processes_.calls(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeStartInStateTest, test::everyState(),
                         test::stateParamName);

// ---- Effects of a start on a node that is not RUNNING.

class NodeStartWithoutChildTest : public test::FakedNodeInStateTest {};

TEST_P(NodeStartWithoutChildTest, AMissingExecutableDisablesTheNode) {
  processes_.file_missing = true;
  EXPECT_FALSE(node_.start());
  EXPECT_TRUE(node_.disabled);
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_THAT(log_.lines(), ElementsAre(kFileMissing));
  EXPECT_EQ(processes_.count("fork"), 0U);
}

TEST_P(NodeStartWithoutChildTest, AFailedForkLeavesTheNodeStopped) {
  node_.pid = kPid;  // of a child that is still dying
  node_.stopped = true;
  processes_.fork_fails = true;
  EXPECT_FALSE(node_.start());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_TRUE(node_.stopped);
  EXPECT_FALSE(node_.disabled);
  EXPECT_EQ(node_.startTime, steady_clock::time_point());
  EXPECT_EQ(node_.startWallTime, system_clock::time_point());
  EXPECT_THAT(log_.lines(), ElementsAre(kForkFailed));
}

TEST_P(NodeStartWithoutChildTest, ASuccessfulForkMakesTheNodeRunning) {
  node_.stopped = true;
  processes_.next_pid = 77;
  EXPECT_TRUE(node_.start());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, 77);
  EXPECT_FALSE(node_.stopped);
  EXPECT_NE(node_.startTime, steady_clock::time_point());
  EXPECT_NE(node_.startWallTime, system_clock::time_point());
  EXPECT_THAT(log_.lines(), ElementsAre(kStarted));
  EXPECT_THAT(processes_.calls(), ElementsAre("stat /bin/worker", "fork"));
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeStartWithoutChildTest,
                         test::everyStateButRunning(), test::stateParamName);

// ---- Order and repetition.

using NodeStartTest = test::FakedNodeTest;

TEST_F(NodeStartTest, ARunningNodeIsLeftAsItIs) {
  setState(NodeState::RUNNING);
  node_.stopped = true;
  node_.sleep = 500;
  EXPECT_TRUE(node_.start());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_TRUE(node_.stopped);
  EXPECT_EQ(node_.startTime, steady_clock::time_point());
  EXPECT_THAT(log_.lines(), ElementsAre(kAlreadyRunning));
  EXPECT_THAT(processes_.calls(), IsEmpty());
}

TEST_F(NodeStartTest, AutostartFalseSkipsExactlyOneAttempt) {
  node_.autostart = false;
  EXPECT_FALSE(node_.start());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_TRUE(node_.start());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_TRUE(node_.start());
  EXPECT_THAT(log_.lines(),
              ElementsAre(kIsNotAutostart, kStarted, kAlreadyRunning));
}

TEST_F(NodeStartTest, ADisabledNodeKeepsItsAutostartSkip) {
  node_.disabled = true;
  node_.autostart = false;
  EXPECT_FALSE(node_.start());
  EXPECT_FALSE(node_.autostart);
  EXPECT_THAT(log_.lines(), ElementsAre(kIsDisabled));
}

TEST_F(NodeStartTest, AMissingExecutableIsFoundBeforeTheSleep) {
  node_.sleep = 500;
  processes_.file_missing = true;
  EXPECT_FALSE(node_.start());
  EXPECT_THAT(processes_.calls(), ElementsAre("stat /bin/worker"));
}

TEST_F(NodeStartTest, BothStartTimesAreTakenAfterTheFork) {
  steady_clock::time_point forked;
  system_clock::time_point forked_wall;
  processes_.on_call = [&](const std::string& call) {
    if (call != "fork") return;
    const auto entered = steady_clock::now();
    const auto entered_wall = system_clock::now();
    do {
      forked = steady_clock::now();
      forked_wall = system_clock::now();
    } while (forked == entered || forked_wall == entered_wall);
  };
  ASSERT_TRUE(node_.start());
  EXPECT_GE(node_.startTime, forked);
  EXPECT_LE(node_.startTime, steady_clock::now());
  EXPECT_GE(node_.startWallTime, forked_wall);
  EXPECT_LE(node_.startWallTime, system_clock::now());
}

// ---- The delay.

TEST_F(NodeStartTest, SleepIsTakenInTheLauncherBeforeTheFork) {
  node_.sleep = 500;
  EXPECT_TRUE(node_.start());
  EXPECT_THAT(processes_.calls(),
              ElementsAre("stat /bin/worker", "usleep 500000", "fork"));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("INFO", false, "startInternal",
                                                "worker sleep 500ms"),
                                        kStarted));
}

struct SleepAfterStart {
  const char* name;
  uint32_t milliseconds;
  const char* call;
  const char* text;
};

class NodeStartSleepTest
    : public test::FakedNodeTest,
      public ::testing::WithParamInterface<SleepAfterStart> {};

TEST_P(NodeStartSleepTest, ItsMicrosecondsWrapAt32Bits) {
  node_.sleep = GetParam().milliseconds;
  ASSERT_TRUE(node_.start());
  EXPECT_THAT(processes_.calls(),
              ElementsAre("stat /bin/worker", GetParam().call, "fork"));
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("INFO", false, "startInternal",
                                                GetParam().text),
                                        kStarted));
}

INSTANTIATE_TEST_SUITE_P(
    Wrap, NodeStartSleepTest,
    ::testing::Values(
        SleepAfterStart{"OneMillisecond", 1, "usleep 1000", "worker sleep 1ms"},
        SleepAfterStart{"Longest", 4'294'967, "usleep 4294967000",
                        "worker sleep 4294967ms"},
        SleepAfterStart{"FirstThatWraps", 4'294'968, "usleep 704",
                        "worker sleep 4294968ms"},
        SleepAfterStart{"LargestNumber", 4'294'967'295, "usleep 4294966296",
                        "worker sleep -1ms"}),
    test::CaseName());

// ---- Real children.

class NodeChildTest : public ::testing::Test {
 protected:
  /// Starts the node with a shell command whose output goes to the file "out",
  /// waits for its end and returns the output.
  std::string outputOf(const std::string& command,
                       const std::vector<std::string>& arguments = {}) {
    node_.argv = {"/bin/sh", "-c", "{ " + command + "; } > \"$0\"",
                  children_.path("out")};
    node_.argv.insert(node_.argv.end(), arguments.begin(), arguments.end());
    EXPECT_EQ(exitStatusOfStart(), 0);
    return children_.read("out");
  }

  /// Starts the node and waits for its end; -1 when it did not exit.
  int exitStatusOfStart() {
    EXPECT_TRUE(node_.start());
    EXPECT_EQ(node_.state, NodeState::RUNNING);
    const int status = children_.waitFor(node_.pid);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  /// The lines of a start whose child could not execute `path`.
  auto linesOfAFailedExecution(const std::string& path) const {
    return UnorderedElementsAre(
        kStarted, logLine("ERROR", true, "runChild", "Can't execv " + path),
        logLine("INFO", true, "runChild",
                "Child " + std::to_string(node_.pid) + " exited"));
  }

  const test::LogCapture log_;
  test::Children children_;
  Node node_{"worker"};
};

TEST_F(NodeChildTest, ThePidIsTheChilds) {
  const std::string pid = outputOf("echo $$");
  EXPECT_EQ(pid, std::to_string(node_.pid) + '\n');
}

TEST_F(NodeChildTest, ItsFilesArePrivate) {
  (void)::umask(0);
  EXPECT_EQ(outputOf("umask"), "0077\n");
  struct stat file {};
  ASSERT_EQ(::stat(children_.path("out").c_str(), &file), 0);
  EXPECT_EQ(file.st_mode & 0777U, 0600U);
}

TEST_F(NodeChildTest, InheritsVariablesThatGlobalOnesAndThenItsOwnReplace) {
  for (const char* const name : {"A", "B", "C"}) (void)::setenv(name, "0", 1);
  Config::getInstance().environment = {{"B", "1"}, {"C", "1"}, {"B", "2"}};
  node_.environment = {{"C", "3"}, {"C", "4"}};
  EXPECT_EQ(outputOf(R"(printf %s%s%s "$A" "$B" "$C")"), "024");
  EXPECT_STREQ(::getenv("C"), "0");
}

TEST_F(NodeChildTest, ARefusedVariableDoesNotKeepTheOthersAway) {
  Config::getInstance().environment = {{"", "empty"}, {"A=B", "x"}, {"G", "1"}};
  node_.environment = {{"A=B", "x"}, {"N", "2"}};
  EXPECT_EQ(outputOf(R"(printf %s%s "$G" "$N")"), "12");
}

TEST_F(NodeChildTest, GetsEveryArgumentAsItIs) {
  const std::string line =
      outputOf(R"(cat "/proc/$$/cmdline")",
               {"two words", "", "*", "$HOME", "\"quoted\"", "\xc3\xa4\n"});
  std::string expected;
  for (const std::string& argument : node_.argv) {
    expected += argument + '\0';
  }
  EXPECT_EQ(line, expected);
}

TEST_F(NodeChildTest, TheExecutableIsNotSearchedInPath) {
  std::filesystem::current_path(children_.path(""));
  children_.write("true", "#!/bin/sh\nexit 7\n", perms::owner_all);
  node_.argv = {"true"};
  EXPECT_EQ(exitStatusOfStart(), 7);
}

TEST_F(NodeChildTest, ADirectoryPassesTheExistenceCheck) {
  node_.argv = {children_.path("")};
  EXPECT_EQ(exitStatusOfStart(), 127);
  EXPECT_THAT(log_.lines(), linesOfAFailedExecution(children_.path("")));
}

int exit_witness = -1;

TEST_F(NodeChildTest, AFailedExecutionRunsNoExitHandler) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  exit_witness = ends[1];
  ASSERT_EQ(std::atexit([] { (void)!::write(exit_witness, "x", 1); }), 0);
  node_.argv = {children_.path("")};
  EXPECT_EQ(exitStatusOfStart(), 127);
  char byte = 0;
  EXPECT_EQ(::read(ends[0], &byte, 1), -1);
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(NodeChildTest, AFailedExecutionFlushesNoInheritedBuffer) {
  FILE* const file = std::fopen(children_.path("buffered").c_str(), "we");
  ASSERT_NE(file, nullptr);
  ASSERT_GE(std::fputs("once", file), 0);
  node_.argv = {children_.path("")};
  EXPECT_EQ(exitStatusOfStart(), 127);
  ASSERT_EQ(std::fclose(file), 0);
  EXPECT_EQ(children_.read("buffered"), "once");
}

TEST_F(NodeChildTest, ExecvInternalReturnsFalseWhenItReturns) {
  EXPECT_FALSE(node_.execvInternal({children_.path("")}));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

}  // namespace
}  // namespace vorn::launch
