#include "commands/names.h"

#include "output/output.h"

namespace vorn::launch {
namespace {

/// The name as a line. A dash at the start or after a space is escaped, which
/// makes it less likely that a command parses a part of the name as an option.
OutputText lineFor(const std::string& name) {
  OutputText line;
  size_t begin = 0;
  for (size_t dash = name.find('-'); dash != std::string::npos;
       dash = name.find('-', dash + 1)) {
    if (dash > 0 && name[dash - 1] != ' ') continue;
    line += terminalText(name.substr(begin, dash - begin)) + "\\x2d";
    begin = dash + 1;
  }
  return line + terminalText(name.substr(begin)) + "\n";
}

}  // namespace

ExitStatus showNames(Context& context, char separator) {
  // The option --launch-file makes a launcher unnecessary.
  if (context.settings().launchFile.empty()) {
    if (const ExitStatus status = context.findLauncher(); status != kDone) {
      return status;
    }
  }
  std::string error;
  const LauncherProcess* const launcher = context.launcher(error);
  if (launcher == nullptr) {
    context.printError(error);
    return kUsage;
  }
  for (const LaunchFile::Node& node : launcher->file.nodes) {
    standardOutput() << (separator == '\0' ? nulTerminated(node.name.value)
                                           : lineFor(node.name.value));
  }
  return kDone;
}

}  // namespace vorn::launch
