#include "context/launcher_log.h"

#include <utility>

namespace vorn::launch {

LauncherLog findLauncherLog(Context& context) {
  LauncherLog log;
  const Settings& settings = context.settings();
  const bool needs_launcher = settings.logFile.empty();
  if (needs_launcher) log.status = context.findLauncher();
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

}  // namespace vorn::launch
