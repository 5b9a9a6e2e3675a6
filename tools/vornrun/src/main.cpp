#include <unistd.h>

#include <ctime>
#include <optional>
#include <string>
#include <vector>

#include "monitor/monitor.h"
#include "process/apply_settings.h"
#include "process/credentials.h"
#include "process/environment.h"
#include "process/execute.h"
#include "process/node_name.h"
#include "process/parent_death.h"
#include "report.h"
#include "run_arguments.h"
#include "run_options.h"
#include "start/crash_loop.h"
#include "start/wait_for.h"
#include "vornrun_version.h"

namespace vorn::run {
namespace {

/// Prints `text` on standard output. Returns the exit status.
int printText(const std::string& text) {
  const ssize_t written = ::write(STDOUT_FILENO, text.data(), text.size());
  return written == static_cast<ssize_t>(text.size()) ? 0 : kExitFailure;
}

/// The start of one node, from its settings to the execution of its program.
class NodeStart {
 public:
  NodeStart(const RunSettings& settings, std::string node, pid_t parent)
      : settings_(settings), node_(std::move(node)), parent_(parent) {}

  /// Returns the exit status of a failure.
  int run() {
    int original_error = -1;
    int status = kExitFailure;
    auto error = prepare();
    if (!error) error = connectProgram(settings_, connection_, original_error);
    if (!error) {
      error = RunError{arguments_.front(), ""};
      status = executeProgram(arguments_, environment_, error->reason);
    }
    if (original_error >= 0) (void)::dup2(original_error, STDERR_FILENO);
    reportLine(node_, error->option, error->reason);
    return status;
  }

 private:
  const Account* account() const { return account_ ? &*account_ : nullptr; }

  /// Everything that can be wrong comes before anything that changes.
  std::optional<RunError> prepare() {
    std::optional<RunError> error;
    account_ = resolveAccount(settings_, error);
    const Environment inherited = Environment::inherited();
    if (!error) {
      error = buildEnvironment(settings_, account(), inherited, environment_);
    }
    if (!error) error = expandArguments();
    if (!error && settings_.parentDeathSignal != 0) {
      error = beginParentDeath(inherited);
    }
    if (!error) error = loop_.open();
    if (!error) {
      error = startMonitor(settings_, {node_, account(), environment_},
                           connection_);
    }
    if (!error) error = waitForStart();
    if (!error) error = applySettings(settings_, node_, account(), parent_);
    return error;
  }

  std::optional<RunError> expandArguments() {
    arguments_ = settings_.program;
    if (!settings_.expandsVariables) return std::nullopt;
    for (size_t i = 1; i < arguments_.size(); ++i) {
      std::string missing;
      auto expanded = expandVariables(arguments_[i], environment_, missing);
      if (!expanded) {
        return RunError{"--expand", "the variable " + missing + " is not set"};
      }
      arguments_[i] = *std::move(expanded);
    }
    return std::nullopt;
  }

  /// The signal also ends a start that waits.
  std::optional<RunError> beginParentDeath(const Environment& inherited) const {
    if (lostLauncher(parent_, inherited)) {
      return RunError{"--pdeathsig", "the launcher has exited"};
    }
    const auto program = findProgram(arguments_.front(), environment_);
    const std::string privilege =
        program && !settings_.noNewPrivileges ? privilegeOf(*program) : "";
    if (!privilege.empty()) {
      reportLine(node_, "--pdeathsig",
                 "warning: " + *program + " is " + privilege +
                     ", for which the kernel clears the signal");
    }
    return setParentDeathSignal(settings_.parentDeathSignal, parent_);
  }

  std::optional<RunError> waitForStart() {
    uint32_t restarts = 0;
    const auto on_delay = [&](size_t count, milliseconds delay) {
      restarts = static_cast<uint32_t>(count);
      reportPhase(connection_, {Phase::DELAYED, restarts,
                                std::time(nullptr) + delay.count() / 1000, 0});
    };
    auto error = loop_.beforeStart(on_delay, [&] {
      reportPhase(connection_, {Phase::GAVE_UP, 0, 0, 0});
    });
    const auto on_condition = [&](size_t number) {
      reportPhase(connection_,
                  {Phase::WAITING, restarts, 0, static_cast<uint32_t>(number)});
    };
    if (!error) {
      error =
          waitForConditions(settings_, account(), environment_, on_condition);
    }
    if (!error) error = loop_.recordStart();
    reportPhase(connection_, {Phase::STARTING, restarts, 0, 0});
    addNotifyVariables(settings_, connection_, environment_);
    return error;
  }

  const RunSettings& settings_;
  std::string node_;
  pid_t parent_;
  std::optional<Account> account_;
  Environment environment_;
  std::vector<std::string> arguments_;
  MonitorConnection connection_;
  CrashLoop loop_{settings_, node_};
};

int run(const std::vector<std::string>& arguments, pid_t parent) {
  const RunArguments parsed = parseRunArguments(arguments);
  const std::string node = nodeName(parsed.settings);
  for (const RunError& error : parsed.errors) {
    reportLine(node, error.option, error.reason);
  }
  if (!parsed.errors.empty()) return kExitFailure;
  if (parsed.request == RunArguments::Request::HELP) {
    return printText(runHelp());
  }
  if (parsed.request == RunArguments::Request::VERSION) {
    return printText(std::string("vornrun ") + kVersion + "\n");
  }
  return NodeStart(parsed.settings, node, parent).run();
}

}  // namespace
}  // namespace vorn::run

int main(int argc, char** argv) {
  const pid_t parent = ::getppid();
  // A program can be executed without even its own name.
  const int first = argc > 0 ? 1 : 0;
  return vorn::run::run(std::vector<std::string>(argv + first, argv + argc),
                        parent);
}
