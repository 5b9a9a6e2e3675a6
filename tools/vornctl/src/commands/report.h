#pragma once

#include <cstdint>
#include <string>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct ReportOptions {
  std::string output;   // a path, "-" for standard output; empty: a new file
  int64_t sinceUs = 0;  // since the epoch; 0: twelve hours before now
  bool hasEnvironment = false;  // hide no values
};

/// Writes a report about the launcher, its nodes, its launch file, its log and
/// this machine as an HTML file. A part that cannot be read is named in the
/// report; a running launcher is not necessary. kFailed if the file cannot be
/// written.
ExitStatus writeReport(Context& context, const ReportOptions& options);

}  // namespace vorn::launch
