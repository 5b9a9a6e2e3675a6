#pragma once

#include <functional>
#include <string>

#include <CLI/CLI.hpp>

#include "cli/arguments.h"
#include "context/exit_status.h"

namespace vorn::launch {

/// The commands of vornctl and their options, as CLI11 parses them.
class Commands {
 public:
  /// Adds the commands to `app`, which is borrowed.
  explicit Commands(CLI::App& app);

  /// The content of the command line, once `app` has parsed it.
  Arguments& arguments() { return arguments_; }

  /// Runs the command that `app` has parsed.
  ExitStatus run() { return command_(); }

 private:
  void addCommonOptions();
  CLI::App* addCommand(const std::string& name, const std::string& description,
                       std::function<ExitStatus(Context&)> command);
  CLI::Option* addNodes(CLI::App* app, const std::string& description);
  void addStatus();
  void addAction(ControlRequest::Cmd cmd, const std::string& name,
                 const std::string& description);
  void addActions();
  void addWait();
  void addMonitor();
  void addHistory();
  void addWhy();
  void addTop();
  void addPs();
  void addOrphans();
  void addCheck();
  void addCheckOutput(CLI::App& app);
  void addDiff();
  void addDoctor();
  void addGraph();
  void addImport();
  void addLogs();
  void addNames();
  void addReport();
  void addMetrics();
  void addHealth();
  void addApply();
  void addHelpers();

  CLI::App& app_;
  Arguments arguments_;
  std::function<ExitStatus()> command_;
};

}  // namespace vorn::launch
