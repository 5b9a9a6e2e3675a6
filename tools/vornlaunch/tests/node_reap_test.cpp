#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "node.h"
#include "support/node_fixture.h"

namespace vorn::launch {
namespace {

using test::logLine;
using ::testing::ElementsAre;

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

TEST_F(NodeReapTest, OneshotComesBeforeDisabledBeforeStopped) {
  node_.stopped = true;
  node_.disabled = true;
  node_.reap({});
  EXPECT_THAT(log_.lines(), ElementsAre(kDisabled));
  node_.oneshot = true;
  node_.reap({});
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_TRUE(node_.stopped);
  EXPECT_THAT(log_.lines(),
              ElementsAre(kDisabled, kDisabledAsOneshot, kDisabled));
}

}  // namespace
}  // namespace vorn::launch
