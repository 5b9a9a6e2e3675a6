#include "commands/names.h"

#include "output/output.h"

namespace vorn::launch {
namespace {

/// A name on a line. A leading dash is escaped, so that "names | xargs vornctl
/// stop" does not take the name for an option.
OutputText lineFor(const std::string& name) {
  if (name.rfind('-', 0) != 0) return terminalText(name) + "\n";
  return "\\x2d" + terminalText(name.substr(1)) + "\n";
}

}  // namespace

ExitStatus showNames(Context& context, char separator) {
  // With a launch file given no launcher is needed.
  if (context.settings().launchFile.empty()) {
    if (const ExitStatus status = context.findLauncher(); status != kDone) {
      return status;
    }
  }
  std::string error;
  const LauncherProcess* const launcher = context.launcher(error);
  if (launcher == nullptr) {
    context.complain(error);
    return kUsage;
  }
  for (const LaunchNode& node : launcher->file.nodes) {
    standardOutput() << (separator == '\0' ? nulTerminated(node.name)
                                           : lineFor(node.name));
  }
  return kDone;
}

}  // namespace vorn::launch
