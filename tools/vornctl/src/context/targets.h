#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"
#include "live/launcher_process.h"

namespace vorn::launch {

/// The launcher and the nodes to which a command applies.
struct Targets {
  ExitStatus status = kDone;  // otherwise the error has been printed
  LauncherProcess launcher;   // with no nodes if its launch file is not known
  bool isFileKnown = false;
  std::vector<std::string> names;  // in file order
};

/// Finds the launcher and the nodes that the arguments select: names, patterns,
/// or all nodes without arguments. Only names can do without the launch file.
Targets findTargets(Context& context,
                    const std::vector<std::string>& arguments);

}  // namespace vorn::launch
