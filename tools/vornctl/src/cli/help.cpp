#include "cli/help.h"

#include <algorithm>
#include <map>
#include <sstream>

#include "cli/usage_errors.h"
#include "live/node_cells.h"
#include "output/output.h"

namespace vorn::launch {
namespace {

/// Two command lines for a command, without "vornctl".
struct Examples {
  const char* first;
  const char* second;
};

const std::map<std::string, Examples>& examples() {
  static const std::map<std::string, Examples> all = {
      {"status", {"status", "status --json camera 'cam_*'"}},
      {"start", {"start camera", "start --all"}},
      {"stop",
       {"stop camera recorder", "stop --all --reason 'new calibration'"}},
      {"restart", {"restart camera", "restart 'cam_*'"}},
      {"enable", {"enable camera", "enable --now camera"}},
      {"disable", {"disable camera", "disable --all --yes"}},
      {"wait",
       {"wait camera --state running --for 10s --timeout 1m",
        "wait 'cam_*' --state stopped"}},
      {"monitor", {"monitor", "monitor --json camera"}},
      {"why", {"why camera", "why camera --log launcher.log"}},
      {"history", {"history camera", "history --since 2h --json"}},
      {"top", {"top", "top 'cam_*'"}},
      {"ps", {"ps", "ps --ports camera"}},
      {"orphans", {"orphans", "orphans --kill --yes"}},
      {"apply",
       {"apply new.yaml", "apply --unit vornlaunch@robot --for 1m new.yaml"}},
      {"check",
       {"check launch.yaml", "check --no-host --fail-on warning launch.yaml"}},
      {"graph", {"graph launch.yaml", "graph --format mermaid launch.yaml"}},
      {"diff", {"diff launch.yaml new.yaml", "diff --running launch.yaml"}},
      {"import",
       {"import supervisord supervisord.conf",
        "import systemd camera.service planner.service"}},
      {"logs", {"logs -f camera", "logs --since 1h --log /var/log/launch.log"}},
      {"doctor", {"doctor", "doctor --json"}},
      {"health", {"health --format json", "health --for 1s --timeout 1s"}},
      {"ping", {"ping", "ping --quiet --timeout 5s"}},
      {"names", {"names", "names --null --launch-file launch.yaml"}},
      {"report",
       {"report",
        "report -o report.html --since 2h --launch-file launch.yaml"}},
      {"metrics",
       {"metrics", "metrics --output /tmp/vornlaunch.prom --timeout 30s"}},
      {"completion", {"completion bash", "completion fish"}},
      {"help", {"help", "help status"}},
  };
  return all;
}

std::string columnHelp() {
  size_t width = 0;
  for (const Column& column : statusColumns()) {
    width = std::max(width, column.name.size());
  }
  std::string help = "Columns:";
  for (const Column& column : statusColumns()) {
    help += "\n  " + column.name +
            std::string(width - column.name.size() + 2, ' ') +
            column.description;
  }
  return help + "\n\n";
}

}  // namespace

std::string helpFooter(const std::string& command) {
  const Examples& lines = examples().at(command);
  std::string footer = command == "status" ? columnHelp() : "";
  footer += "Examples:\n  vornctl " + std::string(lines.first) +
            "\n  vornctl " + lines.second + "\n\n";
  return footer + exitStatusHelp(command) +
         "\n\n'vornctl --help' lists the options of every command.";
}

ExitStatus printHelp(const CLI::App& app, const std::string& topic) {
  const CLI::App* const command =
      topic.empty() ? nullptr : findCommand(app, topic);
  if (command == nullptr && !topic.empty()) {
    printUnknownCommand(app, topic);
    return kUsage;
  }
  const CLI::App* const subject = command == nullptr ? &app : command;
  // Not subject->help(), which is that of the command "help".
  std::istringstream help(subject->get_formatter()->make_help(
      subject, topic.empty() ? "vornctl" : "vornctl " + topic,
      CLI::AppFormatMode::Normal));
  for (std::string line; std::getline(help, line);) {
    standardOutput() << terminalText(line) << "\n";
  }
  return kDone;
}

}  // namespace vorn::launch
