#include "commands/metrics.h"

#include <chrono>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <utility>
#include <vector>

#include "live/log_line.h"
#include "live/log_source.h"
#include "live/node_history.h"
#include "live/node_usage.h"
#include "live/orphans.h"
#include "live/proc_file.h"
#include "live/restart_counts.h"
#include "output/duration.h"
#include "output/output.h"
#include "system/atomic_file.h"
#include "vornctl_version.h"

namespace vorn::launch {
namespace {

constexpr std::chrono::minutes kMetricsReplyLimit{5};
// Not *.prom, which node-exporter would read.
constexpr char kCountsSuffix[] = ".counts";

bool isToFile(const MetricsOptions& options) {
  return !options.output.empty() && options.output != "-";
}

std::string contentOf(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

/// A text that no other launcher has, also after a reboot; empty if unknown.
std::string identityOf(const LauncherProcess& launcher) {
  const auto process = readProcess(launcher.pid);
  const auto boot = readProcFile("/proc/sys/kernel/random/boot_id");
  if (!process || !boot) return "";
  return boot->substr(0, boot->find('\n')) + ' ' +
         std::to_string(launcher.pid) + ' ' +
         std::to_string(process->startTicks);
}

/// Collects the metrics of one run.
class MetricsGatherer {
 public:
  MetricsGatherer(Context& context, const MetricsOptions& options)
      : context_(context), options_(options) {
    metrics_.version = VORNCTL_VERSION;
  }

  /// The exit status of a command that needs the launcher.
  ExitStatus gather() {
    const ExitStatus status = gatherNodes();
    const ProcessTable table = ProcessTable::read();
    metrics_.orphans = findOrphans(table, launcher_.pid).processes.size();
    addUsage(table, launcher_, views_);
    for (NodeView& view : views_) {
      NodeMetrics& node = metrics_.nodes.emplace_back();
      if (counts_) node.restarts = counts_->of(nameInLog(view.name));
      if (view.run.state) node.isReady = view.run.state->isReady;
      node.view = std::move(view);
    }
    return status;
  }

  const LauncherMetrics& metrics() const { return metrics_; }

  /// Saves the counts for the next run, next to the output.
  bool saveCounts(std::string& error) const {
    return !counts_ || !isToFile(options_) ||
           writeFile(options_.output + kCountsSuffix, counts_->save(), true,
                     error);
  }

 private:
  ExitStatus gatherNodes() {
    ExitStatus status = context_.findLauncherProcess();
    if (status != kDone) return status;
    launcher_ = context_.launcherWithoutFile();
    std::string error;
    auto launcher =
        inspectLauncher(launcher_.pid, context_.settings().launchFile, error);
    if (launcher) {
      launcher_ = std::move(*launcher);
      metrics_.isFileStale = launcher_.hasChanged;
      status = requestStates();
    } else {
      context_.printError(error);
      status = context_.findLauncher();
    }
    metrics_.isUp = status == kDone;
    if (status == kDone && !launcher) return kUsage;
    if (status == kDone) addFromLog();
    return status;
  }

  ExitStatus requestStates() {
    if (launcher_.file.nodes.empty()) return context_.findLauncher();
    const ControlClient client =
        context_.client(kMetricsReplyLimit, "asking the launcher");
    for (const LaunchFile::Node& node : launcher_.file.nodes) {
      const std::string& name = node.name.value;
      const StatusReply reply = context_.statusBefore(client.options(), name);
      if (reply.outcome == Outcome::INVALID_NAME) continue;
      if (!reply.isDone() && reply.outcome != Outcome::NOT_FOUND) {
        context_.printError(reply.message);
        views_.clear();
        return exitStatusOf(reply.outcome);
      }
      views_.push_back(viewOf(launcher_, name, reply, std::time(nullptr)));
    }
    return kDone;
  }

  void addFromLog() {
    const int64_t now_us = std::time(nullptr) * kSecondUs;
    const std::string saved =
        isToFile(options_) ? contentOf(options_.output + kCountsSuffix) : "";
    RestartCounts counts(identityOf(launcher_),
                         launcher_.startSeconds * kSecondUs, saved);
    NodeHistories histories;
    std::string error;
    const auto log = findLog(launcher_, context_.settings().logFile, error);
    const auto count = [&](const HistoryEvent& event) { counts.add(event); };
    if (!log || !readRecentAnd(launcher_, *log, now_us, counts.sinceUs(), count,
                               views_, histories, error)) {
      context_.printError(error);
      return;
    }
    addHistory(histories, now_us, views_);
    counts_ = std::move(counts);
  }

  Context& context_;
  const MetricsOptions& options_;
  LauncherProcess launcher_;
  std::vector<NodeView> views_;
  std::optional<RestartCounts> counts_;
  LauncherMetrics metrics_;
};

}  // namespace

ExitStatus writeMetrics(Context& context, const MetricsOptions& options) {
  MetricsGatherer gatherer(context, options);
  const ExitStatus status = gatherer.gather();
  context.clearActivity();
  const OutputText text = metricsText(gatherer.metrics(), options.format);
  if (!isToFile(options)) {
    standardOutput() << text;
    return status;
  }
  std::string error;
  if (writeFile(options.output, text.str(), true, error, kPublicFile) &&
      gatherer.saveCounts(error)) {
    return kDone;
  }
  context.printError(error);
  return kFailed;
}

}  // namespace vorn::launch
