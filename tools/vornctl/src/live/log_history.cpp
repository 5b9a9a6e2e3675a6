#include "live/log_history.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <utility>

#include "live/launcher_line.h"
#include "output/text.h"
#include "vorn/control_protocol.h"

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;

constexpr std::string_view kLauncherName = "vornlaunch";
// Limits for a log that is forged or that is not from one machine.
constexpr size_t kMaxLaunchers = 8;
constexpr size_t kMaxNodes = 100'000;
constexpr size_t kMaxChildren = 10'000;
// A program that handles SIGTERM can exit with a status. The launcher looks for
// it at least every 0.2 s during a stop.
constexpr int64_t kUsualStopUs = 2'000'000;

bool isStopCommand(int command) {
  return command == static_cast<int>(ControlRequest::Cmd::STOP) ||
         command == static_cast<int>(ControlRequest::Cmd::DISABLE);
}

bool isStartCommand(int command) {
  return command == static_cast<int>(ControlRequest::Cmd::START);
}

/// Whether the exit can be the effect of a stop that began at `command_us`.
bool looksStopped(const HistoryEvent& exit, int64_t command_us) {
  if (exit.isSignal()) {
    return exit.status == SIGTERM || exit.status == SIGKILL;
  }
  return exit.timeUs - command_us <= kUsualStopUs;
}

}  // namespace

LogHistory::LogHistory(Receiver receiver, Executables executables)
    : receiver_(std::move(receiver)), executables_(std::move(executables)) {}

void LogHistory::add(int64_t time_us, pid_t writer, std::string_view text) {
  // Most lines of a shared log are those of nodes.
  if (text.find(kLauncherName) == std::string_view::npos) return;
  const auto line = parseLogLine(text);
  if (!line || line->program != kLauncherName) return;
  if (writer != 0 && writer != line->pid) return;
  time_us_ = line->timeUs != 0 ? line->timeUs : time_us;
  if (isLineOfChild(*line)) {
    if (!startsWith(line->text, "Can't execv ")) return;
    if (execution_failed_.size() >= kMaxChildren) execution_failed_.clear();
    execution_failed_.insert(line->pid);
    return;
  }
  addLine(launcherOf(*line), *line);
}

void LogHistory::finish() {
  for (Launcher& launcher : launchers_) {
    settlePending(launcher, "");
    settleExit(launcher);
    releaseHeld(launcher);
  }
}

LogHistory::Launcher& LogHistory::launcherOf(const LogLine& line) {
  const auto found =
      std::find_if(launchers_.begin(), launchers_.end(),
                   [&](const Launcher& l) { return l.pid == line.pid; });
  const bool is_known = found != launchers_.end();
  if (isLoadLine(line.text) && !(is_known && found->isLoading)) {
    for (Launcher& former : launchers_) endLauncher(former);
    launchers_.clear();
    Launcher& launcher = launchers_.emplace_back();
    launcher.pid = line.pid;
    launcher.isLoading = true;
    receiver_(eventOf(launcher, Kind::LAUNCHER_STARTED, ""));
    return launcher;
  }
  if (is_known) return *found;
  if (launchers_.size() >= kMaxLaunchers) launchers_.erase(launchers_.begin());
  launchers_.emplace_back().pid = line.pid;
  return launchers_.back();
}

void LogHistory::addLine(Launcher& launcher, const LogLine& line) {
  settlePending(launcher, line.text);
  if (addExitLine(launcher, line.text) || addReapLine(launcher, line.text)) {
    launcher.command = -1;
    return;
  }
  settleExit(launcher);
  releaseHeld(launcher);
  if (launcher.isInExits) launcher.isStopLast = launcher.isStopBefore = false;
  launcher.isInExits = false;
  if (addControlLine(launcher, line.text)) return;
  if (addStartLine(launcher, line.text)) {
    launcher.isStartingUp |= launcher.isLoading;
    launcher.isLoading = false;
  }
  const bool sleeps = line.text.find(" sleep ") != std::string_view::npos;
  if (!sleeps) launcher.command = -1;
}

bool LogHistory::addExitLine(Launcher& launcher, std::string_view text) {
  if (startsWith(text, "si_pid: ")) {
    settleExit(launcher);
    HistoryEvent exit = eventOf(launcher, Kind::EXITED, "");
    exit.pid = numberAfter(text, "si_pid: ");
    exit.code = numberAfter(text, ", si_code: ");
    exit.status = numberAfter(text, ", si_status: ");
    if (exit.pid != 0) launcher.exit = exit;
    launcher.isInExits = true;
    return true;
  }
  if (text == "node is killed.") return true;
  for (const char* const suffix :
       {"' exited with status: ", "' receive signal: "}) {
    const size_t end = text.rfind(suffix);
    if (end == std::string_view::npos || text.front() != '\'') continue;
    if (launcher.exit) launcher.exit->node = text.substr(1, end - 1);
    return true;
  }
  return false;
}

bool LogHistory::addReapLine(Launcher& launcher, std::string_view text) {
  auto name = nodeIn(text, "' ready to restarting");
  const bool restarts = name.has_value();
  const bool is_oneshot =
      !name && (name = nodeIn(text, "' disabled - oneshot!"));
  if (!name) name = nodeIn(text, "' disabled!");
  if (!name) name = nodeIn(text, "' stoped");
  if (!name) return false;
  // A oneshot has two of these lines; the first one ends its exit.
  if (!launcher.exit || launcher.exit->node != *name) return true;
  launcher.exit->isOneshot = is_oneshot;
  NodeState& node = stateOf(launcher, *name);
  Cause cause = node.run.stopCause;
  bool is_unsure = false;
  const bool is_stop = (launcher.isStopBefore || launcher.isStopLast) &&
                       looksStopped(*launcher.exit, launcher.commandUs);
  if (restarts) {
    cause = Cause::ITSELF;
  } else if (cause == Cause::UNKNOWN) {
    const bool can_be_its_own = is_oneshot || node.isStopRefused;
    cause = is_stop || !can_be_its_own ? Cause::OPERATOR : Cause::ITSELF;
    is_unsure = is_stop && can_be_its_own;
    const bool has_stop_left = launcher.isStopBefore || launcher.isStopLast;
    if (!can_be_its_own && !has_stop_left && !launcher.held.empty()) {
      launcher.held.front().cause = Cause::ITSELF;
    }
  }
  if (cause == Cause::OPERATOR) forgetStop(launcher);
  reportExit(launcher, node.run, cause, is_unsure);
  node = NodeState();
  node.isKnown = true;
  node.waitsForRestart = restarts;
  return true;
}

void LogHistory::forgetStop(Launcher& launcher) {
  (launcher.isStopBefore ? launcher.isStopBefore : launcher.isStopLast) = false;
}

bool LogHistory::addControlLine(Launcher& launcher, std::string_view text) {
  if (startsWith(text, "control cmd: ")) {
    launcher.isLoading = launcher.isStartingUp = false;
    launcher.command = numberAfter(text, "control cmd: ");
    launcher.isStopBefore = launcher.isStopLast;
    launcher.isStopLast = isStopCommand(launcher.command);
    if (launcher.command != static_cast<int>(ControlRequest::Cmd::STATUS)) {
      launcher.commandUs = time_us_;
    }
    return true;
  }
  if (!startsWith(text, "ssi_signo: ")) return false;
  launcher.isLoading = launcher.isStartingUp = false;
  launcher.command = -1;
  if (text == "ssi_signo: " + std::to_string(SIGTERM)) {
    receiver_(eventOf(launcher, Kind::LAUNCHER_STOPPING, ""));
    endLauncher(launcher);
  }
  return true;
}

bool LogHistory::addStartLine(Launcher& launcher, std::string_view text) {
  if (const auto name = between(text, "Node start '", "' ok")) {
    addStarted(launcher, *name);
  } else if (const auto refused = nodeIn(text, "' disabled")) {
    addRefused(launcher, *refused);
  } else if (const auto skipped = nodeIn(text, "' is not autostart")) {
    stateOf(launcher, *skipped).isKnown = true;
    receiver_(eventOf(launcher, Kind::START_SKIPPED, *skipped));
  } else if (const auto path = between(text, "Can't find file: ", "")) {
    addMissing(launcher, *path);
  } else if (const auto forked = between(text, "name: ", " fork failed.")) {
    HistoryEvent event = eventOf(launcher, Kind::FORK_FAILED, *forked);
    NodeState& node = stateOf(launcher, *forked);
    event.cause = causeOfStart(launcher, node);
    launcher.pending = Pending{event, isRestarted(launcher, node)};
    replaceRun(launcher, node);
    node = NodeState();
    node.isKnown = true;
  } else if (const auto waiting =
                 nodeIn(text, "' is restarting, set stopped.")) {
    stateOf(launcher, *waiting).waitsForRestart = false;
    HistoryEvent event = eventOf(launcher, Kind::RESTART_CANCELLED, *waiting);
    event.cause = Cause::OPERATOR;
    launcher.isStopLast = false;
    receiver_(event);
  } else if (startsWith(text, "kill service '")) {
    addStopFailed(launcher, text);
  } else {
    return false;
  }
  return true;
}

Cause LogHistory::causeOfStart(const Launcher& launcher,
                               const NodeState& node) const {
  if (isStartCommand(launcher.command)) return Cause::OPERATOR;
  if (node.run.isOpen)
    return Cause::REQUIRED;  // unless it is a restart command
  if (node.waitsForRestart) return Cause::ITSELF;
  if (launcher.isLoading || launcher.isStartingUp) return Cause::START_UP;
  return node.isKnown ? Cause::OPERATOR : Cause::UNKNOWN;
}

bool LogHistory::isRestarted(const Launcher& launcher,
                             const NodeState& node) const {
  return node.run.isOpen && !isStartCommand(launcher.command);
}

void LogHistory::addStarted(Launcher& launcher, const std::string& name) {
  HistoryEvent event = eventOf(launcher, Kind::STARTED, name);
  NodeState& node = stateOf(launcher, name);
  event.cause = causeOfStart(launcher, node);
  launcher.pending = Pending{event, isRestarted(launcher, node)};
  replaceRun(launcher, node);
  node = NodeState();
  node.isKnown = true;
  node.run.node = name;
  node.run.startUs = time_us_;
  node.run.number = ++launcher.starts;
  node.run.isOpen = true;
}

void LogHistory::addRefused(Launcher& launcher, const std::string& name) {
  HistoryEvent event = eventOf(launcher, Kind::START_REFUSED, name);
  NodeState& node = stateOf(launcher, name);
  event.cause = causeOfStart(launcher, node);
  launcher.pending = Pending{event, isRestarted(launcher, node)};
  node.isKnown = true;
  node.waitsForRestart = false;
}

void LogHistory::addMissing(Launcher& launcher, const std::string& path) {
  HistoryEvent event = eventOf(launcher, Kind::EXECUTABLE_MISSING, "");
  event.detail = path;
  bool is_restarted = false;
  const auto [begin, end] = executables_.equal_range(path);
  for (auto candidate = begin; candidate != end; ++candidate) {
    const NodeState& node = stateOf(launcher, candidate->second);
    if (event.node.empty() || node.waitsForRestart || node.run.isOpen) {
      event.node = candidate->second;
    }
  }
  if (!event.node.empty()) {
    NodeState& node = stateOf(launcher, event.node);
    event.cause = causeOfStart(launcher, node);
    is_restarted = isRestarted(launcher, node);
    node.isKnown = true;
    node.waitsForRestart = false;
  }
  launcher.pending = Pending{event, is_restarted};
}

void LogHistory::addStopFailed(Launcher& launcher, std::string_view text) {
  constexpr std::string_view kReason = "' failed, error: ";
  const size_t end = text.rfind(kReason);
  const size_t begin = std::string_view("kill service '").size();
  if (end == std::string_view::npos || end < begin) return;
  HistoryEvent event = eventOf(launcher, Kind::STOP_FAILED,
                               std::string(text.substr(begin, end - begin)));
  event.detail = text.substr(end + kReason.size());
  stateOf(launcher, event.node).isStopRefused = true;
  launcher.isStopLast = false;
  receiver_(event);
}

void LogHistory::settlePending(Launcher& launcher, std::string_view text) {
  if (!launcher.pending) return;
  auto [event, is_restarted] = *std::exchange(launcher.pending, std::nullopt);
  // The last line of a restart command.
  auto restarted = nodeIn(text, "' success");
  if (!restarted) restarted = nodeIn(text, "' failed");
  if (restarted && event.kind == Kind::EXECUTABLE_MISSING) {
    event.node = *restarted;
  }
  if (restarted && event.node == *restarted) event.cause = Cause::OPERATOR;
  if (is_restarted) {
    const bool is_replaced =
        event.kind == Kind::STARTED || event.kind == Kind::FORK_FAILED;
    Run& run = is_replaced ? launcher.replaced[launcher.lastReplaced]
                           : stateOf(launcher, event.node).run;
    run.stopCause = event.cause;
  }
  receiver_(event);
}

void LogHistory::settleExit(Launcher& launcher) {
  if (!launcher.exit) return;
  if (!launcher.exit->node.empty()) {  // the line with its effect is lost
    Run run = std::exchange(stateOf(launcher, launcher.exit->node).run, Run());
    reportExit(launcher, run, run.stopCause);
  } else if (!launcher.replaced.empty()) {
    // The kernel reports the exits in the order of the starts.
    const Run run = launcher.replaced.begin()->second;
    launcher.replaced.erase(launcher.replaced.begin());
    launcher.exit->node = run.node;
    reportExit(launcher, run,
               run.stopCause == Cause::UNKNOWN ? Cause::ITSELF : run.stopCause);
  } else {
    launcher.exit.reset();  // of a process that the launcher has adopted
  }
}

void LogHistory::reportExit(Launcher& launcher, const Run& run, Cause cause,
                            bool is_unsure) {
  HistoryEvent exit = *std::exchange(launcher.exit, std::nullopt);
  exit.cause = cause;
  if (run.startUs != 0 && exit.timeUs >= run.startUs) {
    exit.runUs = exit.timeUs - run.startUs;
  }
  exit.isExecutionFailed = execution_failed_.erase(exit.pid) != 0;
  if (launcher.held.size() >= kMaxChildren) releaseHeld(launcher);
  if (is_unsure || !launcher.held.empty()) {
    launcher.held.push_back(exit);
  } else {
    receiver_(exit);
  }
}

void LogHistory::releaseHeld(Launcher& launcher) {
  for (const HistoryEvent& exit : std::exchange(launcher.held, {})) {
    receiver_(exit);
  }
}

void LogHistory::endLauncher(Launcher& launcher) {
  settlePending(launcher, "");
  settleExit(launcher);
  releaseHeld(launcher);
  for (auto& [name, node] : launcher.nodes) replaceRun(launcher, node);
  for (const auto& [number, run] : launcher.replaced) {
    receiver_(eventOf(launcher, Kind::LOST, run.node));
  }
  launcher.replaced.clear();
}

void LogHistory::replaceRun(Launcher& launcher, NodeState& node) {
  if (!node.run.isOpen) return;
  launcher.lastReplaced = node.run.number;
  launcher.replaced[launcher.lastReplaced] = std::exchange(node.run, Run());
}

LogHistory::NodeState& LogHistory::stateOf(Launcher& launcher,
                                           const std::string& node) {
  if (launcher.nodes.size() >= kMaxNodes) launcher.nodes.clear();
  return launcher.nodes[node];
}

HistoryEvent LogHistory::eventOf(const Launcher& launcher, Kind kind,
                                 const std::string& node) const {
  HistoryEvent event;
  event.timeUs = time_us_;
  event.kind = kind;
  event.node = node;
  event.launcher = launcher.pid;
  return event;
}

}  // namespace vorn::launch
