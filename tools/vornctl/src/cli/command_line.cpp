#include "cli/command_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/help.h"
#include "commands/check.h"
#include "commands/completion.h"
#include "commands/graph.h"
#include "commands/names.h"
#include "commands/ping.h"
#include "commands/start_stop.h"
#include "commands/status.h"
#include "commands/top.h"
#include "commands/wait.h"
#include "live/node_cells.h"
#include "output/duration.h"
#include "output/edit_distance.h"
#include "output/output.h"
#include "vornctl_version.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

constexpr char kTryHelp[] = "Try 'vornctl --help'.\n";

enum class ColourMode { AUTO, ALWAYS, NEVER };

/// What the command line says.
struct Arguments {
  Settings settings;
  ColourMode colour = ColourMode::AUTO;
  std::vector<std::string> nodes;
  ActOptions act;
  StatusOptions status;
  WaitOptions wait;
  CheckOptions check;
  bool isCheckList = false;
  GraphOptions graph;
  bool isJson = false;
  bool isNulSeparated = false;
  std::string shell;
  std::string topic;  // of help
};

/// CLI11 takes "[a,b]" for a list of two. With this in front it does not.
constexpr char kNoList = '\x01';

/// The arguments, those that need it with kNoList, in CLI11's order: the last
/// one first.
std::vector<std::string> protectedArguments(int argc, char** argv) {
  std::vector<std::string> arguments;
  for (int i = argc - 1; i > 0; --i) {
    std::string argument = argv[i];
    if (argument[0] == '[' || argument[0] == kNoList) {
      argument.insert(argument.begin(), kNoList);
    }
    arguments.push_back(std::move(argument));
  }
  return arguments;
}

void unprotect(std::string& argument) {
  if (!argument.empty() && argument[0] == kNoList) argument.erase(0, 1);
}

/// A value of type `Target` that parseDuration() reads.
template <typename Target>
CLI::callback_t readDuration(Target& target) {
  return [&target](const CLI::results_t& texts) {
    const auto span = parseDuration(texts.back());
    if (!span)
      throw CLI::ValidationError("'" + texts.back() +
                                 "' is not a duration; write 10s, 500ms, "
                                 "1.5m or 2h");
    target = *span;
    return true;
  };
}

/// The values of an option, in the order of its help.
template <typename Value>
using Words = std::vector<std::pair<std::string, Value>>;

template <typename Value>
std::string joined(const Words<Value>& words, const std::string& separator) {
  std::string text;
  for (const auto& word : words) {
    text += (text.empty() ? "" : separator) + word.first;
  }
  return text;
}

/// Adds an option whose value is one of these words; the help lists them.
template <typename Value>
CLI::Option* addChoice(CLI::App& app, const std::string& option, Value& target,
                       const std::string& description,
                       const Words<Value>& words) {
  const auto read = [option, &target, words](const CLI::results_t& texts) {
    for (const auto& [word, value] : words) {
      if (word != texts.back()) continue;
      target = value;
      return true;
    }
    throw CLI::ValidationError(
        option, "'" + texts.back() + "' is none of " + joined(words, ", "));
  };
  return app.add_option(option, read, description)
      ->type_name(joined(words, "|"));
}

bool mayColour(ColourMode mode) {
  if (mode != ColourMode::AUTO) return mode == ColourMode::ALWAYS;
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr &&
         terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

/// The columns of the terminal at standard output; 0 if there is none.
size_t terminalWidth() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

std::vector<std::string> columnNames() {
  std::vector<std::string> names;
  for (const Column& column : statusColumns()) names.push_back(column.name);
  return names;
}

/// The command line of vornctl.
class CommandLine {
 public:
  explicit CommandLine(int cancel_fd) {
    arguments_.settings.cancelFd = cancel_fd;
    app_.require_subcommand(1);
    app_.set_version_flag("--version", "vornctl " VORNCTL_VERSION);
    app_.set_help_flag("-h,--help", "Show this text");
    app_.fallthrough();
    addCommonOptions();
    addStatus();
    addAction(ControlRequest::Cmd::START, "start", "Start nodes");
    addAction(ControlRequest::Cmd::STOP, "stop",
              "Stop nodes; the running nodes that they require restart");
    addAction(ControlRequest::Cmd::RESTART, "restart",
              "Stop nodes if they run, and start them");
    addAction(ControlRequest::Cmd::ENABLE, "enable",
              "Allow nodes to be started; starts nothing without --now");
    addAction(ControlRequest::Cmd::DISABLE, "disable",
              "Stop nodes and refuse their starts");
    addWait();
    addWatching();
    addCheck();
    addGraph();
    addHelpers();
    app_.footer(exitStatusHelp("") +
                "\n\n'vornctl help COMMAND' has examples.");
  }

  int run(int argc, char** argv) {
    try {
      std::vector<std::string> arguments = protectedArguments(argc, argv);
      if (!moveCommandToFront(arguments)) return kUsage;
      app_.parse(std::move(arguments));
    } catch (const CLI::Success& wish) {
      return app_.exit(wish);  // help or version
    } catch (const CLI::ParseError& error) {
      standardError() << "vornctl: " << terminalText(describe(error)) << "\n"
                      << kTryHelp;
      return kUsage;
    }
    Settings& settings = arguments_.settings;
    unprotect(settings.launchFile);
    unprotect(settings.socketPath);
    for (std::string& node : arguments_.nodes) unprotect(node);
    if (settings.launchFile == "-") {
      standardError() << "vornctl: --launch-file: standard input cannot be the "
                         "launch file of a running launcher; name the file\n";
      return kUsage;
    }
    settings.hasColours = mayColour(arguments_.colour);
    settings.terminalWidth = terminalWidth();
    settings.isInteractive =
        ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
    const int status = command_();
    Output out = standardOutput();
    out.flush();
    if (!out.isGood()) {
      standardError() << "vornctl: cannot write to standard output\n";
      return status == kDone ? kFailed : status;
    }
    return status;
  }

 private:
  void addCommonOptions() {
    Settings& settings = arguments_.settings;
    app_.add_option("--launch-file", settings.launchFile,
                    "Read the names of the nodes here, not in the file that "
                    "the launcher was started with")
        ->envname("VORNCTL_LAUNCH_FILE")
        ->type_name("FILE");
    app_.add_option("--timeout", readDuration(settings.replyLimit),
                    "How long to wait for each reply; by default twice what "
                    "the launch file makes possible, and 30 s")
        ->type_name("TIME");
    app_.add_option("--connect-timeout", readDuration(settings.connectLimit),
                    "How long to wait for the first answer of a busy launcher; "
                    "default: as --timeout")
        ->type_name("TIME");
    app_.add_option("--socket", settings.socketPath,
                    "The launcher's control socket")
        ->type_name("PATH");
    app_.add_flag("--trust-any-user", settings.trustAnyUser,
                  "Talk to a launcher that is neither root's nor yours");
    addChoice<ColourMode>(app_, "--color", arguments_.colour,
                          "When to use colours; auto (default): on a terminal",
                          {{"auto", ColourMode::AUTO},
                           {"always", ColourMode::ALWAYS},
                           {"never", ColourMode::NEVER}});
    app_.add_flag("-q,--quiet", settings.isQuiet, "Print errors only");
  }

  CLI::App* addCommand(const std::string& name, const std::string& what,
                       std::function<ExitStatus(Context&)> command) {
    CLI::App* const app = app_.add_subcommand(name, what);
    app->footer(helpFooter(name));
    app->callback([this, command = std::move(command)] {
      command_ = [this, command] {
        Context context(arguments_.settings);
        return command(context);
      };
    });
    return app;
  }

  CLI::Option* addNodes(CLI::App* app, const std::string& what) {
    return app->add_option("NODE", arguments_.nodes, what)
        ->type_name("NAME|PATTERN");
  }

  void addStatus() {
    CLI::App* const app =
        addCommand("status", "Show node status", [this](Context& context) {
          arguments_.status.nodes = arguments_.nodes;
          arguments_.status.isJson = arguments_.isJson;
          return showStatus(context, arguments_.status);
        });
    StatusOptions& options = arguments_.status;
    addNodes(app, "Names or quoted patterns; all nodes if none are given");
    auto* const json = app->add_flag("--json", arguments_.isJson, "Print JSON");
    app->add_flag("--plain", options.isPlain,
                  "Tabs between columns, bare words and numbers")
        ->excludes(json);
    app->add_flag_callback(
        "--no-header", [&options] { options.hasHeader = false; },
        "No line of titles");
    app->add_option("-o,--columns", options.columns,
                    "Columns to show, separated by commas; see below")
        ->delimiter(',')
        ->allow_extra_args(false)  // what follows is a node
        ->check(CLI::IsMember(columnNames()).description(""))
        ->type_name("COLUMNS")
        ->excludes(json);
  }

  void addAction(ControlRequest::Cmd cmd, const std::string& name,
                 const std::string& what) {
    ActOptions& options = arguments_.act;
    CLI::App* const app = addCommand(name, what, [this, cmd](Context& context) {
      arguments_.act.cmd = cmd;
      arguments_.act.nodes = arguments_.nodes;
      if (arguments_.nodes.empty() != arguments_.act.isAll) {
        context.complain(arguments_.act.isAll ? "--all leaves no nodes to name"
                                              : "name a node, or say --all");
        return kUsage;
      }
      return act(context, arguments_.act);
    });
    addNodes(app, "Names or quoted patterns");
    app->add_flag("--all", options.isAll, "Every node of the launch file");
    if (cmd == ControlRequest::Cmd::STOP ||
        cmd == ControlRequest::Cmd::DISABLE) {
      app->add_flag("-y,--yes", options.isConfirmed,
                    "Do not ask before acting on all");
    }
    if (cmd == ControlRequest::Cmd::ENABLE) {
      app->add_flag("--now", options.isStartedToo, "Start them as well");
    }
  }

  void addWait() {
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
        "The state to wait for; restarted: running with another start than now",
        {{"running", WaitOptions::Goal::RUNNING},
         {"stopped", WaitOptions::Goal::STOPPED},
         {"disabled", WaitOptions::Goal::DISABLED},
         {"restarted", WaitOptions::Goal::RESTARTED}})
        ->required();
    app->add_option("--for", readDuration(options.heldFor),
                    "How long it must last")
        ->type_name("TIME");
  }

  void addWatching() {
    CLI::App* const watch = addCommand(
        "monitor", "Print a line for each change of a node",
        [this](Context& context) {
          return monitor(context, arguments_.nodes, arguments_.isJson);
        });
    addNodes(watch, "Names or quoted patterns; all nodes if none are given");
    watch->add_flag("--json", arguments_.isJson, "A JSON document a line");
    CLI::App* const screen =
        addCommand("top", "Show all nodes on the whole screen, and act on them",
                   [this](Context& context) {
                     return showTop(context, arguments_.nodes);
                   });
    addNodes(screen, "Names or quoted patterns; all nodes if none are given");
  }

  void addCheck() {
    using Options = CheckOptions;
    Options& options = arguments_.check;
    CLI::App* const app = addCommand(
        "check", "Say what is wrong with launch files; needs no launcher",
        [this](Context& context) {
          for (std::string& file : arguments_.check.files) unprotect(file);
          if (arguments_.isCheckList) return listChecks();
          if (!arguments_.check.files.empty()) {
            return check(context, arguments_.check);
          }
          context.complain("name a launch file, or - for standard input");
          return kUsage;
        });
    app->add_option("FILE", options.files, "Launch files; - is standard input")
        ->type_name("FILE");
    addChoice<Options::Format>(*app, "--format", options.format,
                               "Output format; default: text",
                               {{"text", Options::Format::TEXT},
                                {"json", Options::Format::JSON},
                                {"sarif", Options::Format::SARIF},
                                {"github", Options::Format::GITHUB}});
    addChoice<Severity>(
        *app, "--fail-on", options.failOn,
        "Lowest severity that makes the exit status 1; default: error",
        {{"error", Severity::ERROR},
         {"warning", Severity::WARNING},
         {"note", Severity::NOTE}});
    addChoice<Options::Print>(
        *app, "--print", options.print,
        "Print this instead; problems go to standard error",
        {{"resolved", Options::Print::RESOLVED},
         {"timeline", Options::Print::TIMELINE},
         {"stop-timeout", Options::Print::STOP_TIMEOUT}});
    app->add_option("--ignore", options.ignored, "Findings to leave out")
        ->allow_extra_args(false)
        ->delimiter(',')
        ->type_name("NAME");
    app->add_flag_callback(
        "--host", [&options] { options.host = Options::Host::YES; },
        "Look at this machine, too; the default for files");
    app->add_flag_callback(
        "--no-host", [&options] { options.host = Options::Host::NO; },
        "Look at the file alone");
    app->add_flag("--list", arguments_.isCheckList,
                  "Print what can be found: name, severity, summary");
  }

  void addGraph() {
    GraphOptions& options = arguments_.graph;
    CLI::App* const app = addCommand(
        "graph", "Draw the nodes of a launch file; needs no launcher",
        [this](Context& context) {
          unprotect(arguments_.graph.file);
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

  void addHelpers() {
    addCommand("ping", "Tell whether a launcher answers",
               [](Context& context) { return ping(context); });
    CLI::App* const names = addCommand(
        "names", "Print the names of the nodes in the launch file",
        [this](Context& context) {
          return showNames(context, arguments_.isNulSeparated ? '\0' : '\n');
        });
    names->add_flag("-0,--null", arguments_.isNulSeparated,
                    "A NUL after each name, not a new line");
    CLI::App* const completion = addCommand(
        "completion", "Print a script for tab completion", [this](Context&) {
          standardOutput() << completionScript(arguments_.shell);
          return kDone;
        });
    completion->add_option("SHELL", arguments_.shell, "The shell")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish"}).description(""))
        ->type_name("bash|zsh|fish");
    CLI::App* const help =
        addCommand("help", "Show this text, or that of a command",
                   [this](Context&) { return showHelp(); });
    help->add_option("COMMAND", arguments_.topic, "A command")
        ->type_name("COMMAND");
  }

  /// The option of this name, of all commands or of any one.
  const CLI::Option* findOption(const std::string& name) const {
    if (const CLI::Option* const own = app_.get_option_no_throw(name)) {
      return own;
    }
    for (const CLI::App* const command : app_.get_subcommands({})) {
      if (const auto* const found = command->get_option_no_throw(name)) {
        return found;
      }
    }
    return nullptr;
  }

  bool takesValue(const std::string& name) const {
    const CLI::Option* const option = findOption(name);
    return option != nullptr && option->get_expected_max() > 0;
  }

  /// Whether the value of this option, such as --color or the last letter of
  /// -qo, is the next argument.
  bool isValueNext(const std::string& option) const {
    if (option.rfind("--", 0) == 0) return takesValue(option);
    for (size_t i = 1; i < option.size(); ++i) {
      const char letter[] = {'-', option[i], '\0'};
      if (takesValue(letter)) return i + 1 == option.size();
    }
    return false;
  }

  /// Moves the command, before which any of its options may be given, to the
  /// front, which CLI11 needs. False, with a message, if there is no such
  /// command. The arguments are in CLI11's order.
  bool moveCommandToFront(std::vector<std::string>& arguments) const {
    for (auto each = arguments.rbegin(); each != arguments.rend(); ++each) {
      if (*each == "--") return true;
      if (each->size() > 1 && each->front() == '-') {
        if (isValueNext(*each) && std::next(each) != arguments.rend()) ++each;
        continue;
      }
      if (!isCommand(*each)) return complainAboutCommand(*each);
      std::rotate(arguments.rbegin(), each, std::next(each));
      return true;
    }
    return true;
  }

  std::vector<std::string> commandNames() const {
    std::vector<std::string> names;
    for (const CLI::App* const command : app_.get_subcommands({})) {
      names.push_back(command->get_name());
    }
    return names;
  }

  bool isCommand(const std::string& word) const {
    const auto names = commandNames();
    return std::find(names.begin(), names.end(), word) != names.end();
  }

  /// The message for an invalid command line. CLI11 reports a missing command
  /// before options that it does not know.
  std::string describe(const CLI::ParseError& error) const {
    const bool lacks_command =
        dynamic_cast<const CLI::RequiredError*>(&error) != nullptr &&
        app_.get_subcommands().empty();
    if (!lacks_command) return error.what();
    const std::vector<std::string> rest = app_.remaining();
    if (rest.empty()) return "no command given";
    for (const std::string& option : rest) {
      const std::string name = option.substr(0, option.find('='));
      if (findOption(name) != nullptr) continue;
      return "unknown option '" + option + "'";
    }
    return "no command given for '" + rest.front() + "'";
  }

  /// Always false.
  bool complainAboutCommand(std::string word) const {
    unprotect(word);
    std::string text = "unknown command '" + word + "'";
    const std::string nearest = nearestOf(commandNames(), word);
    if (!nearest.empty()) text += "; did you mean '" + nearest + "'?";
    standardError() << "vornctl: " << terminalText(text) << "\n" << kTryHelp;
    return false;
  }

  ExitStatus showHelp() {
    const std::string& topic = arguments_.topic;
    const auto found = app_.get_subcommands(
        [&](const CLI::App* each) { return each->get_name() == topic; });
    if (found.empty() && !topic.empty()) {
      (void)complainAboutCommand(topic);
      return kUsage;
    }
    const CLI::App* const app = found.empty() ? &app_ : found.front();
    // Not app->help(), which is that of the command "help".
    std::istringstream help(app->get_formatter()->make_help(
        app, found.empty() ? "vornctl" : "vornctl " + topic,
        CLI::AppFormatMode::Normal));
    for (std::string line; std::getline(help, line);) {
      standardOutput() << terminalText(line) << "\n";
    }
    return kDone;
  }

  CLI::App app_{"Controls a running vornlaunch", "vornctl"};
  Arguments arguments_;
  std::function<ExitStatus()> command_;
};

}  // namespace

int runCommandLine(int argc, char** argv, int cancel_fd) {
  return CommandLine(cancel_fd).run(argc, argv);
}

}  // namespace vorn::launch
