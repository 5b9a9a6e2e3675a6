#include "cli/commands.h"

#include <utility>
#include <vector>

#include "cli/help.h"
#include "cli/options.h"
#include "commands/completion.h"
#include "commands/doctor.h"
#include "commands/names.h"
#include "commands/ping.h"
#include "commands/top.h"
#include "live/node_cells.h"
#include "output/output.h"

namespace vorn::launch {
namespace {

std::vector<std::string> columnNames() {
  std::vector<std::string> names;
  for (const Column& column : statusColumns()) names.push_back(column.name);
  names.emplace_back(kAllColumns);
  return names;
}

}  // namespace

Commands::Commands(CLI::App& app) : app_(app) {
  addCommonOptions();
  addStatus();
  addActions();
  addWait();
  addMonitor();
  addWhy();
  addHistory();
  addTop();
  addPs();
  addOrphans();
  addLogs();
  addCheck();
  addGraph();
  addDiff();
  addImport();
  addDoctor();
  addHealth();
  addApply();
  addCommand("ping", "Check that a launcher answers",
             [](Context& context) { return ping(context); });
  addNames();
  addReport();
  addMetrics();
  addHelpers();
}

void Commands::addCommonOptions() {
  Settings& settings = arguments_.settings;
  app_.add_option("--launch-file", settings.launchFile,
                  "Read the names of the nodes from this file, not from the "
                  "launcher's own")
      ->envname("VORNCTL_LAUNCH_FILE")
      ->type_name("FILE");
  app_.add_option("--log", settings.logFile,
                  "Read the launcher's log from this file, directory of a "
                  "journal, or - for standard input; default: the destination "
                  "of its standard error")
      ->type_name("FILE");
  app_.add_option("--timeout", readDuration(settings.replyLimit),
                  "Time limit for each reply; default: twice the longest "
                  "time that the launch file makes possible, plus 30 s")
      ->type_name("TIME");
  app_.add_option("--connect-timeout", readDuration(settings.connectLimit),
                  "Time limit for the first answer of a busy launcher; "
                  "default: the value of --timeout")
      ->type_name("TIME");
  app_.add_option("--socket", settings.socketPath,
                  "The launcher's control socket")
      ->type_name("PATH");
  app_.add_flag("--trust-any-user", settings.trustAnyUser,
                "Connect even to a launcher of a user other than root and "
                "yourself");
  addChoice<ColourMode>(app_, "--color", arguments_.colour,
                        "Use of colours; auto (default): on a terminal",
                        {{"auto", ColourMode::AUTO},
                         {"always", ColourMode::ALWAYS},
                         {"never", ColourMode::NEVER}});
  app_.add_flag("-q,--quiet", settings.isQuiet, "Print errors only");
}

CLI::App* Commands::addCommand(const std::string& name,
                               const std::string& description,
                               std::function<ExitStatus(Context&)> command) {
  CLI::App* const app = app_.add_subcommand(name, description);
  app->footer(helpFooter(name));
  app->callback([this, command = std::move(command)] {
    command_ = [this, command] {
      Context context(arguments_.settings);
      return command(context);
    };
  });
  return app;
}

CLI::Option* Commands::addNodes(CLI::App* app, const std::string& description) {
  return app->add_option("NODE", arguments_.nodes, description)
      ->type_name("NAME|PATTERN");
}

void Commands::addStatus() {
  CLI::App* const app =
      addCommand("status", "Show node status", [this](Context& context) {
        arguments_.status.nodes = arguments_.nodes;
        arguments_.status.isJson = arguments_.isJson;
        arguments_.status.columns = expandColumns(arguments_.status.columns);
        return showStatus(context, arguments_.status);
      });
  StatusOptions& options = arguments_.status;
  addNodes(app, "Names or quoted patterns; all nodes if none are given");
  auto* const json = app->add_flag("--json", arguments_.isJson, "Print JSON");
  app->add_flag("--plain", options.isPlain,
                "Print tabs between columns, and only words and numbers")
      ->excludes(json);
  app->add_flag_callback(
      "--no-header", [&options] { options.hasHeader = false; },
      "Omit the column titles");
  app->add_flag("--failed", options.isFailedOnly,
                "Show only failed nodes: restarting, in a crash loop, failed "
                "oneshots, or not startable");
  app->add_option("-o,--columns", options.columns,
                  "Columns to show, separated by commas, or wide for all; see "
                  "below")
      ->delimiter(',')
      ->allow_extra_args(false)  // the next argument is a node
      ->check(CLI::IsMember(columnNames()).description(""))
      ->type_name("COLUMNS")
      ->excludes(json);
}

void Commands::addAction(ControlRequest::Cmd cmd, const std::string& name,
                         const std::string& description) {
  ActOptions& options = arguments_.act;
  CLI::App* const app =
      addCommand(name, description, [this, cmd](Context& context) {
        arguments_.act.cmd = cmd;
        arguments_.act.nodes = arguments_.nodes;
        if (arguments_.nodes.empty() != arguments_.act.isAll) {
          context.printError(
              arguments_.act.isAll
                  ? "--all cannot be combined with names of nodes"
                  : "name a node or use --all");
          return kUsage;
        }
        return act(context, arguments_.act);
      });
  addNodes(app, "Names or quoted patterns");
  app->add_flag("--all", options.isAll, "All nodes of the launch file");
  app->add_option("--reason", readReason(options.reason),
                  "The reason, for the record of actions")
      ->type_name("TEXT");
  if (cmd == ControlRequest::Cmd::STOP || cmd == ControlRequest::Cmd::DISABLE) {
    app->add_flag("-y,--yes", options.isConfirmed,
                  "Do not ask for confirmation");
  }
  if (cmd == ControlRequest::Cmd::ENABLE) {
    app->add_flag("--now", options.isStartedToo, "Also start the nodes");
  }
}

void Commands::addActions() {
  addAction(ControlRequest::Cmd::START, "start", "Start nodes");
  addAction(ControlRequest::Cmd::STOP, "stop",
            "Stop nodes; the running nodes that they require restart");
  addAction(ControlRequest::Cmd::RESTART, "restart",
            "Stop nodes if they run, and start them");
  addAction(ControlRequest::Cmd::ENABLE, "enable",
            "Allow nodes to be started; starts nothing without --now");
  addAction(ControlRequest::Cmd::DISABLE, "disable",
            "Stop nodes and refuse their starts");
}

void Commands::addWait() {
  WaitOptions& options = arguments_.wait;
  CLI::App* const app = addCommand(
      "wait", "Wait for nodes to reach a state", [this](Context& context) {
        arguments_.wait.nodes = arguments_.nodes;
        arguments_.wait.limit = arguments_.settings.replyLimit;
        return waitForNodes(context, arguments_.wait);
      });
  addNodes(app, "Names or quoted patterns")->required();
  addChoice<WaitOptions::Goal>(
      *app, "--state", options.goal,
      "The state to wait for; ready: running and, if vornrun checks that, "
      "ready; restarted: running, and started after this command; "
      "succeeded: a oneshot that exited with status 0",
      {{"running", WaitOptions::Goal::RUNNING},
       {"ready", WaitOptions::Goal::READY},
       {"stopped", WaitOptions::Goal::STOPPED},
       {"disabled", WaitOptions::Goal::DISABLED},
       {"restarted", WaitOptions::Goal::RESTARTED},
       {"succeeded", WaitOptions::Goal::SUCCEEDED}})
      ->required();
  app->add_option("--for", readDuration(options.heldFor),
                  "Time for which the state must last")
      ->type_name("TIME");
}

void Commands::addMonitor() {
  CLI::App* const watch =
      addCommand("monitor", "Print a line for each change of a node",
                 [this](Context& context) {
                   return monitor(context, arguments_.nodes, arguments_.isJson);
                 });
  addNodes(watch, "Names or quoted patterns; all nodes if none are given");
  watch->add_flag("--json", arguments_.isJson,
                  "Print one JSON document per line");
}

void Commands::addTop() {
  CLI::App* const screen = addCommand(
      "top", "Show all nodes on the whole screen; keys act on them",
      [this](Context& context) { return showTop(context, arguments_.nodes); });
  addNodes(screen, "Names or quoted patterns; all nodes if none are given");
}

void Commands::addNames() {
  CLI::App* const names = addCommand(
      "names", "Print the names of the nodes in the launch file",
      [this](Context& context) {
        return showNames(context, arguments_.isNulSeparated ? '\0' : '\n');
      });
  names->add_flag("-0,--null", arguments_.isNulSeparated,
                  "End each name with NUL instead of a newline");
}

void Commands::addHelpers() {
  CLI::App* const completion = addCommand(
      "completion", "Print a script for tab completion", [this](Context&) {
        standardOutput() << completionScript(arguments_.shell);
        return kDone;
      });
  completion->add_option("SHELL", arguments_.shell, "The shell")
      ->required()
      ->check(CLI::IsMember({"bash", "zsh", "fish"}).description(""))
      ->type_name("bash|zsh|fish");
  CLI::App* const help = addCommand(
      "help", "Show this text, or the help of a command",
      [this](Context&) { return printHelp(app_, arguments_.topic); });
  help->add_option("COMMAND", arguments_.topic, "A command")
      ->type_name("COMMAND");
}

}  // namespace vorn::launch
