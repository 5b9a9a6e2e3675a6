#include "live/event_text.h"

#include <string.h>

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;

std::string startText(Cause cause) {
  switch (cause) {
    case Cause::START_UP:
      return "started with the launcher";
    case Cause::ITSELF:
      return "restarted after its exit";
    case Cause::OPERATOR:
      return "started by a command";
    case Cause::REQUIRED:
      return "restarted with a node that requires it";
    case Cause::UNKNOWN:
      break;
  }
  return "started";
}

std::string stopText(Cause cause) {
  switch (cause) {
    case Cause::OPERATOR:
      return ", stopped by a command";
    case Cause::REQUIRED:
      return ", stopped with a node that requires it";
    case Cause::START_UP:
    case Cause::ITSELF:
    case Cause::UNKNOWN:
      break;
  }
  return "";
}

}  // namespace

std::string signalName(int signal) {
  const char* const name = ::sigabbrev_np(signal);
  return name == nullptr ? "signal " + std::to_string(signal)
                         : "SIG" + std::string(name);
}

std::string exitWord(const HistoryEvent& exit) {
  return exit.isSignal() ? signalName(exit.status)
                         : std::to_string(exit.status);
}

std::string exitText(const HistoryEvent& exit) {
  if (exit.isExecutionFailed) {
    return "could not be executed, exit status " + std::to_string(exit.status);
  }
  if (!exit.isSignal()) {
    return "exited with status " + std::to_string(exit.status);
  }
  std::string text = "was killed by " + signalName(exit.status);
  if (const char* const meaning = ::sigdescr_np(exit.status)) {
    text += " (" + std::string(meaning) + ')';
  }
  if (exit.isCoreDumped()) text += ", core dumped";
  if (exit.isForced()) text += ", because SIGTERM did not end it in time";
  return text;
}

std::string eventText(const HistoryEvent& event) {
  const std::string launcher = "launcher " + std::to_string(event.launcher);
  switch (event.kind) {
    case Kind::LAUNCHER_STARTED:
      return launcher + " started";
    case Kind::LAUNCHER_STOPPING:
      return launcher + " received SIGTERM and stops all nodes";
    case Kind::STARTED:
      return startText(event.cause);
    case Kind::EXITED:
      return exitText(event) + stopText(event.cause);
    case Kind::LOST:
      return launcher + " ended; the exit is not in the log";
    case Kind::START_REFUSED:
      return "start refused: the node is disabled";
    case Kind::START_SKIPPED:
      return "not started: autostart is false";
    case Kind::EXECUTABLE_MISSING:
      return "disabled: the executable " + event.detail + " does not exist";
    case Kind::FORK_FAILED:
      return "not started: fork failed";
    case Kind::STOP_FAILED:
      return "stop failed: " + event.detail;
    case Kind::RESTART_CANCELLED:
      return "stopped by a command before its restart";
  }
  return "";
}

std::string actionText(const ActionRecord& action) {
  std::string text = action.command + " by ";
  text +=
      action.user.empty() ? "uid " + std::to_string(action.uid) : action.user;
  if (!action.sudoUser.empty()) text += " (" + action.sudoUser + " by sudo)";
  if (action.outcome != "done") text += ", " + action.outcome;
  if (!action.reason.empty()) text += ": " + action.reason;
  return text;
}

const char* wordFor(Kind kind) {
  switch (kind) {
    case Kind::LAUNCHER_STARTED:
      return "launcher-started";
    case Kind::LAUNCHER_STOPPING:
      return "launcher-stopping";
    case Kind::STARTED:
      return "started";
    case Kind::EXITED:
      return "exited";
    case Kind::LOST:
      return "lost";
    case Kind::START_REFUSED:
      return "start-refused";
    case Kind::START_SKIPPED:
      return "start-skipped";
    case Kind::EXECUTABLE_MISSING:
      return "executable-missing";
    case Kind::FORK_FAILED:
      return "fork-failed";
    case Kind::STOP_FAILED:
      return "stop-failed";
    case Kind::RESTART_CANCELLED:
      return "restart-cancelled";
  }
  return "";
}

const char* wordFor(Cause cause) {
  switch (cause) {
    case Cause::UNKNOWN:
      return "unknown";
    case Cause::START_UP:
      return "start-up";
    case Cause::ITSELF:
      return "itself";
    case Cause::OPERATOR:
      return "operator";
    case Cause::REQUIRED:
      return "required";
  }
  return "";
}

}  // namespace vorn::launch
