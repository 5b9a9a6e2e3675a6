// The commands on launch files.

#include <vector>

#include "cli/commands.h"
#include "cli/options.h"

namespace vorn::launch {

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
                  "Run this shell command first; a nonzero exit status refuses "
                  "the change")
      ->type_name("COMMAND");
}

}  // namespace vorn::launch
