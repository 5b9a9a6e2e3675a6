#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"
#include "live/launcher_process.h"

namespace vorn::launch {

/// The launcher and the nodes that a command is about.
struct Targets {
  ExitStatus status = kDone;  // anything else has been told on standard error
  LauncherProcess launcher;   // with no nodes if its launch file is not known
  bool isFileKnown = false;
  std::vector<std::string> names;  // in file order
};

/// Finds the launcher, and the nodes that the arguments mean: names, which do
/// without a known launch file, and patterns; all without arguments.
Targets findTargets(Context& context,
                    const std::vector<std::string>& arguments);

}  // namespace vorn::launch
