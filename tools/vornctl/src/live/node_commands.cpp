#include "live/node_commands.h"

#include "output/text.h"

namespace vorn::launch {
namespace {

using Cmd = ControlRequest::Cmd;

std::string explainDisabled(const LauncherProcess& launcher,
                            const std::string& name,
                            const StatusReply& status) {
  const LaunchFile::Node* const node = launcher.file.find(name);
  const std::string remedy = "vornctl enable --now " + shellArgument(name);
  if (node != nullptr && executableExists(launcher, *node) == false) {
    return "its executable " + node->executable +
           " is missing, so it was disabled; install it, then run: " + remedy;
  }
  if (node != nullptr && node->oneshot.value && status.startSeconds != 0) {
    return "it is a oneshot and has run; run it again with: " + remedy;
  }
  return "it is disabled; start it with: " + remedy;
}

/// Whether the node could be started before it was enabled. The state DISABLED
/// does not show this, since it remains after an enable.
bool wasEnabled(const LaunchFile::Node* node, const StatusReply& before) {
  if (before.state != NodeState::STOPPED) {
    return before.state != NodeState::DISABLED;
  }
  const bool was_started = before.startSeconds != 0;
  return was_started || (node != nullptr && !node->disabled.value);
}

std::string runningWith(pid_t pid) {
  return "running (pid " + std::to_string(pid) + ')';
}

std::string describeEnabled(const LauncherProcess& launcher,
                            const std::string& name,
                            const StatusReply& before) {
  std::string text = "enabled";
  if (before.isDone() && wasEnabled(launcher.file.find(name), before)) {
    text = "already enabled";
    if (before.state == NodeState::RUNNING) {
      return text + " and " + runningWith(before.pid);
    }
    if (before.state == NodeState::RESTARTING) {
      return text + "; it restarts by itself";
    }
  }
  return text + "; start it with: vornctl start " + shellArgument(name);
}

}  // namespace

OperationWords wordsFor(Cmd cmd) {
  switch (cmd) {
    case Cmd::START:
      return {"start", "starting", "started"};
    case Cmd::STOP:
      return {"stop", "stopping", "stopped"};
    case Cmd::RESTART:
      return {"restart", "restarting", "restarted"};
    case Cmd::DISABLE:
      return {"disable", "disabling", "disabled"};
    case Cmd::ENABLE:
      return {"enable", "enabling", "enabled"};
    case Cmd::STATUS:
      break;
  }
  return {"status", "asking about", "asked about"};
}

std::string describeDone(Cmd cmd, const LauncherProcess& launcher,
                         const std::string& name, const StatusReply& before) {
  const bool was_down =
      before.isDone() && (before.state == NodeState::STOPPED ||
                          before.state == NodeState::DISABLED);
  if (cmd == Cmd::ENABLE) return describeEnabled(launcher, name, before);
  if (cmd == Cmd::STOP && was_down) return "already stopped";
  if (cmd == Cmd::DISABLE && was_down && before.state == NodeState::DISABLED) {
    return "already disabled";
  }
  const bool was_running = before.isDone() &&
                           before.state == NodeState::RUNNING &&
                           isProcessAlive(launcher, before.pid);
  if (cmd == Cmd::START && was_running) {
    return "already " + runningWith(before.pid);
  }
  return wordsFor(cmd).done;
}

std::string explainFailure(ControlClient& client,
                           const LauncherProcess& launcher,
                           const std::string& name, Cmd cmd) {
  constexpr char kSeeLog[] = "see the launcher's log";
  if (cmd == Cmd::STOP || cmd == Cmd::DISABLE) {
    return std::string(
               "the launcher could not signal its process, which may have "
               "changed its user; ") +
           kSeeLog;
  }
  const StatusReply status = client.status(name);
  if (!status.isDone()) return kSeeLog;
  const LaunchFile::Node* const node = launcher.file.find(name);
  if (status.state == NodeState::DISABLED) {
    return explainDisabled(launcher, name, status);
  }
  if (status.state == NodeState::RUNNING) {
    return std::string(
               "its process could not be signalled and keeps running; ") +
           kSeeLog;
  }
  if (status.startSeconds == 0 && node != nullptr && !node->autostart.value) {
    return "its first start is skipped by 'autostart: false'; start it again";
  }
  return std::string("no process could be created; ") + kSeeLog;
}

}  // namespace vorn::launch
