#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <string>
#include <vector>

#include "node.h"
#include "node_manager.h"
#include "support/node_fixture.h"
#include "support/steady_clock.h"

namespace vorn::launch {
namespace {

using namespace std::chrono_literals;
using test::logLine;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const test::LogLine kDisabledAsOneshot =
    logLine("WARN", true, "reap", "Node 'worker' disabled - oneshot!");
const test::LogLine kDisabled =
    logLine("WARN", true, "reap", "Node 'worker' disabled!");
const test::LogLine kStopped =
    logLine("WARN", true, "reap", "Node 'worker' stoped");
const test::LogLine kReadyToRestart =
    logLine("INFO", true, "reap", "Node 'worker' ready to restarting");

using NodeReapTest = test::FakedNodeTest;

TEST_F(NodeReapTest, AStoppedNodeStaysStopped) {
  setState(NodeState::RUNNING);
  ASSERT_TRUE(node_.stop());
  ASSERT_EQ(node_.pid, kPid);
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_TRUE(node_.stopped);
  EXPECT_FALSE(node_.disabled);
  EXPECT_THAT(log_.lines(), ElementsAre(kStopped));
}

TEST_F(NodeReapTest, AnExitByItselfMakesTheNodeRestarting) {
  setState(NodeState::RUNNING);
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::RESTARTING);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_FALSE(node_.stopped);
  EXPECT_FALSE(node_.disabled);
  EXPECT_THAT(log_.lines(), ElementsAre(kReadyToRestart));
}

TEST_F(NodeReapTest, ANodeDisabledWhileItsChildDiedStaysDisabled) {
  setState(NodeState::RUNNING);
  ASSERT_TRUE(node_.disable());
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_THAT(log_.lines(), ElementsAre(kDisabled));
}

TEST_F(NodeReapTest, AReapedOneshotIsNotRestartedByTheRegistry) {
  test::StoppedSteadyClock clock(1'000s);
  Node& node = test::addNode("worker");
  node.oneshot = true;
  ASSERT_TRUE(node.start());
  node.reap({});
  clock.advance(60s);
  EXPECT_FALSE(NodeManager::getInstance().pollingRestart());
  EXPECT_EQ(node.state, NodeState::DISABLED);
  EXPECT_EQ(processes_.count("fork"), 1U);
}

TEST_F(NodeReapTest, ANodeStartedAgainAfterAStopIsRestartingAfterItsExit) {
  setState(NodeState::RUNNING);
  node_.stop();
  node_.reap({});
  ASSERT_TRUE(node_.start());
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::RESTARTING);
}

TEST_F(NodeReapTest, TouchesNoProcess) {
  const Node& other = test::addNode("other", NodeState::RUNNING, 41);
  setState(NodeState::RUNNING);
  node_.required = {"other"};
  node_.reap({});
  EXPECT_EQ(other.pid, 41);
  EXPECT_THAT(processes_.calls(), IsEmpty());
}

class NodeReapInStateTest : public test::FakedNodeInStateTest {};

TEST_P(NodeReapInStateTest, AOneshotIsDisabledWithBothMessages) {
  node_.oneshot = true;
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_TRUE(node_.disabled);
  EXPECT_THAT(log_.lines(), ElementsAre(kDisabledAsOneshot, kDisabled));
}

TEST_P(NodeReapInStateTest, ADisabledNodeIsDisabled) {
  node_.disabled = true;
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_THAT(log_.lines(), ElementsAre(kDisabled));
}

TEST_P(NodeReapInStateTest, ANodeWithAStopRequestIsStopped) {
  node_.stopped = true;
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_THAT(log_.lines(), ElementsAre(kStopped));
}

TEST_P(NodeReapInStateTest, AnyOtherNodeIsRestarting) {
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::RESTARTING);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_THAT(log_.lines(), ElementsAre(kReadyToRestart));
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeReapInStateTest, test::everyState(),
                         test::stateParamName);

struct FlagsCase {
  const char* name;
  bool oneshot;
  bool disabled;
  bool stopped;
  NodeState state;
  std::vector<test::LogLine> lines;
};

class NodeReapOrderTest : public test::FakedNodeTest,
                          public ::testing::WithParamInterface<FlagsCase> {};

TEST_P(NodeReapOrderTest, OneshotComesBeforeDisabledBeforeStopped) {
  setState(NodeState::RUNNING);
  node_.oneshot = GetParam().oneshot;
  node_.disabled = GetParam().disabled;
  node_.stopped = GetParam().stopped;
  node_.reap({});
  EXPECT_EQ(node_.state, GetParam().state);
  EXPECT_EQ(node_.stopped, GetParam().stopped);
  EXPECT_EQ(log_.lines(), GetParam().lines);
}

INSTANTIATE_TEST_SUITE_P(
    EveryPair, NodeReapOrderTest,
    ::testing::Values(FlagsCase{"OneshotAndDisabled",
                                true,
                                true,
                                false,
                                NodeState::DISABLED,
                                {kDisabledAsOneshot, kDisabled}},
                      FlagsCase{"OneshotAndStopped",
                                true,
                                false,
                                true,
                                NodeState::DISABLED,
                                {kDisabledAsOneshot, kDisabled}},
                      FlagsCase{"DisabledAndStopped",
                                false,
                                true,
                                true,
                                NodeState::DISABLED,
                                {kDisabled}},
                      FlagsCase{"AllThree",
                                true,
                                true,
                                true,
                                NodeState::DISABLED,
                                {kDisabledAsOneshot, kDisabled}}),
    test::CaseName());

struct ExitCase {
  const char* name;
  int code;
  int status;
};

class NodeReapExitTest : public test::FakedNodeTest,
                         public ::testing::WithParamInterface<ExitCase> {};

TEST_P(NodeReapExitTest, TheKindOfExitMakesNoDifference) {
  setState(NodeState::RUNNING);
  siginfo_t info{};
  info.si_signo = SIGCHLD;
  info.si_pid = kPid + 1;
  info.si_code = GetParam().code;
  info.si_status = GetParam().status;
  node_.reap(info);
  EXPECT_EQ(node_.state, NodeState::RESTARTING);
  EXPECT_EQ(node_.pid, 0);
}

INSTANTIATE_TEST_SUITE_P(
    EveryKind, NodeReapExitTest,
    ::testing::Values(ExitCase{"Success", CLD_EXITED, 0},
                      ExitCase{"Failure", CLD_EXITED, 127},
                      ExitCase{"Killed", CLD_KILLED, SIGKILL},
                      ExitCase{"Dumped", CLD_DUMPED, SIGSEGV}),
    test::CaseName());

}  // namespace
}  // namespace vorn::launch
