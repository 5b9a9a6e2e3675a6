#include "context/targets.h"

#include <algorithm>

#include "context/node_patterns.h"

namespace vorn::launch {

Targets findTargets(Context& context,
                    const std::vector<std::string>& arguments) {
  Targets targets;
  targets.status = context.findLauncher();
  if (targets.status != kDone) return targets;
  std::string error;
  const LauncherProcess* const known = context.launcher(error);
  const bool needs_file =
      arguments.empty() ||
      std::any_of(arguments.begin(), arguments.end(), isPattern);
  if (known == nullptr && needs_file) {
    context.printError(error);
    targets.status = kUsage;
    return targets;
  }
  targets.isFileKnown = known != nullptr;
  targets.launcher = known == nullptr ? context.launcherWithoutFile() : *known;
  targets.names = selectNodes(targets.launcher.file, arguments, error);
  if (targets.names.empty() && !arguments.empty()) {
    context.printError(error);
    targets.status = kNoSuchNode;
  }
  return targets;
}

}  // namespace vorn::launch
