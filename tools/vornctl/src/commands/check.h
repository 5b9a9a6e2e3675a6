#pragma once

#include <string>
#include <vector>

#include "check/diagnostic.h"
#include "context/context.h"
#include "context/exit_status.h"

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

/// Says what is wrong with launch files, on standard output; beside something
/// else that is printed, on standard error. kDone: nothing of the severity
/// `failOn` or above; kFailed: something; kUsage: a file cannot be read.
ExitStatus check(const Context& context, const CheckOptions& options);

/// Prints every kind of finding: name, severity and summary, with tabs.
ExitStatus listChecks();

}  // namespace vorn::launch
