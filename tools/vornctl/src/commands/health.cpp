#include "commands/health.h"

#include <poll.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <optional>
#include <utility>

#include "live/log_source.h"
#include "live/node_history.h"
#include "live/node_stability.h"
#include "live/node_watcher.h"
#include "live/process_table.h"
#include "output/duration.h"
#include "output/json.h"
#include "output/output.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;
using HealthClock = std::chrono::steady_clock;

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kHealthSchema = 1;
constexpr milliseconds kHealthLimit = std::chrono::minutes(5);
constexpr milliseconds kLauncherPause{200};
// The log can contain an exit later than the launcher's reply.
constexpr milliseconds kRecheckInterval{1000};

/// Follows the nodes until the result is known.
class HealthCheck {
 public:
  HealthCheck(const Context& context, milliseconds run_for)
      : context_(context),
        run_for_(run_for),
        deadline_(HealthClock::now() +
                  context.settings().replyLimit.value_or(kHealthLimit)) {}

  Health run() {
    while (!followLauncher() && isWaiting()) {
      pollfd cancelled{context_.settings().cancelFd, POLLIN, 0};
      (void)::poll(&cancelled, 1, static_cast<int>(kLauncherPause.count()));
    }
    return health_;
  }

 private:
  bool isWaiting() const {
    return run_for_.count() > 0 && HealthClock::now() < deadline_ &&
           !context_.isCancelled();
  }

  void fail(const std::string& text) { health_.reasons = {{"", text}}; }

  /// True if the result is known; otherwise the launcher does not answer, or
  /// has exited.
  bool followLauncher() {
    const ControlOptions options =
        context_.client(kHealthLimit, "asking the launcher").options();
    const StatusReply reply = context_.statusBefore(options, "");
    health_.isKnown = reply.outcome != Outcome::UNTRUSTED;
    if (!reply.isDone() && reply.outcome != Outcome::NOT_FOUND) {
      fail(reply.message);
      return !health_.isKnown;
    }
    std::string error;
    const auto launcher = inspectLauncher(
        reply.launcherPid, context_.settings().launchFile, error);
    if (!launcher) {
      health_.isKnown = false;
      fail(error);
      return true;
    }
    return followNodes(*launcher);
  }

  bool followNodes(const LauncherProcess& launcher) {
    std::vector<std::string> names;
    for (const LaunchFile::Node& node : launcher.file.nodes) {
      names.push_back(node.name.value);
    }
    health_.nodes = names.size();
    NodeWatcher watcher(context_.client(NodeWatcher::kReplyLimit),
                        context_.settings().cancelFd, launcher,
                        std::move(names));
    milliseconds limit{0};
    for (;;) {
      const auto changes = watcher.wait(limit);
      if (!watcher.failure().isDone()) {
        fail(watcher.failure().message);
        return false;
      }
      for (const auto& change : changes) addChange(change);
      examine(launcher, watcher);
      if (is_final_ || !isWaiting()) return true;
      limit = kRecheckInterval;
    }
  }

  void addChange(const NodeWatcher::Change& change) {
    Starts& starts = starts_[change.name];
    const int64_t start = change.status.startSeconds;
    if (starts.last != 0 && start != starts.last) ++starts.restarts;
    starts.last = start;
  }

  /// Sets the reasons, and `is_final_` if they cannot change without a command.
  void examine(const LauncherProcess& launcher, const NodeWatcher& watcher) {
    health_.reasons.clear();
    is_final_ = false;
    bool is_pending = false;
    for (const WantedNode& node : wantedNodes(launcher, watcher)) {
      const NodeStability found = judgeStability(node, run_for_);
      if (found.verdict == NodeStability::Verdict::STABLE) continue;
      health_.reasons.push_back({node.view.name, found.reason});
      is_pending =
          is_pending || found.verdict == NodeStability::Verdict::PENDING;
      is_final_ = is_final_ || found.verdict == NodeStability::Verdict::FAILED;
    }
    is_final_ = is_final_ || !is_pending;
  }

  std::vector<WantedNode> wantedNodes(const LauncherProcess& launcher,
                                      const NodeWatcher& watcher) const {
    std::vector<NodeView> views;
    for (const LaunchFile::Node& node : launcher.file.nodes) {
      const std::string& name = node.name.value;
      views.push_back(
          viewOf(launcher, name, watcher.status(name), std::time(nullptr)));
    }
    addFromLog(launcher, views);
    std::vector<WantedNode> wanted;
    for (size_t i = 0; i < views.size(); ++i) {
      const LaunchFile::Node& node = launcher.file.nodes[i];
      WantedNode& each = wanted.emplace_back();
      each.isOneshot = node.oneshot.value;
      each.isAutostart = node.autostart.value;
      each.isDisabledInFile = node.disabled.value;
      each.age = ageOfNode(launcher, views[i]);
      each.restartsSeen = starts_.at(node.name.value).restarts;
      each.view = std::move(views[i]);
    }
    return wanted;
  }

  /// The age of the process, which a change of the clock does not affect.
  static milliseconds ageOfNode(const LauncherProcess& launcher,
                                const NodeView& view) {
    const auto process =
        launcher.sharesPids ? readProcess(view.pid) : std::nullopt;
    if (!process) return std::chrono::seconds(view.uptimeSeconds);
    return milliseconds(static_cast<int64_t>(ageOf(*process) * 1000));
  }

  void addFromLog(const LauncherProcess& launcher,
                  std::vector<NodeView>& views) const {
    const int64_t now_us = std::time(nullptr) * kSecondUs;
    std::string error;
    NodeHistories histories;
    const auto log = findLog(launcher, context_.settings().logFile, error);
    if (log && readRecent(launcher, *log, now_us, views, histories, error)) {
      addHistory(histories, now_us, views);
    }
  }

  struct Starts {
    int64_t last = 0;  // in seconds since the epoch
    size_t restarts = 0;
  };

  const Context& context_;
  const milliseconds run_for_;
  const HealthClock::time_point deadline_;
  std::map<std::string, Starts> starts_;
  Health health_;
  bool is_final_ = false;
};

std::string nodeCount(size_t count) {
  return std::to_string(count) + (count == 1 ? " node is" : " nodes are") +
         " healthy";
}

void printHealthJson(const Health& health) {
  Json reasons = Json::array();
  for (const Health::Reason& reason : health.reasons) {
    reasons.push_back(
        {{"node", reason.node.empty() ? Json() : Json(reason.node)},
         {"reason", reason.text}});
  }
  standardOutput() << jsonText(Json{{"schema", kHealthSchema},
                                    {"healthy", health.isHealthy()},
                                    {"nodes", health.nodes},
                                    {"reasons", reasons}});
}

// The exit statuses that Nagios expects of its plugins.
constexpr auto kNagiosCritical = static_cast<ExitStatus>(2);
constexpr auto kNagiosUnknown = static_cast<ExitStatus>(3);

ExitStatus printForNagios(const Health& health) {
  std::string text;
  for (const Health::Reason& reason : health.reasons) {
    text += (text.empty() ? "" : "; ") + sentenceFor(reason);
  }
  if (health.isHealthy()) text = nodeCount(health.nodes);
  // Performance data would follow a vertical bar.
  std::replace(text.begin(), text.end(), '|', '/');
  const char* const word = health.isHealthy() ? "OK"
                           : health.isKnown   ? "CRITICAL"
                                              : "UNKNOWN";
  standardOutput() << "VORNLAUNCH " << terminalText(word) << " - "
                   << terminalText(text) << "\n";
  if (health.isHealthy()) return kDone;
  return health.isKnown ? kNagiosCritical : kNagiosUnknown;
}

}  // namespace

std::string sentenceFor(const Health::Reason& reason) {
  return reason.node.empty() ? reason.text : reason.node + ' ' + reason.text;
}

Health examineHealth(const Context& context, milliseconds run_for) {
  Health health = HealthCheck(context, run_for).run();
  context.clearActivity();
  return health;
}

ExitStatus showHealth(const Context& context, const HealthOptions& options) {
  const Health health = examineHealth(context, options.runFor);
  if (options.format == HealthOptions::Format::NAGIOS) {
    return printForNagios(health);
  }
  if (options.format == HealthOptions::Format::JSON) {
    printHealthJson(health);
  } else {
    for (const Health::Reason& reason : health.reasons) {
      context.printError(sentenceFor(reason));
    }
    if (health.isHealthy() && !context.settings().isQuiet) {
      standardOutput() << terminalText(nodeCount(health.nodes)) << "\n";
    }
  }
  return health.isHealthy() ? kDone : kFailed;
}

}  // namespace vorn::launch
