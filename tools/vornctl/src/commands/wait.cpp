#include "commands/wait.h"

#include <algorithm>
#include <map>
#include <thread>

#include "context/targets.h"
#include "live/event_text.h"
#include "live/log_source.h"
#include "live/node_cells.h"
#include "live/node_history.h"
#include "live/node_status.h"
#include "live/node_watcher.h"
#include "output/json.h"
#include "output/output.h"

namespace vorn::launch {
namespace {

using Clock = std::chrono::steady_clock;
using Goal = WaitOptions::Goal;
using std::chrono::milliseconds;

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kMonitorSchema = 1;
constexpr int kOneLine = -1;
constexpr milliseconds kNoLimit = std::chrono::hours(24);
constexpr int kLogAttempts = 20;
constexpr milliseconds kLogPause{100};
constexpr milliseconds kPhasePause{200};  // between two reads of state files

class Wait {
 public:
  /// Gives up at `deadline`.
  Wait(const Context& context, const WaitOptions& options,
       const Targets& targets, Clock::time_point deadline)
      : context_(context),
        options_(options),
        deadline_(deadline),
        watcher_(context.client(NodeWatcher::kReplyLimit),
                 context.settings().cancelFd, targets.launcher, targets.names),
        launcher_(targets.launcher) {}

  ExitStatus run() {
    for (;;) {
      const auto changes = watcher_.wait(timeLeft());
      if (const auto status = failureIn(changes)) return *status;
      for (const auto& change : changes) {
        first_.emplace(change.name, change.status);
      }
      if (const auto status = progressWith(changes)) return *status;
    }
  }

 private:
  using Changes = std::vector<NodeWatcher::Change>;

  milliseconds timeLeft() const {
    const Clock::time_point next =
        reached_ ? std::min(deadline_, *reached_ + options_.heldFor)
                 : deadline_;
    // The phase of a node changes without a change of its processes.
    return std::min(options_.goal == Goal::READY ? kPhasePause : kNoLimit,
                    std::chrono::ceil<milliseconds>(next - Clock::now()));
  }

  /// The exit status, after a message, if the wait cannot continue.
  std::optional<ExitStatus> failureIn(const Changes& changes) const {
    // First: a request that the signal has interrupted is not an error.
    if (context_.isCancelled()) return kTimedOut;
    if (!watcher_.failure().isDone()) {
      context_.printError(watcher_.failure().message);
      return exitStatusOf(watcher_.failure().outcome);
    }
    for (const auto& change : changes) {
      if (change.status.isDone()) continue;
      context_.printRequestError(change.name, change.status, launcher_.file);
      return exitStatusOf(change.status.outcome);
    }
    if (options_.goal != Goal::SUCCEEDED) return std::nullopt;
    for (const auto& change : changes) {
      if (const auto status = failureOfOneshot(change)) return *status;
    }
    return std::nullopt;
  }

  /// The exit status, after a message, if the node has not succeeded or cannot
  /// succeed.
  std::optional<ExitStatus> failureOfOneshot(
      const NodeWatcher::Change& change) const {
    const LaunchFile::Node* const node = launcher_.file.find(change.name);
    if (node != nullptr && !node->oneshot.value) {
      context_.printError(change.name +
                          ": only a node with oneshot: true can succeed");
      return kUsage;
    }
    if (!isReached(change.name)) return std::nullopt;
    std::string error;
    const auto exit = lastExitOf(change, error);
    if (!exit) {
      context_.printError(change.name + ": its exit status is unknown: " +
                          (error.empty() ? "it is not in the log" : error));
      return kUnknown;
    }
    if (!exit->isFailure()) return std::nullopt;
    context_.printError(change.name + " has failed: it " + exitText(*exit));
    return kFailed;
  }

  /// The exit of a node whose status shows it. The journal can have it later.
  std::optional<HistoryEvent> lastExitOf(const NodeWatcher::Change& change,
                                         std::string& error) const {
    const std::vector<NodeView> views = {
        viewOf(launcher_, change.name, change.status, 0)};
    const auto log = findLog(launcher_, context_.settings().logFile, error);
    for (int attempt = 0; log && attempt < kLogAttempts; ++attempt) {
      NodeHistories histories;
      if (!readOneshotExits(launcher_, *log, views, histories, error)) break;
      const auto* const history = histories.find(nameInLog(change.name));
      if (history != nullptr && history->exit) return history->exit;
      std::this_thread::sleep_for(kLogPause);
    }
    return std::nullopt;
  }

  /// The exit status if the wait is over.
  std::optional<ExitStatus> progressWith(const Changes& changes) {
    const bool is_reached = std::all_of(
        watcher_.names().begin(), watcher_.names().end(),
        [this](const std::string& name) { return isReached(name); });
    const Clock::time_point now = Clock::now();
    // A restart between two checks interrupts the state as well.
    if (reached_ && (!is_reached || !changes.empty())) {
      context_.printError("the state did not last: " +
                          describeMissing(changes));
      return kNotRunning;
    }
    if (is_reached && !reached_) reached_ = now;
    if (reached_ && now >= *reached_ + options_.heldFor) return kDone;
    if (now < deadline_) return std::nullopt;
    context_.printError("the time limit has expired: " + describeMissing({}));
    return kTimedOut;
  }

  bool isReached(const std::string& name) const {
    const StatusReply& status = watcher_.status(name);
    switch (options_.goal) {
      case Goal::RUNNING:
        return status.state == NodeState::RUNNING;
      case Goal::READY:
        return isReady(viewOf(launcher_, name, status, 0));
      case Goal::STOPPED:
        return status.state == NodeState::STOPPED && status.pid == 0;
      case Goal::DISABLED:
        return status.state == NodeState::DISABLED && status.pid == 0;
      case Goal::SUCCEEDED:
        return status.state == NodeState::DISABLED && status.pid == 0 &&
               status.startSeconds != 0;
      case Goal::RESTARTED: {
        const StatusReply& first = first_.at(name);
        return status.state == NodeState::RUNNING &&
               (status.startSeconds != first.startSeconds ||
                status.pid != first.pid);
      }
    }
    return false;
  }

  /// The nodes that are not in the requested state, otherwise those that have
  /// changed.
  std::string describeMissing(const Changes& changes) const {
    std::string text;
    const auto add = [&](const std::string& name) {
      if (!text.empty()) text += ", ";
      const NodeView view = viewOf(launcher_, name, watcher_.status(name), 0);
      const bool has_phase = options_.goal == Goal::READY && view.run.state;
      text += name + " is " +
              (has_phase ? view.run.state->phase : wordFor(view.state));
    };
    for (const std::string& name : watcher_.names()) {
      if (!isReached(name)) add(name);
    }
    if (text.empty()) {
      for (const auto& change : changes) add(change.name);
    }
    return text;
  }

  const Context& context_;
  const WaitOptions& options_;
  const Clock::time_point deadline_;
  NodeWatcher watcher_;
  const LauncherProcess& launcher_;
  std::optional<Clock::time_point> reached_;  // the start of the state
  std::map<std::string, StatusReply> first_;  // when the wait began
};

void printChange(const LauncherProcess& launcher,
                 const NodeWatcher::Change& change, bool is_json,
                 bool has_colours) {
  const int64_t now = std::chrono::duration_cast<std::chrono::seconds>(
                          std::chrono::system_clock::now().time_since_epoch())
                          .count();
  const NodeView view = viewOf(launcher, change.name, change.status, now);
  Output out = standardOutput();
  if (is_json) {
    const Json line = {
        {"schema", kMonitorSchema},
        {"time", now},
        {"name", view.name},
        {"state", change.status.isDone() ? Json(wordFor(view.state)) : Json()},
        {"condition", wordFor(view.condition)},
        {"pid", orNull(view.pid)},
        {"startSeconds", orNull(view.startSeconds)}};
    out << jsonText(line, kOneLine);
    out.flush();
    return;
  }
  const Cell state = cellFor(view, "state");
  out << terminalText(formatTime(now) + ' ' + view.name) << " "
      << (has_colours ? coloured(state.text, state.colour) : state.text);
  if (view.pid != 0) out << " pid " << view.pid;
  out << "\n";
  out.flush();
}

}  // namespace

ExitStatus waitForNodes(Context& context, const WaitOptions& options) {
  const Clock::time_point deadline =
      options.limit ? Clock::now() + *options.limit : Clock::time_point::max();
  const Targets targets = findTargets(context, options.nodes);
  const ExitStatus status =
      targets.status == kDone ? Wait(context, options, targets, deadline).run()
                              : targets.status;
  // Nothing is unknown after a status request, since it changes nothing.
  const bool is_given_up = Clock::now() >= deadline || context.isCancelled();
  return status == kUnknown && is_given_up ? kTimedOut : status;
}

ExitStatus monitor(Context& context, const std::vector<std::string>& nodes,
                   bool is_json) {
  const Targets targets = findTargets(context, nodes);
  if (targets.status != kDone) return targets.status;
  NodeWatcher watcher(context.client(NodeWatcher::kReplyLimit),
                      context.settings().cancelFd, targets.launcher,
                      targets.names);
  for (;;) {
    for (const auto& change : watcher.wait(kNoLimit)) {
      // A node of the file that the launcher does not know was added to the
      // file after the launcher started.
      const bool is_unknown =
          targets.launcher.file.find(change.name) == nullptr;
      if (is_unknown && !change.status.isDone()) {
        context.printRequestError(change.name, change.status,
                                  targets.launcher.file);
        return exitStatusOf(change.status.outcome);
      }
      printChange(targets.launcher, change, is_json,
                  context.settings().hasColours);
    }
    if (!standardOutput().isGood()) return kDone;  // no reader
    if (context.isCancelled()) return kDone;
    if (!watcher.failure().isDone()) {
      context.printError(watcher.failure().message);
      return exitStatusOf(watcher.failure().outcome);
    }
  }
}

}  // namespace vorn::launch
