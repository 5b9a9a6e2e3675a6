#include "cli/command_line.h"

#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "cli/commands.h"
#include "cli/options.h"
#include "cli/usage_errors.h"
#include "output/output.h"
#include "vornctl_version.h"

namespace vorn::launch {
namespace {

bool mayColour(ColourMode mode) {
  if (mode != ColourMode::AUTO) return mode == ColourMode::ALWAYS;
  const char* const terminal = std::getenv("TERM");
  return ::isatty(STDOUT_FILENO) == 1 && std::getenv("NO_COLOR") == nullptr &&
         terminal != nullptr && std::strcmp(terminal, "dumb") != 0;
}

/// The columns of the terminal at standard output; 0 if it is not a terminal.
size_t terminalWidth() {
  winsize size{};
  if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0) return 0;
  return size.ws_col;
}

/// Sets the properties that commands inherit when they are added.
CLI::App& configured(CLI::App& app) {
  app.require_subcommand(1);
  app.set_version_flag("--version", "vornctl " VORNCTL_VERSION,
                       "Print the version");
  app.set_help_flag("-h,--help", "Show this text");
  app.fallthrough();
  app.footer(exitStatusHelp("") + "\n\n'vornctl help COMMAND' has examples.");
  return app;
}

/// The command line of vornctl.
class CommandLine {
 public:
  explicit CommandLine(int cancel_fd) {
    commands_.arguments().settings.cancelFd = cancel_fd;
  }

  int run(int argc, char** argv) {
    try {
      std::vector<std::string> arguments = protectedArguments(argc, argv);
      if (!moveCommandToFront(arguments)) return kUsage;
      app_.parse(std::move(arguments));
    } catch (const CLI::Success& request) {
      return app_.exit(request);  // help or version
    } catch (const CLI::ParseError& error) {
      printUsageError(describeError(app_, error));
      return kUsage;
    }
    unprotectAll(commands_.arguments());
    return complete(commands_.arguments()) ? runCommand() : kUsage;
  }

 private:
  static void unprotectAll(Arguments& arguments) {
    unprotect(arguments.settings.launchFile);
    unprotect(arguments.settings.socketPath);
    unprotect(arguments.graph.file);
    unprotect(arguments.apply.file);
    unprotect(arguments.topic);
    for (std::string& node : arguments.nodes) unprotect(node);
    for (std::string& file : arguments.check.files) unprotect(file);
    for (std::string& file : arguments.diff.files) unprotect(file);
  }

  /// Adds the settings that depend on the terminal. False, with a message, if
  /// the settings are invalid.
  static bool complete(Arguments& arguments) {
    Settings& settings = arguments.settings;
    if (settings.launchFile == "-") {
      standardError() << "vornctl: --launch-file: standard input cannot be the "
                         "launch file of a running launcher; name the file\n";
      return false;
    }
    settings.hasColours = mayColour(arguments.colour);
    settings.terminalWidth = terminalWidth();
    settings.isInteractive =
        ::isatty(STDIN_FILENO) == 1 && ::isatty(STDERR_FILENO) == 1;
    return true;
  }

  ExitStatus runCommand() {
    const ExitStatus status = commands_.run();
    Output out = standardOutput();
    out.flush();
    if (out.isGood()) return status;
    standardError() << "vornctl: cannot write to standard output\n";
    return status == kDone ? kFailed : status;
  }

  bool takesValue(const std::string& name) const {
    const CLI::Option* const option = findOption(app_, name);
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
  /// front, which CLI11 needs. False, with a message, if the command does not
  /// exist. The arguments are in CLI11's order.
  bool moveCommandToFront(std::vector<std::string>& arguments) const {
    for (auto each = arguments.rbegin(); each != arguments.rend(); ++each) {
      if (*each == "--") return true;
      if (each->size() > 1 && each->front() == '-') {
        if (isValueNext(*each) && std::next(each) != arguments.rend()) ++each;
        continue;
      }
      if (findCommand(app_, *each) == nullptr) {
        unprotect(*each);
        printUnknownCommand(app_, *each);
        return false;
      }
      std::rotate(arguments.rbegin(), each, std::next(each));
      return true;
    }
    return true;
  }

  CLI::App app_{"Control a running vornlaunch and check its launch files",
                "vornctl"};
  Commands commands_{configured(app_)};
};

}  // namespace

int runCommandLine(int argc, char** argv, int cancel_fd) {
  return CommandLine(cancel_fd).run(argc, argv);
}

}  // namespace vorn::launch
