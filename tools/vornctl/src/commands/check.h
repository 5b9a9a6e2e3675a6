#pragma once

#include <string>
#include <vector>

#include "check/diagnostic.h"
#include "context/context.h"
#include "context/exit_status.h"
#include "launchfile/launch_file.h"

namespace vorn::launch {

struct CheckOptions {
  enum class Format { TEXT, JSON, SARIF, GITHUB };
  enum class Print { DIAGNOSTICS, RESOLVED, TIMELINE, STOP_TIMEOUT };
  enum class Host { AUTO, YES, NO };

  std::vector<std::string> files;  // "-" for standard input
  Format format = Format::TEXT;
  Print print = Print::DIAGNOSTICS;
  Host host = Host::AUTO;  // AUTO: not for standard input
  Severity failOn = Severity::ERROR;
  std::vector<std::string> ignored;
};

/// The diagnostics of one file, sorted by location.
Diagnostics diagnose(const SourceText& document, const LaunchFile& file,
                     const CheckOptions& options);

/// Prints the diagnostics of launch files: to standard output, or to standard
/// error if something else is printed. kFailed if there is a diagnostic of the
/// severity `failOn` or above; kUsage if a file cannot be read.
ExitStatus check(const Context& context, const CheckOptions& options);

/// Prints every kind of diagnostic: name, severity and summary, with tabs.
ExitStatus listChecks();

}  // namespace vorn::launch
