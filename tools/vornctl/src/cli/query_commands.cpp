// The commands that explain the launcher and its nodes.

#include "cli/commands.h"
#include "cli/options.h"
#include "commands/doctor.h"

namespace vorn::launch {

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
                  "Print only the last NUMBER exits; default: 100")
      ->type_name("NUMBER");
  app->add_option("--since", readPointInTime(options.sinceUs),
                  "Start at this time, or as long ago, such as 2h")
      ->type_name("TIME");
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

void Commands::addDoctor() {
  CLI::App* const app = addCommand(
      "doctor", "Find errors in the installation and the running launcher",
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
         "The start of the timeline and the log: a duration before now or "
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
                  "Replace this file, such as one in node-exporter's textfile "
                  "directory; default: standard output")
      ->type_name("FILE");
  addChoice<MetricsFormat>(*app, "--format", options.format,
                           "Output format; default: prometheus",
                           {{"prometheus", MetricsFormat::PROMETHEUS},
                            {"openmetrics", MetricsFormat::OPENMETRICS}});
}

}  // namespace vorn::launch
