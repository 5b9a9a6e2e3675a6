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
      "ready; restarted: running since a later start than now; "
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

void Commands::addWhy() {
  CLI::App* const app = addCommand(
      "why", "Explain the state of a node", [this](Context& context) {
        return explainNode(context, arguments_.why);
      });
  app->add_option("NODE", arguments_.why.node, "The name of a node")
      ->required()
      ->type_name("NAME");
}

void Commands::addHistory() {
  HistoryOptions& options = arguments_.history;
  CLI::App* const app =
      addCommand("history", "Print the starts and exits of nodes, from the log",
                 [this](Context& context) {
                   arguments_.history.nodes = arguments_.nodes;
                   arguments_.history.isJson = arguments_.isJson;
                   return showHistory(context, arguments_.history);
                 });
  addNodes(app, "Names or quoted patterns; all nodes if none are given");
  app->add_flag("--json", arguments_.isJson, "Print JSON");
  app->add_option("-n,--lines", options.exits,
                  "The number of exits, the last ones; default: 100")
      ->type_name("NUMBER");
  app->add_option("--since", readPointInTime(options.sinceUs),
                  "Start at this time, or as long ago, such as 2h")
      ->type_name("TIME");
}

void Commands::addTop() {
  CLI::App* const screen = addCommand(
      "top", "Show all nodes on the whole screen; keys act on them",
      [this](Context& context) { return showTop(context, arguments_.nodes); });
  addNodes(screen, "Names or quoted patterns; all nodes if none are given");
}

void Commands::addPs() {
  CLI::App* const app =
      addCommand("ps", "Show the processes of nodes", [this](Context& context) {
        arguments_.ps.nodes = arguments_.nodes;
        arguments_.ps.isJson = arguments_.isJson;
        return showProcesses(context, arguments_.ps);
      });
  addNodes(app, "Names or quoted patterns; all nodes if none are given");
  app->add_flag("--ports", arguments_.ps.hasPorts,
                "Also show the sockets on which the processes listen");
  app->add_flag("--json", arguments_.isJson, "Print JSON");
}

void Commands::addOrphans() {
  OrphansOptions& options = arguments_.orphans;
  CLI::App* const app = addCommand(
      "orphans", "List processes of earlier launchers and runs of nodes",
      [this](const Context& context) {
        arguments_.orphans.isJson = arguments_.isJson;
        return showOrphans(context, arguments_.orphans);
      });
  auto* const json = app->add_flag("--json", arguments_.isJson, "Print JSON");
  auto* const kill = app->add_flag("--kill", options.isKill,
                                   "Send SIGTERM, and SIGKILL after 10 s")
                         ->excludes(json);
  app->add_flag("-y,--yes", options.isConfirmed, "Do not ask for confirmation")
      ->needs(kill);
}

void Commands::addLogs() {
  LogsOptions& options = arguments_.logs;
  CLI::App* const app = addCommand(
      "logs", "Print the output of nodes, and the launcher's lines about them",
      [this](Context& context) {
        arguments_.logs.nodes = arguments_.nodes;
        return showLogs(context, arguments_.logs);
      });
  addNodes(app, "Names or quoted patterns; the whole log if none are given");
  CLI::Option* const follow =
      app->add_flag("-f,--follow", options.isFollowed,
                    "Print 10 lines, and then new lines as they are written");
  app->add_option("-n,--lines", options.count, "Print only the last N lines")
      ->type_name("N");
  app->add_option("--since", readPointInTime(options.sinceUs),
                  "Print only lines since then: 1h, '2026-11-20 12:34' or "
                  "2026-11-20T12:34:56Z")
      ->type_name("TIME");
  app->add_flag("--previous", options.isPrevious,
                "Print only the last run of each node that has ended")
      ->excludes(follow);
}

void Commands::addCheck() {
  using Options = CheckOptions;
  Options& options = arguments_.check;
  CLI::App* const app = addCommand(
      "check", "Check launch files for errors; needs no launcher",
      [this](const Context& context) {
        if (arguments_.isCheckList) return listChecks();
        if (!arguments_.check.files.empty()) {
          return check(context, arguments_.check);
        }
        context.printError("name a launch file, or - for standard input");
        return kUsage;
      });
  app->add_option("FILE", options.files, "Launch files; - is standard input")
      ->type_name("FILE");
  addCheckOutput(*app);
  app->add_option("--ignore", options.ignored,
                  "Diagnostics to omit, separated by commas")
      ->allow_extra_args(false)
      ->delimiter(',')
      ->type_name("NAME");
  app->add_flag_callback(
      "--host", [&options] { options.host = Options::Host::YES; },
      "Also check programs on this machine; the default for files");
  app->add_flag_callback(
      "--no-host", [&options] { options.host = Options::Host::NO; },
      "Check only the file");
  app->add_flag("--list", arguments_.isCheckList,
                "Print all diagnostics: name, severity, summary");
}

void Commands::addCheckOutput(CLI::App& app) {
  using Options = CheckOptions;
  Options& options = arguments_.check;
  addChoice<Options::Format>(app, "--format", options.format,
                             "Output format; default: text",
                             {{"text", Options::Format::TEXT},
                              {"json", Options::Format::JSON},
                              {"sarif", Options::Format::SARIF},
                              {"github", Options::Format::GITHUB}});
  addChoice<Severity>(
      app, "--fail-on", options.failOn,
      "Lowest severity that makes the exit status 1; default: error",
      {{"error", Severity::ERROR},
       {"warning", Severity::WARNING},
       {"note", Severity::NOTE}});
  addChoice<Options::Print>(
      app, "--print", options.print,
      "Print this; diagnostics are written to standard error",
      {{"resolved", Options::Print::RESOLVED},
       {"timeline", Options::Print::TIMELINE},
       {"stop-timeout", Options::Print::STOP_TIMEOUT}});
}

void Commands::addGraph() {
  GraphOptions& options = arguments_.graph;
  CLI::App* const app =
      addCommand("graph", "Draw the nodes of a launch file; needs no launcher",
                 [this](const Context& context) {
                   return printGraph(context, arguments_.graph);
                 });
  app->add_option("FILE", options.file, "A launch file; - is standard input")
      ->required()
      ->type_name("FILE");
  addChoice<GraphOptions::Format>(*app, "--format", options.format,
                                  "Output format; default: dot",
                                  {{"dot", GraphOptions::Format::DOT},
                                   {"mermaid", GraphOptions::Format::MERMAID},
                                   {"svg", GraphOptions::Format::SVG}});
}

void Commands::addDiff() {
  DiffOptions& options = arguments_.diff;
  CLI::App* const app = addCommand(
      "diff", "Compare launch files, or one with the running processes",
      [this](Context& context) {
        arguments_.diff.isJson = arguments_.isJson;
        return showDifference(context, arguments_.diff);
      });
  app->add_option("FILE", options.files, "The old and the new launch file")
      ->type_name("FILE");
  app->add_flag("--running", options.isRunning,
                "Compare the running processes with one launch file");
  app->add_flag("--json", arguments_.isJson, "Print JSON");
}

void Commands::addImport() {
  ImportOptions& options = arguments_.import;
  CLI::App* const app = addCommand(
      "import",
      "Print a launch file for the configuration of another supervisor",
      [this](const Context& context) {
        return importFiles(context, arguments_.import);
      });
  const std::vector<std::string> formats = importFormats();
  app->add_option("FORMAT", options.format, "The format of the files")
      ->required()
      ->check(CLI::IsMember(formats).description(""))
      ->type_name(CLI::detail::join(formats, "|"));
  app->add_option("FILE", options.files, "The files; - is standard input")
      ->required()
      ->type_name("FILE");
}

void Commands::addDoctor() {
  CLI::App* const app = addCommand(
      "doctor", "Find errors of the installation and of the running launcher",
      [this](Context& context) {
        return examineInstallation(context, arguments_.isJson);
      });
  app->add_flag("--json", arguments_.isJson, "Print JSON");
}

void Commands::addHealth() {
  using Format = HealthOptions::Format;
  HealthOptions& options = arguments_.health;
  CLI::App* const app =
      addCommand("health", "Check that all nodes run, for scripts",
                 [this](const Context& context) {
                   return showHealth(context, arguments_.health);
                 });
  app->add_option("--for", readDuration(options.runFor),
                  "Wait until all nodes have run without a restart for TIME, "
                  "at most --timeout (default: 5m)")
      ->type_name("TIME");
  addChoice<Format>(*app, "--format", options.format,
                    "Output format; default: plain",
                    {{"plain", Format::PLAIN},
                     {"json", Format::JSON},
                     {"nagios", Format::NAGIOS}});
}

void Commands::addApply() {
  ApplyOptions& options = arguments_.apply;
  CLI::App* const app = addCommand(
      "apply", "Replace the launch file of a unit; undo it if a node fails",
      [this](const Context& context) {
        return applyFile(context, arguments_.apply);
      });
  app->add_option("FILE", options.file, "The new launch file")
      ->required()
      ->type_name("FILE");
  app->add_option("--unit", options.unit,
                  "The unit to restart; default: vornlaunch.service")
      ->type_name("NAME");
  app->add_option("--for", readDuration(options.runFor),
                  "Time for which all nodes must run; default: 30s")
      ->type_name("TIME");
  app->add_option("--hook", options.hook,
                  "Run this command of sh first; it refuses by a status other "
                  "than 0")
      ->type_name("COMMAND");
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

void Commands::addReport() {
  ReportOptions& options = arguments_.report;
  CLI::App* const app =
      addCommand("report", "Write an HTML file with everything about a problem",
                 [this](Context& context) {
                   return writeReport(context, arguments_.report);
                 });
  app->add_option("-o,--output", options.output,
                  "The file, which is replaced if it exists; - is standard "
                  "output; default: a new file in this directory")
      ->type_name("FILE");
  app->add_option(
         "--since", readPointInTime(options.sinceUs),
         "The begin of the timeline and the log: a duration before now or "
         "a date and time; default: 12h")
      ->type_name("TIME");
  app->add_flag("--with-environment", options.hasEnvironment,
                "Also include the values of variables");
}

void Commands::addMetrics() {
  MetricsOptions& options = arguments_.metrics;
  CLI::App* const app =
      addCommand("metrics", "Print metrics of the nodes for Prometheus",
                 [this](Context& context) {
                   return writeMetrics(context, arguments_.metrics);
                 });
  app->add_option("-o,--output", options.output,
                  "Replace this file, such as one of node-exporter's textfile "
                  "directory; default: standard output")
      ->type_name("FILE");
  addChoice<MetricsFormat>(*app, "--format", options.format,
                           "Output format; default: prometheus",
                           {{"prometheus", MetricsFormat::PROMETHEUS},
                            {"openmetrics", MetricsFormat::OPENMETRICS}});
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
