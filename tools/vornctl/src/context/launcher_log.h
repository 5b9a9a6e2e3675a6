#pragma once

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

/// Finds the log that the settings name, otherwise that of the launcher that
/// answers. The launcher has its nodes if its launch file can be read.
LauncherLog findLauncherLog(Context& context);

}  // namespace vorn::launch
