#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "node.h"
#include "node_manager.h"
#include "support/children.h"
#include "support/node_fixture.h"
#include "support/steady_clock.h"

namespace vorn::launch {
namespace {

using namespace std::chrono_literals;
using test::addNode;
using test::Calls;
using test::events;
using test::logLine;
using test::presenceCheckCall;
using test::sequence;
using test::stopCalls;
using test::zombieCheckCall;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const Calls kPause = {"usleep 200000"};

/// The calls of a start of /bin/NAME.
Calls startCalls(const std::string& name) {
  return {"stat /bin/" + name, "fork"};
}

/// A required node's restart whose child is a zombie at the first check.
Calls restartCalls(const std::string& name, pid_t pid) {
  return sequence({stopCalls(pid), kPause, startCalls(name)});
}

test::LogLine started(const std::string& name) {
  return logLine("INFO", true, "startInternal", "Node start '" + name + "' ok");
}

test::LogLine isDisabled(const std::string& name) {
  return logLine("WARN", true, "startInternal", "Node '" + name + "' disabled");
}

test::LogLine killFailed(const std::string& name, const std::string& error) {
  return logLine("ERROR", true, "stopInternal",
                 "kill service '" + name + "' failed, error: " + error);
}

test::LogLine isRestarting(const std::string& name) {
  return logLine("INFO", true, "stopInternal",
                 "Node '" + name + "' is restarting, set stopped.");
}

test::LogLine restarted(const std::string& name, const std::string& outcome) {
  return logLine("INFO", true, "restart", "Node '" + name + "' " + outcome);
}

int refuseSigterm(pid_t /*pid*/, int signal) {
  return signal == SIGTERM ? EPERM : 0;
}

// ---- A stop of a node without a child.

class NodeStopIdleTest : public test::FakedNodeInStateTest {};

TEST_P(NodeStopIdleTest, SucceedsAndChangesNothing) {
  addNode("other", NodeState::RUNNING, 41);
  node_.required = {"other"};
  node_.pid = kPid;  // of a child that is still dying
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(node_.state, GetParam());
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_FALSE(node_.stopped);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(events(log_), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeStopIdleTest,
                         ::testing::Values(NodeState::STOPPED,
                                           NodeState::DISABLED),
                         test::stateParamName);

using NodeStopTest = test::FakedNodeTest;

TEST_F(NodeStopTest, ARestartingNodeIsStoppedWithoutASignal) {
  addNode("other", NodeState::RUNNING, 41);
  setState(NodeState::RESTARTING);
  node_.required = {"other"};
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_TRUE(node_.stopped);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(events(log_), ElementsAre(isRestarting("worker")));
}

// ---- The first signal.

TEST_F(NodeStopTest, ARefusedSigtermLeavesTheNodeRunning) {
  addNode("other", NodeState::RUNNING, 41);
  setState(NodeState::RUNNING);
  node_.required = {"other"};
  processes_.kill_error = refuseSigterm;
  EXPECT_FALSE(node_.stop());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_TRUE(node_.stopped);
  EXPECT_THAT(processes_.calls(), ElementsAre("kill 4242 TERM"));
  EXPECT_THAT(events(log_),
              ElementsAre(killFailed("worker", "Operation not permitted")));
}

TEST_F(NodeStopTest, SigtermIsSentBeforeTheStateChanges) {
  setState(NodeState::RUNNING);
  std::optional<NodeState> at_signal;
  std::optional<NodeState> at_look;
  bool stopped_at_signal = false;
  processes_.on_call = [&](const std::string& call) {
    if (call == "kill 4242 TERM") {
      at_signal = node_.state;
      stopped_at_signal = node_.stopped;
    } else if (!at_look) {
      at_look = node_.state;
    }
  };
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(at_signal, NodeState::RUNNING);
  EXPECT_TRUE(stopped_at_signal);
  EXPECT_EQ(at_look, NodeState::STOPPED);
}

TEST_F(NodeStopTest, ThePidStaysUntilTheReap) {
  setState(NodeState::RUNNING);
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_TRUE(node_.stopped);
  EXPECT_FALSE(node_.disabled);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ---- The wait.

TEST_F(NodeStopTest, RunsBothProcessTableCommandsInEachPass) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int) { return "0\n"; };
  EXPECT_TRUE(node_.stop());
  const Calls pass = {
      R"(popen r ps -A -o stat,pid| grep  '^[zZ]' | grep -c "4242")",
      "pclose",
      R"(popen r ps -A -o stat,pid | grep -c "4242")",
      "pclose",
      "usleep 200000",
  };
  std::vector<Calls> parts(50, pass);
  parts.insert(parts.begin(), {"kill 4242 TERM"});
  parts.push_back({"kill 4242 KILL"});
  EXPECT_EQ(processes_.calls(), sequence(parts));
}

TEST_F(NodeStopTest, AZombieIsSentSigkillToo) {
  setState(NodeState::RUNNING);
  EXPECT_TRUE(node_.stop());
  EXPECT_THAT(processes_.calls(),
              ElementsAre("kill 4242 TERM", zombieCheckCall(kPid), "pclose",
                          "kill 4242 KILL"));
}

TEST_F(NodeStopTest, AZombieOfALaterPassEndsTheWaitThere) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int pass) { return pass < 3 ? "0\n" : "1\n"; };
  EXPECT_TRUE(node_.stop());
  const Calls pass = {zombieCheckCall(kPid), "pclose", presenceCheckCall(kPid),
                      "pclose", "usleep 200000"};
  EXPECT_EQ(processes_.calls(),
            sequence({{"kill 4242 TERM"},
                      pass,
                      pass,
                      {zombieCheckCall(kPid), "pclose", "kill 4242 KILL"}}));
}

TEST_F(NodeStopTest, AChildThatHasDisappearedIsNotSentSigkill) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int) { return "0\n"; };
  processes_.presence = [](int) { return "0\n"; };
  EXPECT_TRUE(node_.stop());
  EXPECT_THAT(processes_.calls(),
              ElementsAre("kill 4242 TERM", zombieCheckCall(kPid), "pclose",
                          presenceCheckCall(kPid), "pclose"));
}

TEST_F(NodeStopTest, ARefusedSigkillIsIgnored) {
  setState(NodeState::RUNNING);
  processes_.kill_error = [](pid_t, int signal) {
    return signal == SIGKILL ? ESRCH : 0;
  };
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_THAT(log_.lines(), IsEmpty());
}

// ---- Commands that cannot be started.

TEST_F(NodeStopTest, AZombieCheckThatCannotRunIsSkippedForItsPass) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int pass) {
    return pass == 1 ? std::nullopt : std::optional<std::string>("1\n");
  };
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(processes_.calls(),
            sequence({{"kill 4242 TERM", zombieCheckCall(kPid)},
                      {presenceCheckCall(kPid), "pclose", "usleep 200000"},
                      {zombieCheckCall(kPid), "pclose", "kill 4242 KILL"}}));
}

TEST_F(NodeStopTest, APresenceCheckThatCannotRunIsSkippedForItsPass) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int) { return "0\n"; };
  processes_.presence = [](int pass) {
    return pass == 1 ? std::nullopt : std::optional<std::string>("0\n");
  };
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(processes_.calls(),
            sequence({{"kill 4242 TERM", zombieCheckCall(kPid), "pclose"},
                      {presenceCheckCall(kPid), "usleep 200000"},
                      {zombieCheckCall(kPid), "pclose"},
                      {presenceCheckCall(kPid), "pclose"}}));
}

// ---- How a count is read.

TEST_F(NodeStopTest, AFourDigitCountIsReadAsZero) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int) { return "0\n"; };
  processes_.presence = [](int) { return "1000\n"; };
  EXPECT_TRUE(node_.stop());
  EXPECT_THAT(processes_.calls(),
              ElementsAre("kill 4242 TERM", zombieCheckCall(kPid), "pclose",
                          presenceCheckCall(kPid), "pclose"));
}

struct CountCase {
  const char* name;
  const char* output;
  bool ends_the_wait;
};

class NodeStopPresenceCountTest
    : public test::FakedNodeTest,
      public ::testing::WithParamInterface<CountCase> {};

TEST_P(NodeStopPresenceCountTest, IsReadInPiecesOfFourCharacters) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int) { return "0\n"; };
  processes_.presence = [](int) { return GetParam().output; };
  EXPECT_TRUE(node_.stop());
  const size_t passes = GetParam().ends_the_wait ? 1 : 50;
  EXPECT_EQ(processes_.count(presenceCheckCall(kPid)), passes);
  EXPECT_EQ(processes_.count("pclose"), 2 * passes);
  EXPECT_EQ(processes_.count("kill 4242 KILL"),
            GetParam().ends_the_wait ? 0U : 1U);
}

INSTANTIATE_TEST_SUITE_P(
    EveryLength, NodeStopPresenceCountTest,
    ::testing::Values(CountCase{"Zero", "0\n", true},
                      CountCase{"One", "1\n", false},
                      CountCase{"TwoDigits", "10\n", false},
                      CountCase{"ThreeDigits", "999\n", false},
                      CountCase{"FourDigits", "9999\n", true},
                      CountCase{"FourDigitsWithoutLineEnd", "9999", false},
                      CountCase{"FiveDigits", "12345\n", false},
                      CountCase{"FiveDigitsEndingInZero", "12340\n", true},
                      CountCase{"NoNumber", "ps?\n", true},
                      CountCase{"ZeroInTheSecondLine", "1\n0\n", true},
                      CountCase{"MoreAfterTheZero", "0\n5\n", true},
                      CountCase{"Nothing", "", false}),
    test::CaseName());

class NodeStopZombieCountTest
    : public test::FakedNodeTest,
      public ::testing::WithParamInterface<CountCase> {};

TEST_P(NodeStopZombieCountTest, EndsTheWaitAboveZero) {
  setState(NodeState::RUNNING);
  processes_.zombie = [](int) { return GetParam().output; };
  EXPECT_TRUE(node_.stop());
  const size_t passes = GetParam().ends_the_wait ? 1 : 50;
  const size_t presence_checks = GetParam().ends_the_wait ? 0 : 50;
  EXPECT_EQ(processes_.count(zombieCheckCall(kPid)), passes);
  EXPECT_EQ(processes_.count(presenceCheckCall(kPid)), presence_checks);
  EXPECT_EQ(processes_.count("pclose"), passes + presence_checks);
  EXPECT_EQ(processes_.calls().back(), "kill 4242 KILL");
}

INSTANTIATE_TEST_SUITE_P(
    EveryLength, NodeStopZombieCountTest,
    ::testing::Values(CountCase{"Zero", "0\n", false},
                      CountCase{"One", "1\n", true},
                      CountCase{"ThreeDigits", "100\n", true},
                      CountCase{"FourDigits", "1000\n", true},
                      CountCase{"NumberAfterFourZeros", "00007\n", true},
                      CountCase{"Negative", "-1\n", false},
                      CountCase{"NoNumber", "ps?\n", false},
                      CountCase{"MoreAfterTheOne", "1\n0\n", true},
                      CountCase{"Nothing", "", false}),
    test::CaseName());

// ---- The required nodes.

TEST_F(NodeStopTest, RequiredNodesAreRestartedInOrderAfterTheOwnSigkill) {
  const Node& a = addNode("a", NodeState::RUNNING, 41);
  const Node& b = addNode("b", NodeState::RUNNING, 42);
  setState(NodeState::RUNNING);
  node_.required = {"b", "a"};
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(processes_.calls(),
            sequence({stopCalls(kPid), restartCalls("b", 42),
                      restartCalls("a", 41)}));
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_EQ(b.state, NodeState::RUNNING);
  EXPECT_EQ(b.pid, 5001);
  EXPECT_EQ(a.state, NodeState::RUNNING);
  EXPECT_EQ(a.pid, 5002);
  EXPECT_THAT(events(log_), ElementsAre(started("b"), started("a")));
}

TEST_F(NodeStopTest, RequiredNodesAreRestartedWhenTheChildIsGoneToo) {
  addNode("a", NodeState::RUNNING, 41);
  setState(NodeState::RUNNING);
  node_.required = {"a"};
  bool first = true;
  processes_.zombie = [&](int) {
    return std::exchange(first, false) ? "0" : "1";
  };
  processes_.presence = [](int) { return "0\n"; };
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(processes_.count("kill 4242 KILL"), 0U);
  EXPECT_EQ(processes_.count("kill 41 TERM"), 1U);
}

TEST_F(NodeStopTest, RequiredNodesOfRequiredNodesAreRestartedToo) {
  addNode("a", NodeState::RUNNING, 41).required = {"b"};
  addNode("b", NodeState::RUNNING, 42);
  setState(NodeState::RUNNING);
  node_.required = {"a"};
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(processes_.calls(),
            sequence({stopCalls(kPid), stopCalls(41), restartCalls("b", 42),
                      kPause, startCalls("a")}));
}

TEST_F(NodeStopTest, TheNodesOwnNameAndUnknownOnesAreSkipped) {
  Node& node = addNode("self", NodeState::RUNNING, 40);
  addNode("a", NodeState::RUNNING, 41);
  node.required = {"nobody", "self", "a"};
  EXPECT_TRUE(node.stop());
  EXPECT_EQ(processes_.calls(),
            sequence({stopCalls(40), restartCalls("a", 41)}));
  EXPECT_EQ(node.state, NodeState::STOPPED);
}

TEST_F(NodeStopTest, AnotherNodeOfTheNodesOwnNameIsSkipped) {
  const Node& twin = addNode("worker", NodeState::RUNNING, 41);
  setState(NodeState::RUNNING);
  node_.required = {"worker"};
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(processes_.calls(), stopCalls(kPid));
  EXPECT_EQ(twin.pid, 41);
}

TEST_F(NodeStopTest, ARequiredOneshotEndsDisabled) {
  Node& other = addNode("other", NodeState::RUNNING, 41);
  other.oneshot = true;
  setState(NodeState::RUNNING);
  node_.required = {"other"};
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(other.state, NodeState::DISABLED);
  EXPECT_TRUE(other.disabled);
  EXPECT_EQ(processes_.calls(),
            sequence({stopCalls(kPid), stopCalls(41), kPause}));
  EXPECT_THAT(events(log_), ElementsAre(isDisabled("other")));
}

TEST_F(NodeStopTest, AFailedRestartOfARequiredNodeDoesNotFailTheStop) {
  const Node& a = addNode("a", NodeState::RUNNING, 41);
  const Node& b = addNode("b", NodeState::RUNNING, 42);
  setState(NodeState::RUNNING);
  node_.required = {"a", "b"};
  processes_.kill_error = [](pid_t pid, int) { return pid == 41 ? EPERM : 0; };
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_EQ(a.pid, 41);
  EXPECT_EQ(b.pid, 5001);
  EXPECT_THAT(
      events(log_),
      ElementsAre(killFailed("a", "Operation not permitted"), started("b")));
}

TEST_F(NodeStopTest, TheNodesLockIsHeldWhileRequiredNodesRestart) {
  addNode("a", NodeState::RUNNING, 41);
  setState(NodeState::RUNNING);
  node_.required = {"a"};
  bool locked = false;
  processes_.on_call = [&](const std::string& call) {
    if (call != "fork") return;
    std::thread([&] {
      locked = !node_.mutex.try_lock();
      if (!locked) node_.mutex.unlock();
    }).join();
  };
  EXPECT_TRUE(node_.stop());
  EXPECT_TRUE(locked);
}

/// The state letter of a process, 'Z' for a zombie.
char processState(pid_t pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string stat;
  std::getline(file, stat);
  const size_t name_end = stat.rfind(')');
  return name_end == std::string::npos ? '?' : stat.at(name_end + 2);
}

// ---- Real children.

class NodeStopChildTest : public ::testing::Test {
 protected:
  /// Starts the node as "sleep 1000", which begins with `trap`, and waits until
  /// the program is there.
  void start(const std::string& trap) {
    node_.argv = {"/bin/sh", "-c", trap + "exec sleep 1000"};
    ASSERT_TRUE(node_.start());
    const std::string comm = "/proc/" + std::to_string(node_.pid) + "/comm";
    std::string program;
    while (program != "sleep") {
      ASSERT_NE(processState(node_.pid), 'Z');
      std::ifstream(comm) >> program;
      std::this_thread::yield();
    }
    showOnly(node_.pid);
  }

  /// Hides all other processes from `ps`, as their pids may have the same
  /// digits in them.
  void showOnly(pid_t pid) {
    children_.write("ps",
                    "#!/bin/sh\n/usr/bin/ps \"$@\" | grep -E '[^0-9]" +
                        std::to_string(pid) + "$'\n",
                    std::filesystem::perms::owner_all);
    const std::string path = children_.path("") + ':' + std::getenv("PATH");
    ASSERT_EQ(::setenv("PATH", path.c_str(), 1), 0);
  }

  /// The signal that terminated the node's child; 0 if it exited.
  int signalOfChild() {
    const int status = children_.waitFor(node_.pid);
    return WIFSIGNALED(status) ? WTERMSIG(status) : 0;
  }

  const test::LogCapture log_;
  test::Children children_;
  Node node_{"worker"};
};

TEST_F(NodeStopChildTest, ThatIgnoresSigtermDiesOfSigkill) {
  int pauses = 0;
  test::systemCalls().usleep = [&](useconds_t) {
    ++pauses;
    return 0;
  };
  start("trap '' TERM; ");
  EXPECT_TRUE(node_.stop());
  EXPECT_EQ(pauses, 50);
  EXPECT_EQ(signalOfChild(), SIGKILL);
}

// ---- stopRequired().

class NodeRequiredIdleTest : public test::FakedNodeInStateTest {};

TEST_P(NodeRequiredIdleTest, ANodeThatIsNotRunningIsLeftUntouched) {
  node_.oneshot = true;
  EXPECT_TRUE(node_.stopRequired());
  EXPECT_EQ(node_.state, GetParam());
  EXPECT_FALSE(node_.stopped);
  EXPECT_FALSE(node_.disabled);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeRequiredIdleTest,
                         test::everyStateButRunning(), test::stateParamName);

using NodeRequiredTest = test::FakedNodeTest;

TEST_F(NodeRequiredTest, ARunningNodeIsStoppedAndStartedAfterAPause) {
  setState(NodeState::RUNNING);
  EXPECT_TRUE(node_.stopRequired());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, 5001);
  EXPECT_FALSE(node_.stopped);
  EXPECT_EQ(processes_.calls(), restartCalls("worker", kPid));
  EXPECT_THAT(log_.lines(), ElementsAre(started("worker")));
}

TEST_F(NodeRequiredTest, ARefusedStopIsAFailureWithoutAStart) {
  setState(NodeState::RUNNING);
  processes_.kill_error = refuseSigterm;
  EXPECT_FALSE(node_.stopRequired());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_FALSE(node_.disabled);
  EXPECT_THAT(processes_.calls(),
              ElementsAre("kill 4242 TERM", "usleep 200000"));
}

TEST_F(NodeRequiredTest, AFailedStartIsAFailure) {
  setState(NodeState::RUNNING);
  processes_.fork_fails = true;
  EXPECT_FALSE(node_.stopRequired());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
}

TEST_F(NodeRequiredTest, AOneshotIsStoppedAndItsStartRefused) {
  setState(NodeState::RUNNING);
  node_.oneshot = true;
  EXPECT_FALSE(node_.stopRequired());
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_TRUE(node_.disabled);
  EXPECT_EQ(processes_.calls(), sequence({stopCalls(kPid), kPause}));
  EXPECT_THAT(log_.lines(), ElementsAre(isDisabled("worker")));
}

TEST_F(NodeRequiredTest, AOneshotIsMarkedDisabledThoughItsStopWasRefused) {
  setState(NodeState::RUNNING);
  node_.oneshot = true;
  processes_.kill_error = refuseSigterm;
  EXPECT_FALSE(node_.stopRequired());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_TRUE(node_.disabled);
}

TEST_F(NodeRequiredTest, AOneshotIsMarkedDisabledAfterThePause) {
  setState(NodeState::RUNNING);
  node_.oneshot = true;
  bool disabled_at_pause = true;
  processes_.on_call = [&](const std::string& call) {
    if (call == "usleep 200000") disabled_at_pause = node_.disabled;
  };
  EXPECT_FALSE(node_.stopRequired());
  EXPECT_FALSE(disabled_at_pause);
}

// ---- restart().

class NodeRestartIdleTest : public test::FakedNodeInStateTest {};

TEST_P(NodeRestartIdleTest, ANodeThatIsNotRunningIsStartedAfterAPause) {
  addNode("a", NodeState::RUNNING, 41);
  node_.required = {"a"};
  EXPECT_TRUE(node_.restart());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, 5001);
  EXPECT_EQ(processes_.calls(), sequence({kPause, startCalls("worker")}));
  EXPECT_THAT(events(log_),
              ElementsAre(started("worker"), restarted("worker", "success")));
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeRestartIdleTest,
                         test::everyStateButRunning(), test::stateParamName);

using NodeRestartTest = test::FakedNodeTest;

TEST_F(NodeRestartTest, ARunningNodeIsStoppedAndStartedAfterAPause) {
  setState(NodeState::RUNNING);
  EXPECT_TRUE(node_.restart());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, 5001);
  EXPECT_FALSE(node_.stopped);
  EXPECT_EQ(processes_.calls(), restartCalls("worker", kPid));
  EXPECT_THAT(log_.lines(),
              ElementsAre(started("worker"), restarted("worker", "success")));
}

TEST_F(NodeRestartTest, RequiredNodesAreRestartedBeforeThePause) {
  addNode("a", NodeState::RUNNING, 41);
  setState(NodeState::RUNNING);
  node_.required = {"a"};
  EXPECT_TRUE(node_.restart());
  EXPECT_EQ(processes_.calls(),
            sequence({stopCalls(kPid), restartCalls("a", 41), kPause,
                      startCalls("worker")}));
}

TEST_F(NodeRestartTest, ARefusedStopIsAFailureWithoutAStart) {
  setState(NodeState::RUNNING);
  processes_.kill_error = refuseSigterm;
  EXPECT_FALSE(node_.restart());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_THAT(processes_.calls(),
              ElementsAre("kill 4242 TERM", "usleep 200000"));
  EXPECT_THAT(log_.lines(),
              ElementsAre(killFailed("worker", "Operation not permitted"),
                          restarted("worker", "failed")));
}

TEST_F(NodeRestartTest, AFailedForkFails) {
  setState(NodeState::RUNNING);
  processes_.fork_fails = true;
  EXPECT_FALSE(node_.restart());
  EXPECT_EQ(node_.state, NodeState::STOPPED);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_THAT(log_.lines(), ElementsAre(logLine("ERROR", true, "startInternal",
                                                "name: worker fork failed."),
                                        restarted("worker", "failed")));
}

TEST_F(NodeRestartTest, AOneshotIsStartedAgain) {
  setState(NodeState::RUNNING);
  node_.oneshot = true;
  EXPECT_TRUE(node_.restart());
  EXPECT_EQ(node_.state, NodeState::RUNNING);
}

// ---- disable().

class NodeDisableIdleTest : public test::FakedNodeInStateTest {};

TEST_P(NodeDisableIdleTest, ANodeWithoutAChildIsJustMarked) {
  EXPECT_TRUE(node_.disable());
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_TRUE(node_.disabled);
  EXPECT_EQ(node_.pid, 0);
  EXPECT_FALSE(node_.stopped);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(EveryState, NodeDisableIdleTest,
                         ::testing::Values(NodeState::STOPPED,
                                           NodeState::DISABLED),
                         test::stateParamName);

using NodeDisableTest = test::FakedNodeTest;

TEST_F(NodeDisableTest, ARestartingNodeIsStoppedFirst) {
  setState(NodeState::RESTARTING);
  EXPECT_TRUE(node_.disable());
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_TRUE(node_.disabled);
  EXPECT_TRUE(node_.stopped);
  EXPECT_THAT(processes_.calls(), IsEmpty());
  EXPECT_THAT(log_.lines(), ElementsAre(isRestarting("worker")));
}

TEST_F(NodeDisableTest, ARunningNodeIsStoppedFirst) {
  addNode("a", NodeState::RUNNING, 41);
  setState(NodeState::RUNNING);
  node_.required = {"a"};
  EXPECT_TRUE(node_.disable());
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_TRUE(node_.disabled);
  EXPECT_TRUE(node_.stopped);
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_EQ(processes_.calls(),
            sequence({stopCalls(kPid), restartCalls("a", 41)}));
}

TEST_F(NodeDisableTest, TheNodeIsDisabledThoughItsStopWasRefused) {
  setState(NodeState::RUNNING);
  processes_.kill_error = refuseSigterm;
  EXPECT_FALSE(node_.disable());
  EXPECT_EQ(node_.state, NodeState::DISABLED);
  EXPECT_TRUE(node_.disabled);
  EXPECT_EQ(node_.pid, kPid);
  EXPECT_THAT(log_.lines(),
              ElementsAre(killFailed("worker", "Operation not permitted")));
}

TEST_F(NodeDisableTest, TheFlagIsSetAfterTheStop) {
  setState(NodeState::RUNNING);
  bool disabled_early = false;
  processes_.on_call = [&](const std::string&) {
    disabled_early = disabled_early || node_.disabled;
  };
  EXPECT_TRUE(node_.disable());
  EXPECT_FALSE(disabled_early);
}

}  // namespace
}  // namespace vorn::launch
