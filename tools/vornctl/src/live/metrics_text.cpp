#include "live/metrics_text.h"

#include <array>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <set>
#include <string_view>

#include "live/event_text.h"

namespace vorn::launch {
namespace {

// The positions are the values of vornlaunch_node_state; the first four are the
// numbers of the control protocol.
constexpr std::array<std::string_view, 6> kStateWords = {
    "stopped", "running", "restarting", "disabled", "failed", "unknown"};
constexpr size_t kFailedState = 4;
constexpr size_t kUnknownState = 5;

size_t stateOf(const NodeView& view) {
  if (view.condition == Condition::UNKNOWN_NODE) return kUnknownState;
  const bool has_failed = view.condition == Condition::FAILED ||
                          view.isExecutableMissing || view.isForkFailed;
  return has_failed ? kFailedState : static_cast<size_t>(view.state);
}

// As a shell does, 128 and the number of the signal.
constexpr int kSignalBase = 128;

int exitCodeOf(const HistoryEvent& exit) {
  return exit.isSignal() ? kSignalBase + exit.status : exit.status;
}

/// A value of a sample, in the form that both formats have.
std::string numberText(double value) {
  char text[64];
  (void)std::snprintf(text, sizeof(text), "%.15g", value);
  return text;
}

enum class MetricType { GAUGE, COUNTER, INFO };

/// Writes families of samples.
class MetricsWriter {
 public:
  explicit MetricsWriter(MetricsFormat format)
      : is_open_(format == MetricsFormat::OPENMETRICS) {}

  /// Begins a family, whose name is that of its samples. The lines about it
  /// precede its first sample.
  void family(std::string_view name, MetricType type, std::string_view help) {
    name_ = name;
    std::string described = name_;
    std::string_view word = type == MetricType::COUNTER ? "counter" : "gauge";
    if (is_open_ && type == MetricType::COUNTER) {
      described.resize(described.size() - std::string_view("_total").size());
    } else if (is_open_ && type == MetricType::INFO) {
      described.resize(described.size() - std::string_view("_info").size());
      word = "info";
    }
    head_ = "# HELP " + quotedText(described) + " " + quotedText(help) +
            "\n# TYPE " + quotedText(described) + " " + quotedText(word) + "\n";
  }

  /// A sample whose label `label` has the value `of`; without one if both are
  /// empty. `second` is another label and its value.
  void sample(
      std::string_view label, std::string_view of, double value,
      const std::pair<std::string_view, std::string_view>& second = {}) {
    text_ += head_;
    head_ = {};
    text_ += quotedText(name_);
    if (!label.empty()) text_ += "{" + labelText(label, of);
    if (!second.first.empty()) {
      text_ += "," + labelText(second.first, second.second);
    }
    if (!label.empty()) text_ += "}";
    text_ += " " + quotedText(numberText(value)) + "\n";
  }

  OutputText finish() {
    if (is_open_) text_ += "# EOF\n";
    return text_;
  }

 private:
  static OutputText labelText(std::string_view name, std::string_view value) {
    return quotedText(name) + "=\"" + quotedText(value) + "\"";
  }

  bool is_open_;
  std::string name_;
  OutputText head_;
  OutputText text_;
};

/// The value of a metric for a node; nothing if it is not known.
using NodeValue = std::function<std::optional<double>(const NodeMetrics&)>;

struct NodeFamily {
  const char* name;
  MetricType type;
  const char* help;
  NodeValue value;
};

std::optional<double> startOfNode(const NodeMetrics& node) {
  if (node.view.startSeconds == 0) return std::nullopt;
  return static_cast<double>(node.view.startSeconds);
}

std::optional<double> lastExitValue(
    const NodeMetrics& node,
    const std::function<int(const HistoryEvent&)>& of) {
  if (!node.view.lastExit) return std::nullopt;
  return of(*node.view.lastExit);
}

std::optional<double> crashLoopValue(const NodeMetrics& node) {
  if (!node.restarts) return std::nullopt;
  return node.view.isCrashLoop ? 1 : 0;
}

const std::vector<NodeFamily>& nodeFamilies() {
  using Node = const NodeMetrics&;
  static const std::vector<NodeFamily> all = {
      {"vornlaunch_node_up", MetricType::GAUGE, "Whether the node runs.",
       [](Node node) { return node.view.condition == Condition::RUNNING; }},
      {"vornlaunch_node_state", MetricType::GAUGE,
       "0 stopped, 1 running, 2 restarting, 3 disabled, 4 failed and not "
       "tried again, 5 unknown to the launcher.",
       [](Node node) { return static_cast<double>(stateOf(node.view)); }},
      {"vornlaunch_node_crash_looping", MetricType::GAUGE,
       "Whether the node has exited by itself three times within 10 minutes.",
       crashLoopValue},
      {"vornlaunch_node_last_exit_code", MetricType::GAUGE,
       "The exit status of the last run; 128 + N after signal N.",
       [](Node node) { return lastExitValue(node, exitCodeOf); }},
      {"vornlaunch_node_last_exit_signal", MetricType::GAUGE,
       "The signal that terminated the last run; 0 if none did.",
       [](Node node) {
         return lastExitValue(node, [](const HistoryEvent& exit) {
           return exit.isSignal() ? exit.status : 0;
         });
       }},
      {"vornlaunch_node_start_timestamp_seconds", MetricType::GAUGE,
       "The time of the last start since the epoch.", startOfNode},
      {"vornlaunch_node_cpu_seconds_total", MetricType::COUNTER,
       "The processor time of the process of the node and its descendants.",
       [](Node node) { return node.view.cpuSeconds; }},
      {"vornlaunch_node_resident_memory_bytes", MetricType::GAUGE,
       "The resident memory of the process of the node and its descendants.",
       [](Node node) -> std::optional<double> {
         if (!node.view.memoryBytes) return std::nullopt;
         return static_cast<double>(*node.view.memoryBytes);
       }},
      {"vornlaunch_node_ready", MetricType::GAUGE,
       "Whether the node has reported that it is ready.",
       [](Node node) -> std::optional<double> { return node.isReady; }},
  };
  return all;
}

void writeNodes(MetricsWriter& writer,
                const std::vector<const NodeMetrics*>& nodes) {
  for (const NodeFamily& family : nodeFamilies()) {
    writer.family(family.name, family.type, family.help);
    for (const NodeMetrics* const node : nodes) {
      const auto value = family.value(*node);
      if (value) writer.sample("node", node->view.name, *value);
    }
  }
  writer.family("vornlaunch_node_restarts_total", MetricType::COUNTER,
                "The starts of the node since the start-up of the launcher.");
  for (const NodeMetrics* const node : nodes) {
    for (size_t i = 0; node->restarts && i < kCountedCauses.size(); ++i) {
      const auto count = static_cast<double>(node->restarts->at(i));
      if (kCountedCauses.at(i) == HistoryEvent::Cause::UNKNOWN && count == 0) {
        continue;
      }
      writer.sample("node", node->view.name, count,
                    {"cause", wordFor(kCountedCauses.at(i))});
    }
  }
}

void writeLauncher(MetricsWriter& writer, const LauncherMetrics& metrics,
                   const std::vector<const NodeMetrics*>& nodes) {
  writer.family("vornlaunch_up", MetricType::GAUGE,
                "Whether the launcher answers.");
  writer.sample("", "", metrics.isUp ? 1 : 0);
  writer.family("vornlaunch_build_info", MetricType::INFO,
                "The version of vornctl, which has written this.");
  writer.sample("version", metrics.version, 1);
  writer.family("vornlaunch_orphans", MetricType::GAUGE,
                "Processes of nodes that no launcher supervises.");
  writer.sample("", "", static_cast<double>(metrics.orphans));
  if (!metrics.isUp) return;
  writer.family("vornlaunch_launch_file_stale", MetricType::GAUGE,
                "Whether the launch file was changed after the start.");
  if (metrics.isFileStale) writer.sample("", "", *metrics.isFileStale ? 1 : 0);
  std::array<size_t, kStateWords.size()> counts{};
  for (const NodeMetrics* const node : nodes) ++counts.at(stateOf(node->view));
  writer.family("vornlaunch_nodes", MetricType::GAUGE,
                "The number of nodes in each state.");
  for (size_t i = 0; i < counts.size(); ++i) {
    writer.sample("state", kStateWords.at(i),
                  static_cast<double>(counts.at(i)));
  }
}

}  // namespace

OutputText metricsText(const LauncherMetrics& metrics, MetricsFormat format) {
  std::vector<const NodeMetrics*> nodes;
  std::set<std::string> labels;
  for (const NodeMetrics& node : metrics.nodes) {
    if (labels.insert(quotedText(node.view.name).str()).second) {
      nodes.push_back(&node);
    }
  }
  MetricsWriter writer(format);
  writeLauncher(writer, metrics, nodes);
  writeNodes(writer, nodes);
  return writer.finish();
}

}  // namespace vorn::launch
