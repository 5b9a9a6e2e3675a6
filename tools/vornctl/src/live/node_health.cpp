#include "live/node_health.h"

#include "live/event_text.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

constexpr size_t kMaxNamedNodes = 3;
constexpr char kHowToExplain[] =
    "'vornctl status --failed' lists these nodes, 'vornctl why NODE' explains "
    "the state of one";

/// The sentence about a failing node, after its name.
std::string problemOf(const NodeView& view) {
  if (view.isExecutableMissing) {
    return "is disabled because its executable " + view.executable +
           " is missing";
  }
  if (view.isForkFailed) return "could not be started: fork failed";
  if (view.condition == Condition::UNKNOWN_NODE) {
    return "is in the launch file, but unknown to the launcher";
  }
  if (view.run.state && view.run.state->isFailing() && !view.isCrashLoop) {
    return view.run.state->hasGivenUp() ? "has given up after too many restarts"
                                        : "is " + view.run.state->phase;
  }
  std::string text = "has exited by itself";
  if (view.isCrashLoop) {
    text = "is in a crash loop, with " + std::to_string(view.restarts) +
           " restarts in the last hour";
  }
  return view.lastExit ? text + " (it " + exitText(*view.lastExit) + ')' : text;
}

}  // namespace

Finding nodesFinding(const std::vector<NodeView>& views,
                     const std::string& log_error) {
  std::vector<std::string> problems;
  for (const NodeView& view : views) {
    if (isFailing(view)) problems.push_back(view.name + ' ' + problemOf(view));
  }
  if (const size_t count = problems.size(); count > kMaxNamedNodes) {
    problems.resize(kMaxNamedNodes);
    problems.push_back(std::to_string(count - kMaxNamedNodes) +
                       " more nodes have failed");
  }
  if (!problems.empty()) {
    return {Verdict::ERROR, listOf(problems), kHowToExplain};
  }
  if (!log_error.empty()) {
    return unknownFinding("no node fails now, but earlier exits are unknown: " +
                          log_error);
  }
  return okFinding("none of " + std::to_string(views.size()) +
                   " nodes has failed");
}

Finding programsFinding(const std::vector<NodeView>& views) {
  std::vector<std::string> stale;
  bool is_known = true;
  for (const NodeView& view : views) {
    if (view.isStale.value_or(false)) stale.push_back(view.name);
    if (view.pid != 0 && !view.isStale) is_known = false;
  }
  if (!stale.empty()) {
    std::string names;
    for (const std::string& name : stale) names += ' ' + shellArgument(name);
    return {Verdict::WARNING,
            "the programs of these nodes were replaced or removed after their "
            "start: " +
                listOf(stale),
            "vornctl restart" + names};
  }
  if (!is_known) {
    return unknownFinding("cannot examine the programs of all nodes",
                          kRunAsRoot);
  }
  return okFinding("the nodes run the programs that are installed");
}

Finding orphansFinding(const Orphans& orphans) {
  const size_t count = orphans.processes.size();
  if (count > 0) {
    const std::string subject =
        count == 1
            ? "1 process of an earlier launcher or run is still running"
            : std::to_string(count) +
                  " processes of earlier launchers or runs are still running";
    return {Verdict::WARNING, subject,
            "'vornctl orphans' lists them, and 'vornctl orphans --kill' "
            "terminates them"};
  }
  if (orphans.unreadable > 0) {
    return unknownFinding(
        "found none, but processes of other users could not "
        "be examined",
        "run vornctl as root");
  }
  return okFinding("no process of an earlier launcher or run is running");
}

}  // namespace vorn::launch
