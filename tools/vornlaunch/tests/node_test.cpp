#include "node.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <fstream>
#include <functional>
#include <future>
#include <mutex>
#include <ostream>
#include <string>
#include <thread>
#include <vector>

#include "support/node_fixture.h"
#include "support/steady_clock.h"

namespace vorn::launch {
namespace {

using namespace std::chrono_literals;
using std::chrono::nanoseconds;
using test::StoppedSteadyClock;
using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::Not;

using NodeTest = test::FakedNodeTest;

TEST(NodeRecordTest, ANewNodeWasNeverStartedAndHasOnlyItsNameAndAutostart) {
  const Node node("planner");
  EXPECT_EQ(node.name, "planner");
  EXPECT_THAT(node.argv, IsEmpty());
  EXPECT_THAT(node.required, IsEmpty());
  EXPECT_THAT(node.environment, IsEmpty());
  EXPECT_TRUE(node.autostart);
  EXPECT_FALSE(node.disabled);
  EXPECT_FALSE(node.oneshot);
  EXPECT_FALSE(node.stopped);
  EXPECT_EQ(node.sleep, 0U);
  EXPECT_EQ(node.state, NodeState::STOPPED);
  EXPECT_EQ(node.pid, 0);
  EXPECT_EQ(node.startTime.time_since_epoch(), 0s);
  EXPECT_EQ(node.startWallTime.time_since_epoch(), 0s);
}

TEST(NodeRecordTest, TheStatesHaveTheNumbersOfTheStatusReply) {
  EXPECT_EQ(static_cast<int32_t>(NodeState::STOPPED), 0);
  EXPECT_EQ(static_cast<int32_t>(NodeState::RUNNING), 1);
  EXPECT_EQ(static_cast<int32_t>(NodeState::RESTARTING), 2);
  EXPECT_EQ(static_cast<int32_t>(NodeState::DISABLED), 3);
  EXPECT_EQ(sizeof(NodeState), 4U);
}

TEST_F(NodeTest, EnableLeavesTheStateDisabled) {
  setState(NodeState::DISABLED);
  node_.disabled = true;
  EXPECT_TRUE(node_.enable());
  EXPECT_FALSE(node_.disabled);
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

class NodeEnableTest : public test::FakedNodeInStateTest {};

TEST_P(NodeEnableTest, EnableClearsDisabledAndNothingElse) {
  const pid_t pid = node_.pid;
  node_.disabled = true;
  node_.stopped = true;
  node_.oneshot = true;
  node_.autostart = false;
  EXPECT_TRUE(node_.enable());
  EXPECT_FALSE(node_.disabled);
  EXPECT_EQ(node_.state, GetParam());
  EXPECT_EQ(node_.pid, pid);
  EXPECT_TRUE(node_.stopped);
  EXPECT_TRUE(node_.oneshot);
  EXPECT_FALSE(node_.autostart);
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeEnableTest, test::everyState(),
                         test::stateParamName);

struct IntervalCase {
  const char* name;
  nanoseconds since_start;
  int64_t seconds;
};

class NodeStartIntervalTest : public ::testing::TestWithParam<IntervalCase> {};

TEST_P(NodeStartIntervalTest, IsTheWholeSecondsSinceTheStart) {
  StoppedSteadyClock clock(100s + 700ms);
  Node node("worker");
  node.startTime = clock.now();
  clock.advance(GetParam().since_start);
  EXPECT_EQ(node.getStartInterval(), GetParam().seconds);
}

INSTANTIATE_TEST_SUITE_P(
    Truncated, NodeStartIntervalTest,
    ::testing::Values(IntervalCase{"AtOnce", 0ns, 0},
                      IntervalCase{"JustBelowOneSecond", 999'999'999ns, 0},
                      IntervalCase{"OneSecond", 1s, 1},
                      IntervalCase{"FourPoint999Seconds", 4'999ms, 4},
                      IntervalCase{"JustBelowFive", 5s - 1ns, 4},
                      IntervalCase{"FiveSeconds", 5s, 5},
                      IntervalCase{"BeyondThirtyTwoBits", 5'000'000'000s,
                                   5'000'000'000}),
    test::CaseName());

TEST_F(NodeTest, BeforeTheFirstStartTheIntervalIsTheClocksReading) {
  const StoppedSteadyClock clock(1'234s + 900ms);
  EXPECT_EQ(node_.getStartInterval(), 1'234);
}

// ---- The lock.

struct Operation {
  const char* name;
  NodeState state;  // in which the node begins
  std::function<void(Node&)> run;
};

std::ostream& operator<<(std::ostream& out, const Operation& operation) {
  return out << operation.name;
}

/// The operations that take the lock and deal with a process under it.
std::vector<Operation> processOperations() {
  return {
      {"start", NodeState::STOPPED, [](Node& node) { node.start(); }},
      {"stop", NodeState::RUNNING, [](Node& node) { node.stop(); }},
      {"stopRequired", NodeState::RUNNING,
       [](Node& node) { node.stopRequired(); }},
      {"restart", NodeState::RUNNING, [](Node& node) { node.restart(); }},
      {"disable", NodeState::RUNNING, [](Node& node) { node.disable(); }},
  };
}

std::vector<Operation> lockingOperations() {
  std::vector<Operation> operations = processOperations();
  operations.push_back(
      {"reap", NodeState::RUNNING, [](Node& node) { node.reap({}); }});
  return operations;
}

std::vector<Operation> operationsWithoutLock() {
  return {
      {"startInternal", NodeState::STOPPED,
       [](Node& node) { node.startInternal(); }},
      {"stopInternal", NodeState::RUNNING,
       [](Node& node) { node.stopInternal(); }},
      {"enable", NodeState::DISABLED, [](Node& node) { node.enable(); }},
      {"getStartInterval", NodeState::STOPPED,
       [](Node& node) { node.getStartInterval(); }},
  };
}

class NodeLockTest : public test::FakedNodeTest,
                     public ::testing::WithParamInterface<Operation> {
 protected:
  NodeLockTest() {
    setState(GetParam().state);
    node_.sleep = 1;
  }

  /// Whether another thread finds the node's mutex locked.
  bool isLocked() {
    const auto look = [this] {
      const bool is_free = node_.mutex.try_lock();
      if (is_free) node_.mutex.unlock();
      return !is_free;
    };
    return std::async(std::launch::async, look).get();
  }
};

/// Whether the thread of this process is asleep in the kernel.
bool isAsleep(pid_t thread) {
  std::ifstream file("/proc/self/task/" + std::to_string(thread) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const size_t name_end = stat.rfind(')');
  return name_end != std::string::npos && stat.compare(name_end, 3, ") S") == 0;
}

TEST_P(NodeLockTest, IsWaitedForByTheOperationAndFreeAfterIt) {
  std::atomic<pid_t> thread_id{0};
  std::atomic<bool> done{false};
  node_.mutex.lock();
  std::thread thread([&] {
    thread_id = ::gettid();
    GetParam().run(node_);
    done = true;
  });
  while (!done && (thread_id == 0 || !isAsleep(thread_id))) {
    std::this_thread::yield();
  }
  EXPECT_FALSE(done);
  EXPECT_EQ(node_.state, GetParam().state);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  node_.mutex.unlock();
  thread.join();
  EXPECT_FALSE(isLocked());
}

INSTANTIATE_TEST_SUITE_P(EveryOperation, NodeLockTest,
                         ::testing::ValuesIn(lockingOperations()),
                         test::CaseName());

class NodeLockDurationTest : public NodeLockTest {};

TEST_P(NodeLockDurationTest, IsTheWholeOperation) {
  std::vector<bool> locked;
  processes_.on_call = [&](const std::string&) {
    locked.push_back(isLocked());
  };
  GetParam().run(node_);
  EXPECT_THAT(locked, Not(IsEmpty()));
  EXPECT_THAT(locked, Each(true));
}

INSTANTIATE_TEST_SUITE_P(EveryProcessOperation, NodeLockDurationTest,
                         ::testing::ValuesIn(processOperations()),
                         test::CaseName());

class NodeWithoutLockTest : public NodeLockTest {};

// One that did lock would wait for this very thread, until the time limit.
TEST_P(NodeWithoutLockTest, RunsWhileTheCallerHoldsTheMutex) {
  const std::scoped_lock lock(node_.mutex);
  GetParam().run(node_);
  EXPECT_TRUE(isLocked());
}

INSTANTIATE_TEST_SUITE_P(EveryOperation, NodeWithoutLockTest,
                         ::testing::ValuesIn(operationsWithoutLock()),
                         test::CaseName());

}  // namespace
}  // namespace vorn::launch
