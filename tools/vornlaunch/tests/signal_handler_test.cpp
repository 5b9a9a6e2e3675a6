#include "signal_handler.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <system_error>
#include <vector>

#include "epoll.h"
#include "node_manager.h"
#include "support/locked_node.h"
#include "support/log_capture.h"
#include "support/node_fixture.h"
#include "support/system_calls.h"

namespace vorn::launch {
namespace {

using test::failWith;
using test::logLine;
using test::LogLine;
using test::real;
using test::systemCalls;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::SizeIs;

using Strings = std::vector<std::string>;

/// The members of `set`, in ascending order.
std::vector<int> membersOf(const sigset_t& set) {
  std::vector<int> members;
  for (int signal = 1; signal < NSIG; ++signal) {
    if (::sigismember(&set, signal) == 1) members.push_back(signal);
  }
  return members;
}

std::vector<int> blockedSignals() {
  sigset_t blocked;
  (void)::sigprocmask(SIG_BLOCK, nullptr, &blocked);
  return membersOf(blocked);
}

const auto kExactlyRouted = ElementsAre(SIGTERM, SIGCHLD);

TEST(SignalFdTest, IsMinusOneBeforeTheInstallation) {
  EXPECT_EQ(signal_fd, -1);
}

// ---- installSignalHandler().

/// Records the steps in place of taking them; every one succeeds but `failing`.
class InstallStepsTest : public ::testing::Test {
 protected:
  InstallStepsTest() {
    signal_fd = kUntouched;
    systemCalls().sigaction = [this](int signal, const struct sigaction* action,
                                     struct sigaction*) {
      signal_ = signal;
      action_ = *action;
      return step("sigaction");
    };
    systemCalls().sigprocmask = [this](int how, const sigset_t* set,
                                       sigset_t*) {
      how_ = how;
      blocked_ = *set;
      return step("sigprocmask");
    };
    systemCalls().pthread_atfork = [this](void (*prepare)(), void (*parent)(),
                                          void (*child)()) {
      hooks_ = {prepare, parent, child};
      return step("pthread_atfork") == 0 ? 0 : ENOMEM;
    };
    systemCalls().signalfd = [this](int fd, const sigset_t* set, int flags) {
      fd_ = fd;
      routed_ = *set;
      flags_ = flags;
      return step("signalfd") == 0 ? kNewFd : -1;
    };
    systemCalls().epoll_ctl = [this](int, int, int fd, epoll_event* event) {
      registered_fd_ = fd;
      events_ = event->events;
      return step("epoll_ctl");
    };
  }

  bool install() { return installSignalHandler(&epoll_); }

  int step(const std::string& name) {
    steps_.push_back(name);
    return name == failing_ ? failWith(EAGAIN) : 0;
  }

  static constexpr int kUntouched = 1234;
  static constexpr int kNewFd = 1000;

  const test::LogCapture log_;
  Epoll epoll_;
  std::string failing_;
  Strings steps_;
  int signal_ = 0;
  struct sigaction action_ {};
  int how_ = 0;
  sigset_t blocked_{};
  std::array<void (*)(), 3> hooks_{};
  int fd_ = 0;
  sigset_t routed_{};
  int flags_ = 0;
  int registered_fd_ = 0;
  uint32_t events_ = 0;
};

TEST_F(InstallStepsTest, TakesItsFiveStepsInOrderAndLogsNothing) {
  EXPECT_TRUE(install());
  EXPECT_THAT(steps_, ElementsAre("sigaction", "sigprocmask", "pthread_atfork",
                                  "signalfd", "epoll_ctl"));
  EXPECT_THAT(log_.lines(), IsEmpty());
  EXPECT_EQ(signal_, SIGCHLD);
  EXPECT_EQ(action_.sa_handler, SIG_DFL);
  EXPECT_EQ(action_.sa_flags, SA_NOCLDSTOP);
  EXPECT_EQ(how_, SIG_BLOCK);
  EXPECT_THAT(membersOf(blocked_), kExactlyRouted);
  EXPECT_THAT(hooks_, ElementsAre(nullptr, nullptr, unblockSignals));
  EXPECT_EQ(fd_, -1);
  EXPECT_THAT(membersOf(routed_), kExactlyRouted);
  EXPECT_EQ(flags_, SFD_CLOEXEC);
  EXPECT_EQ(signal_fd, kNewFd);
  EXPECT_EQ(registered_fd_, kNewFd);
  EXPECT_EQ(events_, static_cast<uint32_t>(EPOLLIN));
}

TEST_F(InstallStepsTest, AFailedSigactionIsIgnored) {
  failing_ = "sigaction";
  EXPECT_TRUE(install());
  EXPECT_THAT(steps_, SizeIs(5));
  EXPECT_THAT(log_.lines(), IsEmpty());
}

struct FailedStep {
  const char* name;
  size_t count;  // of steps, this one included
  const char* text;
  int signal_fd;
};

class FailedStepTest : public InstallStepsTest,
                       public ::testing::WithParamInterface<FailedStep> {};

TEST_P(FailedStepTest, IsOneErrorLineAndTheLastStep) {
  failing_ = GetParam().name;
  EXPECT_FALSE(install());
  EXPECT_EQ(steps_.back(), failing_);
  EXPECT_THAT(steps_, SizeIs(GetParam().count));
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "installSignalHandler",
                                  GetParam().text)));
  EXPECT_EQ(signal_fd, GetParam().signal_fd);
}

INSTANTIATE_TEST_SUITE_P(
    Of, FailedStepTest,
    ::testing::Values(
        FailedStep{"sigprocmask", 2, "Failed to block signals", 1234},
        FailedStep{"pthread_atfork", 3, "Failed to register a fork handler",
                   1234},
        FailedStep{"signalfd", 4, "Failed to create signalfd", -1}),
    [](const auto& test) { return test.param.name; });

TEST_F(InstallStepsTest, AFailedRegistrationIsFalseAndLeavesTheLineToEpoll) {
  failing_ = "epoll_ctl";
  EXPECT_FALSE(install());
  EXPECT_THAT(log_.lines(),
              ElementsAre(logLine("ERROR", false, "registerHandler",
                                  "epoll_ctl failed to add fd.")));
  EXPECT_EQ(signal_fd, kNewFd);
}

// ---- Children, as this process and the launcher's code see them.

/// Runs `body` in a child, which exits with its result. Returns the pid.
pid_t startChild(const std::function<int()>& body) {
  (void)std::fflush(nullptr);
  const pid_t pid = ::fork();
  if (pid == 0) ::_exit(body());
  return pid;
}

/// Returns when `pid` has exited; it stays a zombie.
void awaitExit(pid_t pid) {
  siginfo_t info{};
  ASSERT_EQ(
      real.waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT), 0);
}

/// A child that has exited with `status` and awaits its collection.
pid_t exitedChild(int status) {
  const pid_t pid = startChild([status] { return status; });
  awaitExit(pid);
  return pid;
}

pid_t sleepingChild() {
  return startChild([] {
    while (true) (void)::pause();
    return 0;
  });
}

/// A child that `signal` has terminated.
pid_t killedChild(int signal) {
  const pid_t pid = sleepingChild();
  (void)real.kill(pid, signal);
  awaitExit(pid);
  return pid;
}

/// True when no zombie of that pid is left.
bool isCollected(pid_t pid) {
  siginfo_t info{};
  return real.waitid(P_PID, static_cast<id_t>(pid), &info,
                     WEXITED | WNOHANG | WNOWAIT) == -1 &&
         errno == ECHILD;
}

void endChild(pid_t pid) {
  (void)real.kill(pid, SIGKILL);
  (void)real.waitpid(pid, nullptr, 0);
}

/// The exit status of a child that runs `body`; -1 when it did not exit.
int exitStatusOf(const std::function<int()>& body) {
  const pid_t pid = startChild(body);
  int status = 0;
  if (real.waitpid(pid, &status, 0) != pid || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

// ---- The hook of forked children.

TEST(UnblockSignalsTest, GivesBothSignalsTheirDefaultsThenUnblocksThem) {
  Strings steps;
  sigset_t unblocked{};
  systemCalls().sigaction = [&](int signal, const struct sigaction* action,
                                struct sigaction*) {
    EXPECT_EQ(action->sa_handler, SIG_DFL);
    steps.push_back("default " + std::to_string(signal));
    return failWith(EINVAL);  // ignored
  };
  systemCalls().sigprocmask = [&](int how, const sigset_t* set, sigset_t*) {
    EXPECT_EQ(how, SIG_UNBLOCK);
    unblocked = *set;
    steps.emplace_back("unblock");
    return 0;
  };
  const test::LogCapture log;
  unblockSignals();
  EXPECT_THAT(steps,
              ElementsAre("default " + std::to_string(SIGCHLD),
                          "default " + std::to_string(SIGTERM), "unblock"));
  EXPECT_THAT(membersOf(unblocked), kExactlyRouted);
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(UnblockSignalsTest, AFailureIsOneErrorLine) {
  const test::LogCapture log;
  systemCalls().sigprocmask = [](int, const sigset_t*, sigset_t*) {
    return failWith(EINVAL);
  };
  unblockSignals();
  EXPECT_THAT(log.lines(),
              ElementsAre(logLine("ERROR", false, "unblockSignals",
                                  "failed to unblock signals for PID")));
}

// ---- The real thing.

class SignalHandlerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_THAT(blockedSignals(), IsEmpty());
    ASSERT_TRUE(epoll_.open());
    ASSERT_TRUE(installSignalHandler(&epoll_));
  }

  const test::LogCapture log_;
  Epoll epoll_;
};

TEST_F(SignalHandlerTest, AForkedChildHasBothSignalsUnblocked) {
  EXPECT_EQ(exitStatusOf([] { return blockedSignals().empty() ? 0 : 1; }), 0);
}

TEST_F(SignalHandlerTest, AnExitWakesTheLoopWhoseHandlerCollectsTheChild) {
  const pid_t pid = exitedChild(0);
  const auto handlers = epoll_.wait(-1);
  ASSERT_THAT(handlers, SizeIs(1));
  (*handlers.front())();
  EXPECT_TRUE(isCollected(pid));
  EXPECT_THAT(epoll_.wait(0), IsEmpty());
}

// ---- handleSignalFd(), fed through a pipe.

class HandleSignalTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
    signal_fd = ends[0];
    pipe_ = ends[1];
  }

  /// Makes a record of `signal` the next one to be read.
  void deliver(int signal) const {
    signalfd_siginfo record{};
    record.ssi_signo = static_cast<uint32_t>(signal);
    deliverBytes(&record, sizeof(record));
  }

  void deliverBytes(const void* bytes, size_t size) const {
    ASSERT_EQ(::write(pipe_, bytes, size), static_cast<ssize_t>(size));
  }

  /// Registers a node; its "name:" line is kept out of newLines().
  Node& addNode(const std::string& name, NodeState state, pid_t pid) {
    Node& added = test::addNode(name, state, pid);
    seen_ = log_.lines().size();
    return added;
  }

  std::vector<LogLine> newLines() const {
    auto lines = log_.lines();
    lines.erase(lines.begin(), lines.begin() + static_cast<long>(seen_));
    return lines;
  }

  const test::LogCapture log_;
  size_t seen_ = 0;
  int pipe_ = -1;
};

const auto kReadFailed =
    ElementsAre(logLine("ERROR", false, "handleSignalFd",
                        "Failed to read siginfo from signal_fd."));

TEST_F(HandleSignalTest, ReadsOneWholeRecordOfTheSignalfd) {
  int reads = 0;
  systemCalls().read = [&](int fd, void* buffer, size_t size) {
    ++reads;
    EXPECT_EQ(fd, signal_fd);
    EXPECT_EQ(size, 128U);
    return real.read(fd, buffer, size);
  };
  deliver(SIGUSR1);
  deliver(SIGUSR2);
  handleSignalFd();
  EXPECT_EQ(reads, 1);
  EXPECT_THAT(newLines(), Contains(logLine("INFO", false, "handleSignalFd",
                                           "ssi_signo: 10")));
  EXPECT_THAT(newLines(),
              Not(Contains(Field(&LogLine::text, HasSubstr("12")))));
}

TEST_F(HandleSignalTest, AShortReadIsOneErrorLineAndNothingElse) {
  const std::array<char, 127> most{};
  deliverBytes(most.data(), most.size());
  handleSignalFd();
  EXPECT_THAT(newLines(), kReadFailed);
}

TEST_F(HandleSignalTest, AnInterruptedReadIsNotRepeated) {
  int reads = 0;
  systemCalls().read = [&](int, void*, size_t) {
    ++reads;
    return failWith(EINTR);
  };
  handleSignalFd();
  EXPECT_EQ(reads, 1);
  EXPECT_THAT(newLines(), kReadFailed);
}

TEST_F(HandleSignalTest, AnUnexpectedSignalIsOneErrorLineAndReapsNothing) {
  systemCalls().waitid = [](idtype_t, id_t, siginfo_t*, int) {
    ADD_FAILURE() << "looked for exited children";
    return failWith(ECHILD);
  };
  deliver(SIGUSR1);
  handleSignalFd();
  EXPECT_THAT(
      newLines(),
      ElementsAre(logLine("INFO", false, "handleSignalFd", "ssi_signo: 10"),
                  logLine("ERROR", false, "handleSignalFd",
                          "received unexpected signal: 10")));
}

// ---- SIGTERM.

class SigtermTest : public HandleSignalTest {
 protected:
  SigtermTest() {
    systemCalls().kill = [](pid_t pid, int signal) {
      (void)std::fprintf(stderr, "kill %d %d\n", pid, signal);
      return pid == kUnkillable ? failWith(ESRCH) : 0;
    };
    // No process is ever found: every stop ends at its first pass.
    systemCalls().popen = [](const char*, const char*) {
      return std::tmpfile();
    };
    systemCalls().pclose = [](FILE* file) { return std::fclose(file); };
    systemCalls().usleep = [](useconds_t) { return 0; };
  }

  /// How a child ends that handles a SIGTERM.
  int exitStatusOfTerm() {
    deliver(SIGTERM);
    return exitStatusOf([] {
      handleSignalFd();
      return 1;  // it came back
    });
  }

  /// The child's output, without the beginnings of the lines.
  Strings texts() const {
    Strings texts;
    std::string line;
    std::istringstream bytes(log_.bytes());
    while (std::getline(bytes, line)) {
      const size_t func = line.find(": ");
      texts.push_back(func == std::string::npos ? line : line.substr(func + 2));
    }
    texts.erase(texts.begin(), texts.begin() + static_cast<long>(seen_));
    return texts;
  }

  static constexpr pid_t kUnkillable = 100'013;
};

TEST_F(SigtermTest, StopsEveryNodeInAnyStateInRegistryOrder) {
  addNode("zeta", NodeState::RESTARTING, 0);
  addNode("alpha", NodeState::RUNNING, 100'011);
  addNode("idle", NodeState::STOPPED, 0);
  addNode("off", NodeState::DISABLED, 0);
  addNode("beta", NodeState::RUNNING, 100'012);
  addNode("aaa", NodeState::RESTARTING, 0);
  EXPECT_EQ(exitStatusOfTerm(), 0);
  const Strings stops = texts();
  Strings order;
  std::copy_if(stops.begin(), stops.end(), std::back_inserter(order),
               [](const std::string& text) {
                 return text.rfind("kill ", 0) != 0 ||
                        text.substr(text.size() - 3) == " 15";
               });
  EXPECT_THAT(order, ElementsAre("ssi_signo: 15",
                                 "Node 'zeta' is restarting, set stopped.",
                                 "kill 100011 15", "kill 100012 15",
                                 "Node 'aaa' is restarting, set stopped."));
}

TEST_F(SigtermTest, ANodeThatCannotBeStoppedKeepsNoOtherFromBeingStopped) {
  addNode("stuck", NodeState::RUNNING, kUnkillable);
  addNode("last", NodeState::RUNNING, 100'014);
  EXPECT_EQ(exitStatusOfTerm(), 0);
  EXPECT_THAT(texts(), Contains("kill service 'stuck' failed, error: "
                                "No such process"));
  EXPECT_THAT(texts(), Contains("kill 100014 15"));
}

TEST_F(SigtermTest, CollectsNoChildAndRunsTheExitHandlers) {
  deliver(SIGTERM);
  const int status = exitStatusOf([] {
    systemCalls().waitid = [](idtype_t, id_t, siginfo_t*, int) {
      ::_exit(2);
      return -1;
    };
    // _exit() would leave it out.
    (void)std::atexit([] { (void)std::fprintf(stderr, "at exit\n"); });
    handleSignalFd();
    return 1;
  });
  EXPECT_EQ(status, 0);
  EXPECT_THAT(texts(), ElementsAre("ssi_signo: 15", "at exit"));
}

// ---- SIGCHLD.

class ReapTest : public HandleSignalTest {
 protected:
  void handleSigchld() {
    deliver(SIGCHLD);
    handleSignalFd();
  }

  /// Makes waitid() report one exited child, then none.
  void reportOneChild(pid_t pid, int code, int status) {
    systemCalls().waitid = [=, first = true](idtype_t, id_t, siginfo_t* info,
                                             int) mutable {
      if (first) {
        info->si_pid = pid;
        info->si_code = code;
        info->si_status = status;
      }
      first = false;
      return 0;
    };
  }

  /// The lines of reapOneProcess(), without that about waitid()'s result and
  /// without the failure that ends the loop when no child at all is left.
  Strings reapTexts() const {
    Strings texts;
    for (const LogLine& line : newLines()) {
      if (line.func != "reapOneProcess") continue;
      EXPECT_FALSE(line.event);
      if (line.text == "waitid failed") continue;
      if (line.text.rfind("si_pid: ", 0) == 0) continue;
      EXPECT_EQ(line.level, "INFO");
      texts.push_back(line.text);
    }
    return texts;
  }

  static constexpr pid_t kPid = 100'021;
};

std::string siLine(pid_t pid, int code, int status) {
  return "si_pid: " + std::to_string(pid) +
         ", si_code: " + std::to_string(code) +
         ", si_status: " + std::to_string(status);
}

TEST_F(ReapTest, AsksForExitedChildrenAndLeavesThemZombies) {
  int calls = 0;
  systemCalls().waitid = [&](idtype_t type, id_t id, siginfo_t* info,
                             int options) {
    ++calls;
    EXPECT_EQ(type, P_ALL);
    EXPECT_EQ(id, 0U);
    EXPECT_EQ(options, WEXITED | WNOHANG | WNOWAIT);
    const auto* const bytes = reinterpret_cast<const char*>(info);
    EXPECT_TRUE(std::all_of(bytes, bytes + sizeof(*info),
                            [](char byte) { return byte == 0; }));
    return real.waitid(type, id, info, options);
  };
  const pid_t first = exitedChild(1);
  const pid_t second = exitedChild(2);
  handleSigchld();
  EXPECT_EQ(calls, 3);
  EXPECT_TRUE(isCollected(first));
  EXPECT_TRUE(isCollected(second));
}

TEST_F(ReapTest, PausesAMillisecondAfterEachOfSeveralChildren) {
  Strings steps;
  systemCalls().waitid = [&](idtype_t type, id_t id, siginfo_t* info,
                             int options) {
    const int result = real.waitid(type, id, info, options);
    steps.emplace_back("waitid");
    return result;
  };
  systemCalls().waitpid = [&](pid_t pid, int* status, int options) {
    steps.emplace_back("collect");
    return real.waitpid(pid, status, options);
  };
  systemCalls().usleep = [&](useconds_t pause) {
    steps.push_back("pause " + std::to_string(pause));
    return 0;
  };
  for (int i = 0; i < 3; ++i) exitedChild(i);
  handleSigchld();
  EXPECT_THAT(steps, ElementsAre("waitid", "collect", "pause 1000",  //
                                 "waitid", "collect", "pause 1000",  //
                                 "waitid", "collect", "pause 1000", "waitid"));
}

TEST_F(ReapTest, ARunningChildIsNotTouchedOrLogged) {
  const pid_t pid = sleepingChild();
  handleSigchld();
  EXPECT_FALSE(isCollected(pid));
  EXPECT_THAT(newLines(), ElementsAre(logLine("INFO", false, "handleSignalFd",
                                              "ssi_signo: 17")));
  endChild(pid);
}

TEST_F(ReapTest, AnInterruptedWaitidIsRepeated) {
  int interruptions = 3;
  systemCalls().waitid = [&](idtype_t type, id_t id, siginfo_t* info,
                             int options) {
    return interruptions-- > 0 ? failWith(EINTR)
                               : real.waitid(type, id, info, options);
  };
  const pid_t other = sleepingChild();
  const pid_t pid = exitedChild(0);
  handleSigchld();
  EXPECT_TRUE(isCollected(pid));
  EXPECT_THAT(newLines(),
              Not(Contains(Field(&LogLine::text, "waitid failed"))));
  endChild(other);
}

TEST_F(ReapTest, WithoutAnyChildWaitidFails) {
  handleSigchld();
  EXPECT_EQ(newLines().back(),
            logLine("ERROR", false, "reapOneProcess", "waitid failed"));
}

TEST_F(ReapTest, AnExitedNodeIsLoggedAndUpdated) {
  const pid_t pid = exitedChild(7);
  const Node& node = addNode("worker", NodeState::RUNNING, pid);
  handleSigchld();
  EXPECT_THAT(
      newLines(),
      ElementsAre(
          logLine("INFO", false, "handleSignalFd", "ssi_signo: 17"),
          logLine("INFO", false, "reapOneProcess", siLine(pid, CLD_EXITED, 7)),
          logLine("INFO", false, "reapOneProcess",
                  "'worker' exited with status: 7."),
          logLine("INFO", true, "reap", "Node 'worker' ready to restarting"),
          logLine("ERROR", false, "reapOneProcess", "waitid failed")));
  EXPECT_EQ(node.state, NodeState::RESTARTING);
  EXPECT_EQ(node.pid, 0);
  EXPECT_TRUE(isCollected(pid));
}

TEST_F(ReapTest, AKilledNodeIsLoggedWithItsSignalAndUpdated) {
  const pid_t pid = killedChild(SIGTERM);
  const Node& node = addNode("worker", NodeState::RUNNING, pid);
  handleSigchld();
  EXPECT_THAT(newLines(), Contains(logLine("INFO", false, "reapOneProcess",
                                           siLine(pid, CLD_KILLED, SIGTERM))));
  EXPECT_THAT(reapTexts(), ElementsAre("'worker' receive signal: 15."));
  EXPECT_EQ(node.state, NodeState::RESTARTING);
  EXPECT_TRUE(isCollected(pid));
}

TEST_F(ReapTest, ANodeThatDumpedCoreIsReportedWithItsSignal) {
  addNode("worker", NodeState::RUNNING, kPid);
  reportOneChild(kPid, CLD_DUMPED, SIGSEGV);
  handleSigchld();
  EXPECT_THAT(reapTexts(), ElementsAre("'worker' receive signal: 11."));
}

TEST_F(ReapTest, AStrangerIsCollectedWithoutAFurtherLine) {
  addNode("worker", NodeState::RUNNING, kPid);
  const pid_t pid = exitedChild(3);
  handleSigchld();
  EXPECT_THAT(newLines(), Contains(logLine("INFO", false, "reapOneProcess",
                                           siLine(pid, CLD_EXITED, 3))));
  EXPECT_THAT(reapTexts(), IsEmpty());
  EXPECT_TRUE(isCollected(pid));
}

TEST_F(ReapTest, AStrangerKilledBySigkillIsOneMoreLine) {
  const pid_t pid = killedChild(SIGKILL);
  handleSigchld();
  EXPECT_THAT(reapTexts(), ElementsAre("node is killed."));
  EXPECT_TRUE(isCollected(pid));
}

struct Ending {
  const char* name;
  int code;
  int status;
};

class SilentStrangerTest : public ReapTest,
                           public ::testing::WithParamInterface<Ending> {};

TEST_P(SilentStrangerTest, IsNotReportedAsKilled) {
  reportOneChild(kPid, GetParam().code, GetParam().status);
  handleSigchld();
  EXPECT_THAT(
      newLines(),
      Contains(logLine("INFO", false, "reapOneProcess",
                       siLine(kPid, GetParam().code, GetParam().status))));
  EXPECT_THAT(reapTexts(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    EndedBy, SilentStrangerTest,
    ::testing::Values(Ending{"Sigterm", CLD_KILLED, SIGTERM},
                      Ending{"AFault", CLD_DUMPED, SIGSEGV},
                      Ending{"ADumpOfNumberNine", CLD_DUMPED, SIGKILL},
                      Ending{"ExitStatusNine", CLD_EXITED, SIGKILL}),
    [](const auto& test) { return test.param.name; });

TEST_F(ReapTest, TheZombieIsCollectedOnceAfterItsNodeIsUpdated) {
  const pid_t pid = exitedChild(0);
  const Node& node = addNode("worker", NodeState::RUNNING, pid);
  int collections = 0;
  systemCalls().waitpid = [&](pid_t collected, int* status, int options) {
    ++collections;
    EXPECT_EQ(collected, pid);
    EXPECT_EQ(status, nullptr);
    EXPECT_EQ(options, WNOHANG);
    EXPECT_EQ(node.pid, 0);
    EXPECT_EQ(node.state, NodeState::RESTARTING);
    return real.waitpid(collected, status, options);
  };
  handleSigchld();
  EXPECT_EQ(collections, 1);
  EXPECT_TRUE(isCollected(pid));
}

TEST_F(ReapTest, TheZombieIsCollectedAlsoWhenItsNodeThrows) {
  const pid_t pid = exitedChild(0);
  test::lockSoThatLockingThrows(addNode("worker", NodeState::RUNNING, pid));
  EXPECT_THROW(handleSigchld(), std::system_error);
  EXPECT_TRUE(isCollected(pid));
}

TEST_F(ReapTest, AnInterruptedCollectionIsRepeated) {
  const pid_t pid = exitedChild(0);
  int interruptions = 3;
  systemCalls().waitpid = [&](pid_t collected, int* status, int options) {
    return interruptions-- > 0 ? failWith(EINTR)
                               : real.waitpid(collected, status, options);
  };
  handleSigchld();
  EXPECT_TRUE(isCollected(pid));
}

TEST_F(ReapTest, AnotherFailureOfTheCollectionIsIgnored) {
  reportOneChild(kPid, CLD_EXITED, 0);
  int collections = 0;
  systemCalls().waitpid = [&](pid_t, int*, int) {
    ++collections;
    return failWith(ECHILD);
  };
  handleSigchld();
  EXPECT_EQ(collections, 1);
  EXPECT_THAT(newLines(), ElementsAre(logLine("INFO", false, "handleSignalFd",
                                              "ssi_signo: 17"),
                                      logLine("INFO", false, "reapOneProcess",
                                              siLine(kPid, CLD_EXITED, 0))));
}

}  // namespace
}  // namespace vorn::launch
