#include "live/node_status.h"

#include <algorithm>
#include <cstdio>
#include <ctime>

#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

Condition conditionOf(const LauncherProcess& launcher,
                      const StatusReply& status) {
  switch (status.state) {
    case NodeState::STOPPED:
      if (status.pid != 0) return Condition::STOPPING;
      return status.startSeconds == 0 ? Condition::NEVER_STARTED
                                      : Condition::STOPPED;
    case NodeState::RUNNING:
      return isProcessAlive(launcher, status.pid) ? Condition::RUNNING
                                                  : Condition::EXITING;
    case NodeState::RESTARTING:
      return Condition::RESTARTING;
    case NodeState::DISABLED:
      return Condition::DISABLED;
  }
  return Condition::UNKNOWN_NODE;
}

std::string policyOf(const LaunchFile::Node& node) {
  if (node.oneshot.value)
    return node.autostart.value ? "oneshot" : "manual+oneshot";
  return node.autostart.value ? "restart" : "manual";
}

std::string joined(const std::vector<Text>& names) {
  std::string text;
  for (const Text& name : names) {
    if (!text.empty()) text += ' ';
    text += name.value;
  }
  return text;
}

}  // namespace

NodeView viewOf(const LauncherProcess& launcher, const std::string& name,
                const StatusReply& status, int64_t now) {
  NodeView view;
  view.name = name;
  if (const LaunchFile::Node* const node = launcher.file.find(name)) {
    view.policy = policyOf(*node);
    view.required = joined(node->required);
    view.executable = node->executable;
    // A oneshot that has run is disabled as well, without a failure.
    const bool has_run = node->oneshot.value && status.startSeconds != 0;
    view.isExecutableMissing =
        status.isDone() && status.state == NodeState::DISABLED && !has_run &&
        executableExists(launcher, *node) == false;
  }
  if (!status.isDone()) return view;
  view.condition = conditionOf(launcher, status);
  view.state = status.state;
  view.pid = status.pid;
  view.startSeconds = status.startSeconds;
  updateTimes(view, now);
  const LaunchFile::Node* const node = launcher.file.find(name);
  // A disabled node may be one that has given up.
  const bool may_have_run =
      view.condition == Condition::RUNNING ||
      (view.condition == Condition::DISABLED && view.startSeconds != 0);
  if (node != nullptr && may_have_run) {
    view.run = readNodeRun(launcher, *node, view.pid, view.startSeconds);
  }
  return view;
}

bool isReady(const NodeView& view) {
  if (view.condition != Condition::RUNNING) return false;
  return view.run.state ? view.run.state->isUp() : !view.run.isExpected;
}

bool isFailing(const NodeView& view) {
  return view.isCrashLoop || view.isExecutableMissing || view.isForkFailed ||
         view.condition == Condition::RESTARTING ||
         view.condition == Condition::FAILED ||
         (view.run.state && view.run.state->isFailing()) ||
         view.condition == Condition::UNKNOWN_NODE;
}

void updateTimes(NodeView& view, int64_t now) {
  if (view.condition == Condition::RUNNING) {
    view.uptimeSeconds = std::max<int64_t>(0, now - view.startSeconds);
  }
  if (view.condition == Condition::RESTARTING) {
    view.restartInSeconds =
        std::clamp<int64_t>(view.startSeconds - now + kRestartInterval.count(),
                            0, kRestartInterval.count());
  }
}

const char* wordFor(Condition condition) {
  switch (condition) {
    case Condition::RUNNING:
      return "running";
    case Condition::EXITING:
      return "exiting";
    case Condition::STOPPING:
      return "stopping";
    case Condition::STOPPED:
      return "stopped";
    case Condition::NEVER_STARTED:
      return "never started";
    case Condition::RESTARTING:
      return "restarting";
    case Condition::DISABLED:
      return "disabled";
    case Condition::FAILED:
      return "failed";
    case Condition::UNKNOWN_NODE:
      break;
  }
  return "unknown";
}

const char* wordFor(NodeState state) {
  switch (state) {
    case NodeState::STOPPED:
      return "stopped";
    case NodeState::RUNNING:
      return "running";
    case NodeState::RESTARTING:
      return "restarting";
    case NodeState::DISABLED:
      return "disabled";
  }
  return "unknown";
}

std::string formatSpan(int64_t seconds) {
  constexpr int64_t kMinute = 60;
  constexpr int64_t kHour = 60 * kMinute;
  constexpr int64_t kDay = 24 * kHour;
  const auto both = [](int64_t large, const char* unit, int64_t small,
                       const char* small_unit) {
    char text[48];
    (void)std::snprintf(text, sizeof(text), "%lld%s %02lld%s",
                        static_cast<long long>(large), unit,
                        static_cast<long long>(small), small_unit);
    return std::string(text);
  };
  if (seconds < kMinute) return std::to_string(seconds) + "s";
  if (seconds < kHour) return both(seconds / kMinute, "m", seconds % 60, "s");
  if (seconds < kDay) {
    return both(seconds / kHour, "h", seconds % kHour / kMinute, "m");
  }
  return both(seconds / kDay, "d", seconds % kDay / kHour, "h");
}

std::string formatTime(int64_t seconds) {
  if (seconds == 0) return "never";
  const std::time_t time = seconds;
  std::tm parts{};
  char text[32];
  if (::localtime_r(&time, &parts) == nullptr ||
      std::strftime(text, sizeof(text), "%F %T", &parts) == 0) {
    return std::to_string(seconds);
  }
  return text;
}

}  // namespace vorn::launch
