#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"
#include "live/log_source.h"

namespace vorn::launch {

/// The log for a command that reads it.
struct LauncherLog {
  ExitStatus status = kDone;  // otherwise the error has been printed
  LauncherProcess launcher;   // with pid 0 if the settings name the log
  LogLocation location;
};

/// Finds the log that the settings name, otherwise that of the launcher. The
/// launcher has its nodes if its launch file can be read. Sends no request if
/// /proc shows the launcher: it may not answer, and requests are lines in its
/// log.
LauncherLog findLauncherLog(Context& context);

/// The names of the nodes that the arguments select in the launch file, in file
/// order; none without arguments. Sets `log.status` after an error, such as a
/// name that is not in the launch file of a running launcher.
std::vector<std::string> selectLogged(const Context& context,
                                      const std::vector<std::string>& arguments,
                                      LauncherLog& log);

}  // namespace vorn::launch
