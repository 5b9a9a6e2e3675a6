#include "live/node_stability.h"

#include "live/event_text.h"
#include "live/node_history.h"

namespace vorn::launch {
namespace {

using Result = NodeStability::Verdict;

/// ": it exited with status 3", if the last exit is known.
std::string lastExitClause(const NodeView& view) {
  return view.lastExit ? ": it " + exitText(*view.lastExit) : "";
}

NodeStability judgeProcess(const WantedNode& node,
                           std::chrono::milliseconds run_for) {
  const NodeView& view = node.view;
  if (node.isOneshot) return {Result::PENDING, "has not finished yet"};
  const bool is_examined_now = run_for.count() == 0;
  if (is_examined_now && view.isCrashLoop) {
    return {Result::FAILED, "is in a crash loop" + lastExitClause(view)};
  }
  if (node.age >= run_for) return {};
  const auto age = std::chrono::duration_cast<std::chrono::seconds>(node.age);
  return {Result::PENDING,
          "has run for only " + formatSpan(age.count()) +
              (node.restartsSeen > 0 ? lastExitClause(view) : "")};
}

NodeStability judgeDisabled(const WantedNode& node) {
  const NodeView& view = node.view;
  if (view.isExecutableMissing) {
    return {Result::FAILED, "was not started: its executable " +
                                view.executable + " does not exist"};
  }
  const bool has_run = node.isOneshot && view.startSeconds != 0;
  if (!has_run || view.lastExit) return {};
  return {Result::PENDING,
          "has finished, but the log does not contain its exit status"};
}

NodeStability judgeUnstarted(const WantedNode& node) {
  if (!node.isAutostart || node.isDisabledInFile) return {};
  return {Result::FAILED, "was not started"};
}

}  // namespace

NodeStability judgeStability(const WantedNode& node,
                             std::chrono::milliseconds run_for) {
  const NodeView& view = node.view;
  if (node.restartsSeen >= kCrashLoopExits) {
    return {Result::FAILED, "has restarted " +
                                std::to_string(node.restartsSeen) + " times" +
                                lastExitClause(view)};
  }
  if (view.isForkFailed) {
    return {Result::FAILED,
            "is stopped: the launcher could not create a process for it"};
  }
  switch (view.condition) {
    case Condition::RUNNING:
      return judgeProcess(node, run_for);
    case Condition::EXITING:
      return {Result::PENDING, "has just exited"};
    case Condition::RESTARTING:
      return {Result::PENDING, "restarts in " +
                                   formatSpan(view.restartInSeconds) +
                                   lastExitClause(view)};
    case Condition::FAILED:
      return {Result::FAILED, "has failed" + lastExitClause(view)};
    case Condition::DISABLED:
      return judgeDisabled(node);
    case Condition::NEVER_STARTED:
      return judgeUnstarted(node);
    case Condition::STOPPED:
    case Condition::STOPPING:
      return {};
    case Condition::UNKNOWN_NODE:
      break;
  }
  return {Result::FAILED,
          "is unknown to the launcher: it was added to the launch file after "
          "the launcher started"};
}

}  // namespace vorn::launch
