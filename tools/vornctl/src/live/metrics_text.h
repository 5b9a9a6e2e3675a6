#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "live/node_status.h"
#include "live/restart_counts.h"
#include "output/output_text.h"

namespace vorn::launch {

enum class MetricsFormat {
  PROMETHEUS,   // the text format 0.0.4
  OPENMETRICS,  // OpenMetrics 1.0
};

/// The metrics of one node.
struct NodeMetrics {
  NodeView view;
  std::optional<CountsByCause> restarts;  // nothing if the log is not readable
  std::optional<bool> isReady;            // if vornrun reports that
};

/// The metrics of a launcher and its nodes.
struct LauncherMetrics {
  std::string version;
  bool isUp = false;
  std::optional<bool> isFileStale;
  size_t orphans = 0;
  std::vector<NodeMetrics> nodes;
};

/// The metrics in a format. Of several nodes with the same name it contains the
/// first one: a series must not occur twice.
OutputText metricsText(const LauncherMetrics& metrics, MetricsFormat format);

}  // namespace vorn::launch
