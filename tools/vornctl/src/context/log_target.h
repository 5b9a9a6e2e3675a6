#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"
#include "live/launcher_process.h"
#include "live/log_source.h"

namespace vorn::launch {

/// The log to which a command applies, and the nodes.
struct LogTarget {
  ExitStatus status = kDone;  // otherwise the error has been printed
  // With no nodes if its launch file is not known, with pid 0 if a named log is
  // read without a launcher.
  LauncherProcess launcher;
  LogLocation log;
  std::vector<std::string> names;  // in file order; those of all nodes if none
                                   // were named
};

/// Finds the log of the launcher, or that of the option --log, and the nodes
/// that the arguments select. Sends no request if it can find the launcher
/// without, since requests are lines in the log, and the launcher may not
/// answer. A named log needs no launcher.
LogTarget findLogTarget(Context& context,
                        const std::vector<std::string>& arguments);

}  // namespace vorn::launch
