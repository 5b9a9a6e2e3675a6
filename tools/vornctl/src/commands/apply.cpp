#include "commands/apply.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <optional>
#include <utility>
#include <vector>

#include "check/report.h"
#include "commands/apply_steps.h"
#include "commands/check.h"
#include "commands/health.h"
#include "descriptor.h"
#include "launchfile/parser.h"
#include "live/node_status.h"
#include "output/output.h"
#include "output/text.h"
#include "system/atomic_file.h"
#include "system/child_command.h"

namespace vorn::launch {
namespace {

constexpr char kServiceSuffix[] = ".service";
constexpr char kUnitDirectory[] = "/etc/vornlaunch/";

/// The launch file of one of our units; empty for another unit.
std::string launchFileOfUnit(std::string unit) {
  const size_t suffix = unit.rfind(kServiceSuffix);
  if (suffix != std::string::npos) unit.resize(suffix);
  const std::string instance = "vornlaunch@";
  if (unit == "vornlaunch") return std::string(kUnitDirectory) + "launch.yaml";
  if (!startsWith(unit, instance) || unit == instance) return "";
  return kUnitDirectory + unit.substr(instance.size()) + ".yaml";
}

/// Checks the new file; its text if a launcher of this machine can run it.
std::optional<std::string> checkedText(const Context& context,
                                       const std::string& path,
                                       ExitStatus& status) {
  status = kUsage;
  std::string error;
  auto document = readSourceText(path, error);
  if (!document) {
    context.printError(error);
    return std::nullopt;
  }
  try {
    const LaunchFile file = parseLaunchFile(*document, ownEnvironment());
    CheckOptions options;
    options.host = CheckOptions::Host::YES;
    Diagnostics diagnostics = diagnose(*document, file, options);
    std::string text = document->text();
    if (!diagnostics.hasSeverity(Severity::ERROR)) return text;
    Output errors = standardError();
    printAsText(
        errors,
        {std::move(*document), file.loadErrors.empty(), std::move(diagnostics)},
        false, false, STDERR_FILENO);
    context.printError("the launch file is unchanged: " + path + " has errors");
    status = kFailed;
  } catch (const TooLarge& failure) {
    context.printError("cannot check " + path + ": " + failure.what());
  } catch (const std::bad_alloc&) {
    context.printError("not enough memory to check " + path);
  }
  return std::nullopt;
}

/// The operations on this machine.
class MachineOperations : public ApplyOperations {
 public:
  MachineOperations(const Context& context, const ApplyOptions& options,
                    mode_t mode)
      : context_(context), options_(options), mode_(mode) {}

  bool read(const std::string& path, std::optional<std::string>& text,
            std::string& error) override {
    text.reset();
    if (::access(path.c_str(), F_OK) != 0 && errno == ENOENT) return true;
    const auto document = readSourceText(path, error);
    if (document) text = document->text();
    return document.has_value();
  }

  bool write(const std::string& path, const std::string& text,
             std::string& error) override {
    return writeFile(path, text, true, error, mode_) &&
           syncDirectoryOf(path, error);
  }

  bool remove(const std::string& path, std::string& error) override {
    if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
      error = "cannot remove " + path + ": " + std::strerror(errno);
      return false;
    }
    return syncDirectoryOf(path, error);
  }

  bool mayRestart(std::string& error) override {
    if (options_.hook.empty()) return true;
    std::string outcome;
    if (runCommand({"/bin/sh", "-c", options_.hook}, outcome)) return true;
    error = "the hook refuses: it " + outcome + "; try again later";
    return false;
  }

  bool restart(std::string& error) override {
    // A unit that has failed too often refuses to start until this. It fails if
    // the unit is not loaded.
    (void)runCommand({"systemctl", "reset-failed", options_.unit}, error);
    const std::vector<std::string> command = {"systemctl", "restart",
                                              options_.unit};
    if (!runCommand(command, error)) {
      error = "'systemctl restart " + options_.unit + "' " + error;
      return false;
    }
    const Health health = examineHealth(context_, options_.runFor);
    error.clear();
    for (const Health::Reason& reason : health.reasons) {
      error += (error.empty() ? "" : "; ") + sentenceFor(reason);
    }
    return health.isHealthy();
  }

 private:
  const Context& context_;
  const ApplyOptions& options_;
  mode_t mode_;
};

ExitStatus reportApply(const Context& context, const ApplyResult& result) {
  for (const std::string& message : result.messages) {
    context.printError(message);
  }
  switch (result.outcome) {
    case ApplyOutcome::UNCHANGED:
    case ApplyOutcome::APPLIED:
      if (context.settings().isQuiet) return kDone;
      standardOutput() << (result.outcome == ApplyOutcome::APPLIED
                               ? OutputText("applied\n")
                               : OutputText("unchanged\n"));
      return kDone;
    case ApplyOutcome::REFUSED:
      return kTryLater;
    case ApplyOutcome::NOT_APPLIED:
      context.printError("the launch file was not applied");
      return kFailed;
    case ApplyOutcome::PUT_BACK:
      break;
  }
  return kFailed;
}

}  // namespace

ExitStatus applyFile(const Context& context, const ApplyOptions& options) {
  ExitStatus status = kDone;
  const auto text = checkedText(context, options.file, status);
  if (!text) return status;
  std::string target = context.settings().launchFile;
  if (target.empty()) target = launchFileOfUnit(options.unit);
  if (target.empty()) {
    context.printError("the launch file of " + options.unit +
                       " is not known; name it with --launch-file");
    return kUsage;
  }
  target = replacedFile(target);
  const std::string lock_path = lockFileOf(target);
  const Descriptor lock(
      ::open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, kPrivateFile));
  if (lock.number() < 0) {
    context.printError("cannot open " + lock_path + ": " +
                       std::strerror(errno));
    return kUsage;
  }
  struct flock exclusive {};
  exclusive.l_type = F_WRLCK;
  // Unlike flock(2), this lets `check` find out whether an apply runs.
  if (::fcntl(lock.number(), F_OFD_SETLK, &exclusive) != 0) {
    context.printError("another apply has locked " + lock_path +
                       "; try again later");
    return kTryLater;
  }
  struct stat old {};
  const bool has_old = ::stat(target.c_str(), &old) == 0;
  MachineOperations operations(context, options,
                               has_old ? old.st_mode & 07777U : kPublicFile);
  ApplySteps steps(operations, target, formatTime(std::time(nullptr)));
  return reportApply(context, steps.apply(*text));
}

}  // namespace vorn::launch
