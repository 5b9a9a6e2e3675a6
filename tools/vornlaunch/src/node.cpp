#include "node.h"

#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "node_manager.h"
#include "node_memory.h"
#include "vorn/launch_rules.h"
#include "vornlib/time.h"
#include "vornlib/trace.h"

namespace vorn::launch {
namespace {

constexpr mode_t kChildUmask = 077;  // files of a node are only for its user
constexpr int kExecFailedStatus = 127;
constexpr uint32_t kMicrosecondsPerMillisecond = 1000;
constexpr useconds_t kStopPauseUs =
    std::chrono::microseconds(kStopPause).count();
constexpr size_t kCountBufferSize = 5;  // 4 characters per read

void exportEnvironment(const Environment& environment) {
  for (const auto& [variable, value] : environment) {
    (void)::setenv(variable.c_str(), value.c_str(), 1);
  }
}

// KEEP: only a failing stat() counts. A directory or a non-executable file
// fails in the child and is tried again every 5 s. Intended.
// Test: test_nodes.py,
// test_a_non_executable_file_exits_with_127_and_is_tried_again
bool exists(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

/// Runs a shell command that prints a count and returns true as soon as one
/// piece of its output, read as a number, is `wanted`. Also false if the
/// command cannot be started.
template <typename Predicate>
bool commandPrints(const std::string& command, Predicate wanted) {
  FILE* const output = ::popen(command.c_str(), "r");
  if (output == nullptr) return false;
  bool found = false;
  std::array<char, kCountBufferSize> text{};
  while (!found &&
         std::fgets(text.data(), static_cast<int>(text.size()), output)) {
    // KEEP: a count of four digits leaves its line end to the next read, whose
    // value is 0, so that the child is considered absent. Intended.
    // Test: NodeStopTest.AFourDigitCountIsReadAsZero
    found = wanted(static_cast<int>(std::strtol(text.data(), nullptr, 10)));
  }
  (void)::pclose(output);
  return found;
}

}  // namespace

Node::Node(std::string node_name) : name(std::move(node_name)) {}

void* Node::operator new(size_t /*size*/) { return allocateNode(); }

void Node::operator delete(void* memory) noexcept { deallocateNode(memory); }

bool Node::start() {
  const std::scoped_lock lock(mutex);
  return startInternal();
}

bool Node::startInternal() {
  if (disabled) {
    VTRACE(kWarn, kEvent, "Node '%s' disabled", name.c_str());
    state = NodeState::DISABLED;
    return false;
  }
  // KEEP: skips exactly one start attempt of any kind, so that the launcher's
  // start-up skips the node and an operator can start it. If the start-up
  // skipped the node because it was disabled, an operator's first request is
  // refused. Intended. Test: NodeStartTest.AutostartFalseSkipsExactlyOneAttempt
  if (!autostart) {
    VTRACE(kWarn, kEvent, "Node '%s' is not autostart", name.c_str());
    autostart = true;
    return false;
  }
  if (state == NodeState::RUNNING) {
    VTRACE(kInfo, kEvent, "Node '%s' already running", name.c_str());
    return true;
  }
  if (!exists(argv.front())) {
    disabled = true;
    state = NodeState::DISABLED;
    VTRACE(kError, kEvent, "Can't find file: %s", argv.front().c_str());
    return false;
  }
  if (sleep != 0) {
    VTRACE(kInfo, kPlain, "%s sleep %dms", name.c_str(),
           static_cast<int>(sleep));
    // KEEP: sleeps in the launcher, which does nothing else meanwhile, so that
    // nodes start one after the other; the product wraps in 32 bits. Intended.
    // Test: NodeStartTest.SleepIsTakenInTheLauncherBeforeTheFork
    (void)::usleep(sleep * kMicrosecondsPerMillisecond);
  }
  const pid_t child = ::fork();
  if (child == 0) runChild();
  if (child < 0) {
    pid = 0;
    state = NodeState::STOPPED;
    VTRACE(kError, kEvent, "name: %s fork failed.", name.c_str());
    return false;
  }
  stopped = false;
  pid = child;
  state = NodeState::RUNNING;
  startTime = std::chrono::steady_clock::now();
  startWallTime = std::chrono::system_clock::now();
  VTRACE(kInfo, kEvent, "Node start '%s' ok", name.c_str());
  return true;
}

// ---- The child's side of the fork. Nothing here returns to the caller, and
// ---- nothing touches `mutex`, which the child inherited locked.
void Node::runChild() noexcept {
  (void)::umask(kChildUmask);
  exportEnvironment(Config::getInstance().environment);
  exportEnvironment(environment);
  if (!execvInternal(argv)) {
    VTRACE(kError, kEvent, "Can't execv %s", argv.front().c_str());
  }
  VTRACE(kInfo, kEvent, "Child %d exited", ::getpid());
  ::_exit(kExecFailedStatus);  // neither exit handlers nor inherited buffers
}

bool Node::execvInternal(const std::vector<std::string>& arguments) {
  std::vector<char*> pointers;
  pointers.reserve(arguments.size() + 1);
  for (const std::string& argument : arguments) {
    pointers.push_back(const_cast<char*>(argument.c_str()));
  }
  pointers.push_back(nullptr);
  return ::execv(pointers.front(), pointers.data()) == 0;
}
// ---- End of the child's side.

bool Node::stop() {
  const std::scoped_lock lock(mutex);
  return stopInternal();
}

bool Node::stopInternal() {
  if (state == NodeState::STOPPED || state == NodeState::DISABLED) return true;
  stopped = true;
  if (state == NodeState::RESTARTING) {
    state = NodeState::STOPPED;
    VTRACE(kInfo, kEvent, "Node '%s' is restarting, set stopped.",
           name.c_str());
    return true;
  }
  if (::kill(pid, SIGTERM) != 0) {
    VTRACE(kError, kEvent, "kill service '%s' failed, error: %s", name.c_str(),
           std::strerror(errno));
    return false;
  }
  state = NodeState::STOPPED;  // keep `pid`: reap() must still find this node
  if (!waitUntilGone()) {
    // KEEP: also sent to a child that the wait found dead. It is then a zombie,
    // because only the event loop reaps, so the pid is still its own and the
    // signal has no effect. Intended.
    // Test: NodeStopTest.AZombieIsSentSigkillToo
    (void)::kill(pid, SIGKILL);
  }
  restartRequired();
  return true;
}

/// True if the process table no longer shows the child; false if it shows it as
/// a zombie, or still shows it after the last pass.
// KEEP: intentionally slow, blocking and inexact: pid 42 is also found in 142.
// kill(pid, 0) does not replace it, because it succeeds on a zombie; waitpid()
// would collect the exit that handleSignalFd() needs. Both commands are fixed,
// byte by byte.
// Test: NodeStopTest.RunsBothProcessTableCommandsInEachPass
bool Node::waitUntilGone() const {
  const std::string quoted_pid = '"' + std::to_string(pid) + '"';
  const std::string presence = "ps -A -o stat,pid | grep -c " + quoted_pid;
  const std::string zombie =
      "ps -A -o stat,pid| grep  '^[zZ]' | grep -c " + quoted_pid;
  for (int pass = 0; pass < kStopPasses; ++pass) {
    if (commandPrints(zombie, [](int count) { return count > 0; })) {
      return false;
    }
    if (commandPrints(presence, [](int count) { return count == 0; })) {
      return true;
    }
    (void)::usleep(kStopPauseUs);
  }
  return false;
}

bool Node::stopRequired() {
  const std::scoped_lock lock(mutex);
  if (state != NodeState::RUNNING) return true;
  const bool was_stopped = stopInternal();
  (void)::usleep(kStopPauseUs);
  // KEEP: a oneshot node is stopped, and the start refuses it, so it becomes
  // DISABLED. Intended. Test: NodeStopTest.ARequiredOneshotEndsDisabled
  if (oneshot) disabled = true;
  return was_stopped && startInternal();
}

// KEEP: does not check for cycles or repeated names. A node named twice is
// restarted twice; a cycle deadlocks on a held lock. Intended.
// Test: test_required.py, test_a_cycle_blocks_the_launcher_permanently
void Node::restartRequired() {
  NodeManager& nodes = NodeManager::getInstance();
  for (const std::string& other : required) {
    Node* const node = nodes.findNode(other);
    if (other != name && node != nullptr) (void)node->stopRequired();
  }
}

bool Node::restart() {
  const std::scoped_lock lock(mutex);
  // The old child can still be dying: when it is collected, no node has its pid
  // any more.
  const bool was_stopped = state != NodeState::RUNNING || stopInternal();
  (void)::usleep(kStopPauseUs);
  const bool started = was_stopped && startInternal();
  VTRACE(kInfo, kEvent, "Node '%s' %s", name.c_str(),
         started ? "success" : "failed");
  return started;
}

void Node::reap(const siginfo_t& /*info*/) {
  const std::scoped_lock lock(mutex);
  pid = 0;
  state = NodeState::STOPPED;
  if (oneshot) {
    VTRACE(kWarn, kEvent, "Node '%s' disabled - oneshot!", name.c_str());
    disabled = true;
    state = NodeState::DISABLED;
  }
  if (disabled) {
    VTRACE(kWarn, kEvent, "Node '%s' disabled!", name.c_str());
    state = NodeState::DISABLED;
  } else if (stopped) {
    // KEEP: readers of the log know this spelling.
    // Test: NodeReapTest.AStoppedNodeStaysStopped
    VTRACE(kWarn, kEvent, "Node '%s' stoped", name.c_str());
  } else {
    state = NodeState::RESTARTING;
    VTRACE(kInfo, kEvent, "Node '%s' ready to restarting", name.c_str());
  }
}

bool Node::disable() {
  const std::scoped_lock lock(mutex);
  const bool was_stopped = stopInternal();
  disabled = true;
  state = NodeState::DISABLED;
  return was_stopped;
}

bool Node::enable() {
  disabled = false;
  return true;
}

int64_t Node::getStartInterval() const {
  const auto interval = std::chrono::steady_clock::now() - startTime;
  return std::chrono::duration_cast<std::chrono::seconds>(interval).count();
}

}  // namespace vorn::launch
