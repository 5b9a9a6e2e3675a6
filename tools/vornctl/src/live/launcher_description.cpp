#include "live/launcher_description.h"

#include <vector>

#include "live/node_status.h"
#include "output/table.h"

namespace vorn::launch {

std::string launcherName(const LauncherProcess& launcher) {
  return launcher.pid == 0 ? "launcher in another pid namespace"
                           : "launcher " + std::to_string(launcher.pid);
}

Json launcherJson(const LauncherProcess& launcher) {
  return {{"pid", launcher.pid},
          {"startSeconds", orNull(launcher.startSeconds)},
          {"launchFile",
           launcher.launchFile.empty() ? Json() : Json(launcher.launchFile)},
          {"launchFileChanged", launcher.hasChanged}};
}

OutputText describeLauncher(const LauncherProcess& launcher,
                            const std::string& begin, size_t terminal_width) {
  std::vector<OutputText> parts = {terminalText(begin)};
  if (!launcher.launchFile.empty()) {
    parts.push_back("launch file " + terminalText(launcher.launchFile));
  }
  if (launcher.startSeconds != 0) {
    parts.push_back("since " + terminalText(formatTime(launcher.startSeconds)));
  }
  OutputText line;
  OutputText lines;
  for (const OutputText& part : parts) {
    if (!line.empty()) line += ", ";
    line += part;
    if (!lines.empty()) lines += "\n";
    lines += truncated(part, terminal_width);
  }
  const bool fits = terminal_width == 0 || displayWidth(line) <= terminal_width;
  return fits ? line : lines;
}

}  // namespace vorn::launch
