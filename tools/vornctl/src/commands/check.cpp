#include "commands/check.h"

#include <unistd.h>

#include <algorithm>
#include <new>
#include <optional>

#include "check/report.h"
#include "check/resolved_view.h"
#include "check/rules.h"
#include "launchfile/parser.h"
#include "system/stop_signals.h"

namespace vorn::launch {
namespace {

using Format = CheckOptions::Format;
using Host = CheckOptions::Host;
using Print = CheckOptions::Print;

struct Results {
  std::vector<CheckedFile> checked;
  std::vector<LaunchFile> resolved;
  bool isUnreadable = false;  // one of the files
};

/// Adds the results for one file. False with a sentence in `error` if the file
/// cannot be read.
bool checkFile(const std::string& path, const LauncherEnvironment& environment,
               const CheckOptions& options, Results& results,
               std::string& error) {
  auto document = readSourceText(path, error);
  if (!document) return false;
  LaunchFile file = parseLaunchFile(*document, environment);
  Diagnostics diagnostics = diagnose(*document, file, options);
  results.checked.push_back(
      {std::move(*document), file.loadErrors.empty(), std::move(diagnostics)});
  results.resolved.push_back(std::move(file));
  return true;
}

Results checkFiles(const Context& context, const CheckOptions& options) {
  Results results;
  const LauncherEnvironment environment = ownEnvironment();
  for (const std::string& path : options.files) {
    std::string error;
    try {
      if (checkFile(path, environment, options, results, error)) continue;
    } catch (const TooLarge& failure) {
      error = "cannot check " + path + ": " + failure.what();
    } catch (const std::bad_alloc&) {
      error = "not enough memory to check " + path;
    }
    context.printError(error);
    results.isUnreadable = true;
  }
  return results;
}

void printDiagnostics(Output& out, const Settings& settings, Format format,
                      const std::vector<CheckedFile>& files) {
  switch (format) {
    case Format::JSON:
      printAsJson(out, files);
      return;
    case Format::SARIF:
      printAsSarif(out, files);
      return;
    case Format::GITHUB:
      printAsGithub(out, files);
      return;
    case Format::TEXT:
      break;
  }
  const bool is_terminal = ::isatty(STDOUT_FILENO) == 1;
  for (const CheckedFile& file : files) {
    printAsText(out, file, is_terminal || settings.hasColours,
                settings.hasColours, STDOUT_FILENO);
  }
}

/// Throws TooLarge if the environments of all nodes are too much to print: each
/// node has all global variables.
void checkEnvironments(const std::vector<LaunchFile>& files) {
  size_t values = 0;
  size_t bytes = 0;
  for (const LaunchFile& file : files) {
    const size_t nodes = file.nodes.size();
    for (const Variable& variable : file.environment) {
      values += nodes;
      bytes += nodes * variable.value.value.size();
    }
  }
  if (values <= kMostValues && bytes <= kMostValueBytes) return;
  throw TooLarge("the global variables of all nodes together are more than " +
                 std::to_string(kMostValues) + " values or " +
                 std::to_string(kMostValueBytes >> 20U) + " MiB of text");
}

void printRequested(const CheckOptions& options,
                    const std::vector<LaunchFile>& files) {
  if (options.print == Print::RESOLVED) checkEnvironments(files);
  Output out = standardOutput();
  if (options.print == Print::RESOLVED && options.format == Format::JSON) {
    printResolvedAsJson(out, files);
    return;
  }
  for (const LaunchFile& file : files) {
    if (files.size() > 1) out << "# " << terminalText(file.name) << "\n";
    // The launcher starts nothing from a file that it does not load.
    if (!file.loadErrors.empty()) continue;
    if (options.print == Print::RESOLVED) printResolved(out, file);
    if (options.print == Print::TIMELINE) printTimeline(out, file);
    if (options.print == Print::STOP_TIMEOUT) {
      printStopTimeout(out, file);
    }
  }
}

bool hasFailed(const std::vector<CheckedFile>& files, Severity fail_on) {
  return std::any_of(files.begin(), files.end(), [&](const CheckedFile& file) {
    return file.diagnostics.hasSeverity(fail_on);
  });
}

void print(const Settings& settings, const CheckOptions& options,
           const Results& results) {
  if (options.print == Print::DIAGNOSTICS) {
    Output out = standardOutput();
    if (!settings.isQuiet) {
      printDiagnostics(out, settings, options.format, results.checked);
    }
  } else {
    Output errors = standardError();
    for (const CheckedFile& file : results.checked) {
      if (!settings.isQuiet) {
        printAsText(errors, file, false, false, STDERR_FILENO);
      }
    }
    printRequested(options, results.resolved);
  }
}

}  // namespace

Diagnostics diagnose(const SourceText& document, const LaunchFile& file,
                     const CheckOptions& options) {
  Diagnostics diagnostics(document, options.ignored);
  checkDocument(file, diagnostics);
  checkNodes(file, diagnostics);
  checkDaemons(file, diagnostics);
  checkVornrun(file, diagnostics);
  checkEnvironment(file, diagnostics);
  checkRequired(file, diagnostics);
  const bool is_file = !document.isStandardInput();
  if (options.host == Host::YES || (options.host == Host::AUTO && is_file)) {
    checkHost(document, file, diagnostics);
    checkApply(document, diagnostics);
  }
  diagnostics.settle();
  return diagnostics;
}

ExitStatus check(const Context& context, const CheckOptions& options) {
  for (const std::string& name : options.ignored) {
    if (findCheck(name) != nullptr) continue;
    context.printError("unknown diagnostic '" + name +
                       "'; 'vornctl check --list' prints all names");
    return kUsage;
  }
  dieByStopSignals(context.settings().cancelFd);
  if (options.host == Host::YES) context.warnAboutOrphans();
  const Results results = checkFiles(context, options);
  try {
    print(context.settings(), options, results);
  } catch (const TooLarge& failure) {
    context.printError(std::string("cannot print the results: ") +
                       failure.what());
    return kUsage;
  } catch (const std::bad_alloc&) {
    context.printError("not enough memory to print the results");
    return kUsage;
  }
  if (results.isUnreadable) return kUsage;
  return hasFailed(results.checked, options.failOn) ? kFailed : kDone;
}

ExitStatus listChecks() {
  for (const CheckInfo& info : allChecks()) {
    standardOutput() << terminalText(info.name) << "\t"
                     << terminalText(wordFor(info.severity)) << "\t"
                     << terminalText(info.summary) << "\n";
  }
  return kDone;
}

}  // namespace vorn::launch
