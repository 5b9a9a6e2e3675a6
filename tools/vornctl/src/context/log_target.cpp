#include "context/log_target.h"

#include <algorithm>

#include "context/node_patterns.h"

namespace vorn::launch {
namespace {

/// An error if one of the names is not in the launch file, which is known.
bool hasUnknown(const Context& context, const LaunchFile& file,
                const std::vector<std::string>& names) {
  for (const std::string& name : names) {
    if (file.find(name) != nullptr) continue;
    ControlReply reply;
    reply.outcome = Outcome::NOT_FOUND;
    context.printRequestError(name, reply, file);
    return true;
  }
  return false;
}

}  // namespace

LogTarget findLogTarget(Context& context,
                        const std::vector<std::string>& arguments) {
  LogTarget target;
  const std::string& log_file = context.settings().logFile;
  if (log_file.empty()) {
    target.status = context.findLauncherProcess();
    if (target.status != kDone) return target;
  } else {
    context.tryLauncherProcess();
  }
  std::string error;
  const LauncherProcess* const known = context.launcher(error);
  target.launcher = known == nullptr ? context.launcherWithoutFile() : *known;
  const bool has_pattern =
      std::any_of(arguments.begin(), arguments.end(), isPattern);
  if (known == nullptr && has_pattern) {
    context.printError(error);
    target.status = kUsage;
    return target;
  }
  target.names = selectNodes(target.launcher.file, arguments, error);
  if (target.names.empty() && !arguments.empty()) {
    context.printError(error);
    target.status = kNoSuchNode;
    return target;
  }
  // A named log can be from another machine, or older than the launch file.
  if (known != nullptr && log_file.empty() &&
      hasUnknown(context, known->file, target.names)) {
    target.status = kNoSuchNode;
    return target;
  }
  const auto log = findLog(target.launcher, log_file, error);
  if (log) {
    target.log = *log;
  } else {
    context.printError(error);
    target.status = kUsage;
  }
  return target;
}

}  // namespace vorn::launch
