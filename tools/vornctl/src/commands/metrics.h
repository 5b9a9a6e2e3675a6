#pragma once

#include <string>

#include "context/context.h"
#include "context/exit_status.h"
#include "live/metrics_text.h"

namespace vorn::launch {

struct MetricsOptions {
  std::string output;  // a file; empty or "-": standard output
  MetricsFormat format = MetricsFormat::PROMETHEUS;
};

/// Writes the metrics of the launcher and its nodes. Without a launcher, writes
/// that it is not up; that is an error only on standard output, since the timer
/// that runs the command for a file must not fail.
ExitStatus writeMetrics(Context& context, const MetricsOptions& options);

}  // namespace vorn::launch
