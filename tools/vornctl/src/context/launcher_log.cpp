#include "context/launcher_log.h"

#include <algorithm>
#include <utility>

#include "context/node_patterns.h"

namespace vorn::launch {

LauncherLog findLauncherLog(Context& context) {
  LauncherLog log;
  const Settings& settings = context.settings();
  const bool needs_launcher = settings.logFile.empty();
  if (needs_launcher) log.status = context.findLauncherProcess();
  if (log.status != kDone) return log;
  std::string error;
  if (needs_launcher || !settings.launchFile.empty()) {
    const LauncherProcess* const known = context.launcher(error);
    log.launcher = known == nullptr ? context.launcherWithoutFile() : *known;
  }
  auto location = findLog(log.launcher, settings.logFile, error);
  if (location) {
    log.location = std::move(*location);
  } else {
    context.printError(error);
    log.status = kUsage;
  }
  return log;
}

std::vector<std::string> selectLogged(const Context& context,
                                      const std::vector<std::string>& arguments,
                                      LauncherLog& log) {
  if (arguments.empty()) return {};
  const LaunchFile& file = log.launcher.file;
  if (file.nodes.empty() &&
      std::any_of(arguments.begin(), arguments.end(), isPattern)) {
    context.printError(
        "a pattern requires the launch file; name it with --launch-file");
    log.status = kUsage;
    return {};
  }
  std::string error;
  std::vector<std::string> names = selectNodes(file, arguments, error);
  if (names.empty()) {
    context.printError(error);
    log.status = kNoSuchNode;
  }
  // A named log can be from another machine, or older than the launch file.
  if (file.nodes.empty() || !context.settings().logFile.empty()) return names;
  for (const std::string& name : names) {
    if (file.find(name) != nullptr) continue;
    ControlReply reply;
    reply.outcome = Outcome::NOT_FOUND;
    context.printRequestError(name, reply, file);
    log.status = kNoSuchNode;
  }
  return names;
}

}  // namespace vorn::launch
