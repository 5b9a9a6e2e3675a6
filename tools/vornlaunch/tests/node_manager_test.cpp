#include "node_manager.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <type_traits>

#include "node.h"
#include "support/locked_node.h"
#include "support/node_fixture.h"
#include "support/steady_clock.h"

namespace vorn::launch {
namespace {

using namespace std::chrono_literals;
using test::addNode;
using test::logLine;
using test::sequence;
using test::stopCalls;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

static_assert(!std::is_copy_constructible_v<NodeManager>);
static_assert(!std::is_default_constructible_v<NodeManager>);

class NodeManagerTest : public ::testing::Test {
 protected:
  NodeManagerTest() : nodes_(NodeManager::getInstance()) {}

  /// Adds a node whose child, started this long ago, has exited by itself.
  Node& addRestarting(const std::string& name,
                      std::chrono::nanoseconds since_start) {
    Node& node = addNode(name, NodeState::RESTARTING);
    node.startTime = clock_.now() - since_start;
    return node;
  }

  const test::LogCapture log_;
  test::ProcessCalls processes_;
  test::StoppedSteadyClock clock_{1'000s};
  NodeManager& nodes_;
};

// ---- The instance and the searches.

TEST_F(NodeManagerTest, EveryCallReturnsTheSameInstance) {
  EXPECT_EQ(&NodeManager::getInstance(), &nodes_);
}

TEST_F(NodeManagerTest, TheNameThatIsAddedIsForTheLogOnly) {
  nodes_.addNode("logged", std::make_unique<Node>("worker"));
  EXPECT_EQ(nodes_.findNode("logged"), nullptr);
  EXPECT_NE(nodes_.findNode("worker"), nullptr);
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("INFO", false, "addNode", "name: logged")));
}

TEST_F(NodeManagerTest, ANameFindsTheFirstNodeThatHasIt) {
  addNode("other");
  const Node& first = addNode("worker");
  addNode("worker");
  EXPECT_EQ(nodes_.nodes().size(), 3U);
  EXPECT_EQ(nodes_.findNode("worker"), &first);
}

TEST_F(NodeManagerTest, ANameIsComparedByteByByte) {
  addNode("worker");
  EXPECT_EQ(nodes_.findNode("Worker"), nullptr);
  EXPECT_EQ(nodes_.findNode("work"), nullptr);
  EXPECT_EQ(nodes_.findNode("worker "), nullptr);
  EXPECT_EQ(nodes_.findNode(""), nullptr);
  EXPECT_EQ(nodes_.findNode(std::string("worker\0", 7)), nullptr);
}

TEST_F(NodeManagerTest, APidFindsTheFirstNodeWhoseChildHasIt) {
  addNode("a", NodeState::RUNNING, 41);
  const Node& first = addNode("b", NodeState::RUNNING, 42);
  addNode("c", NodeState::RUNNING, 42);
  EXPECT_EQ(nodes_.findNode(42), &first);
  EXPECT_EQ(nodes_.findNode(43), nullptr);
}

TEST_F(NodeManagerTest, PidZeroFindsTheFirstNodeWithoutAChild) {
  addNode("a", NodeState::RUNNING, 41);
  const Node& first = addNode("b");
  addNode("c");
  EXPECT_EQ(nodes_.findNode(0), &first);
}

// ---- Starting up.

TEST_F(NodeManagerTest, StartsTheNodesInTheirOrderAndWithTheirSleeps) {
  addNode("b").sleep = 30;
  addNode("a").sleep = 20;
  nodes_.startingUp();
  EXPECT_THAT(processes_.calls(),
              ElementsAre("stat /bin/b", "usleep 30000", "fork", "stat /bin/a",
                          "usleep 20000", "fork"));
}

TEST_F(NodeManagerTest, AFailedStartDoesNotKeepTheNextNodeFromStarting) {
  Node& failing = addNode("a");
  const Node& next = addNode("b");
  processes_.on_call = [&](const std::string& call) {
    processes_.file_missing = call == "stat /bin/a";
  };
  nodes_.startingUp();
  EXPECT_EQ(failing.state, NodeState::DISABLED);
  EXPECT_EQ(next.state, NodeState::RUNNING);
}

TEST_F(NodeManagerTest, ADisabledNodeIsSkippedSilently) {
  Node& node = addNode("worker");
  node.disabled = true;
  nodes_.startingUp();
  EXPECT_EQ(node.state, NodeState::STOPPED);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(test::events(log_), IsEmpty());
}

// ---- The restart poll.

TEST_F(NodeManagerTest, ANodeIsPendingBelowFiveSecondsSinceItsStart) {
  const Node& node = addRestarting("worker", 5s - 1ns);
  EXPECT_TRUE(nodes_.pollingRestart());
  EXPECT_EQ(node.state, NodeState::RESTARTING);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(test::events(log_), IsEmpty());
}

TEST_F(NodeManagerTest, ANodeIsStartedAtFiveSecondsSinceItsStart) {
  const Node& node = addRestarting("worker", 5s);
  EXPECT_FALSE(nodes_.pollingRestart());
  EXPECT_EQ(node.state, NodeState::RUNNING);
  EXPECT_EQ(node.startTime, clock_.now());
  EXPECT_THAT(processes_.calls(), ElementsAre("stat /bin/worker", "fork"));
}

class NodeManagerOtherStateTest
    : public NodeManagerTest,
      public ::testing::WithParamInterface<NodeState> {};

TEST_P(NodeManagerOtherStateTest, IsNeitherPendingNorStarted) {
  Node& due = addNode("due", GetParam(), 42);
  due.startTime = clock_.now() - 10s;
  Node& early = addNode("early", GetParam(), 43);
  early.startTime = clock_.now();
  EXPECT_FALSE(nodes_.pollingRestart());
  EXPECT_EQ(due.state, GetParam());
  EXPECT_EQ(early.state, GetParam());
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(test::events(log_), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryOtherState, NodeManagerOtherStateTest,
                         ::testing::Values(NodeState::STOPPED,
                                           NodeState::RUNNING,
                                           NodeState::DISABLED),
                         test::stateParamName);

TEST_F(NodeManagerTest, ThePollLocksNoNodeThatIsNotDue) {
  test::lockSoThatLockingThrows(addNode("running", NodeState::RUNNING, 41));
  test::lockSoThatLockingThrows(addRestarting("pending", 1s));
  EXPECT_TRUE(nodes_.pollingRestart());
}

TEST_F(NodeManagerTest, ADueNodeDoesNotHideAPendingOne) {
  addRestarting("a", 1s);
  addRestarting("b", 6s);
  addRestarting("c", 7s);
  EXPECT_TRUE(nodes_.pollingRestart());
  EXPECT_FALSE(nodes_.findNode("a")->state == NodeState::RUNNING);
  EXPECT_EQ(nodes_.findNode("c")->state, NodeState::RUNNING);
}

TEST_F(NodeManagerTest, RequiredNodesAreRestartedInOrderBeforeTheNode) {
  addNode("a", NodeState::RUNNING, 41);
  addNode("b", NodeState::RUNNING, 42);
  addRestarting("worker", 5s).required = {"b", "a"};
  EXPECT_FALSE(nodes_.pollingRestart());
  EXPECT_EQ(processes_.calls(),
            sequence({stopCalls(42),
                      {"usleep 200000", "stat /bin/b", "fork"},
                      stopCalls(41),
                      {"usleep 200000", "stat /bin/a", "fork"},
                      {"stat /bin/worker", "fork"}}));
}

TEST_F(NodeManagerTest, TheNodesOwnNameAndUnknownOnesAreIgnored) {
  Node& node = addRestarting("worker", 5s);
  node.required = {"nobody", "worker"};
  EXPECT_FALSE(nodes_.pollingRestart());
  EXPECT_EQ(node.state, NodeState::RUNNING);
  EXPECT_THAT(processes_.calls(), ElementsAre("stat /bin/worker", "fork"));
}

TEST_F(NodeManagerTest, AnotherNodeOfTheNodesOwnNameIsIgnored) {
  const Node& twin = addNode("worker", NodeState::RUNNING, 41);
  addRestarting("worker", 5s).required = {"worker"};
  EXPECT_FALSE(nodes_.pollingRestart());
  EXPECT_EQ(twin.pid, 41);
  EXPECT_THAT(processes_.calls(), ElementsAre("stat /bin/worker", "fork"));
}

TEST_F(NodeManagerTest, AFailedRestartOfARequiredNodeDoesNotStopTheStart) {
  addNode("a", NodeState::RUNNING, 41);
  const Node& node = addRestarting("worker", 5s);
  nodes_.findNode("worker")->required = {"a"};
  processes_.kill_error = [](pid_t, int) { return EPERM; };
  EXPECT_FALSE(nodes_.pollingRestart());
  EXPECT_EQ(node.state, NodeState::RUNNING);
}

}  // namespace
}  // namespace vorn::launch
