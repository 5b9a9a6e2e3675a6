#include "commands/diff.h"

#include <new>
#include <optional>

#include "launchfile/file_difference.h"
#include "launchfile/parser.h"
#include "live/proc_file.h"
#include "live/running_nodes.h"
#include "output/json.h"
#include "output/output.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kDiffSchema = 1;

std::optional<LaunchFile> readForDiff(const Context& context,
                                      const std::string& path,
                                      const LauncherEnvironment& environment) {
  std::string error;
  const auto document = readSourceText(path, error);
  auto file =
      document ? loadLaunchFile(*document, environment, error) : std::nullopt;
  if (!file) context.printError(error);
  return file;
}

const char* kindWord(NodeDifference::Kind kind, bool is_running) {
  switch (kind) {
    case NodeDifference::Kind::ADDED:
      return is_running ? "not running" : "added";
    case NodeDifference::Kind::REMOVED:
      return "removed";
    case NodeDifference::Kind::CHANGED:
      break;
  }
  return "changed";
}

void printParts(Output& out, const std::vector<PartDifference>& parts) {
  for (const PartDifference& part : parts) {
    out << "  " << terminalText(part.part) << ": "
        << terminalText(part.before.value_or("(none)")) << " -> "
        << terminalText(part.after.value_or("(none)")) << "\n";
  }
}

void printDifference(const FileDifference& difference, bool is_running) {
  Output out = standardOutput();
  if (!difference.configure.empty()) out << "configure: changed\n";
  printParts(out, difference.configure);
  for (const NodeDifference& node : difference.nodes) {
    out << terminalText(node.node) << ": "
        << terminalText(kindWord(node.kind, is_running)) << "; "
        << terminalText(node.effect) << "\n";
    printParts(out, node.parts);
  }
  if (difference.unchanged == 0 || difference.isEmpty()) return;
  out << "A restart of the launcher also restarts the unchanged nodes: "
      << difference.unchanged << "\n";
}

Json jsonOfParts(const std::vector<PartDifference>& parts) {
  Json array = Json::array();
  for (const PartDifference& part : parts) {
    array.push_back({{"part", part.part},
                     {"old", orNull(part.before)},
                     {"new", orNull(part.after)}});
  }
  return array;
}

void printDifferenceJson(const FileDifference& difference, bool is_running) {
  Json nodes = Json::array();
  for (const NodeDifference& node : difference.nodes) {
    nodes.push_back({{"name", node.node},
                     {"difference", kindWord(node.kind, is_running)},
                     {"effect", node.effect},
                     {"parts", jsonOfParts(node.parts)}});
  }
  standardOutput() << jsonText(
      Json{{"schema", kDiffSchema},
           {"same", difference.isEmpty()},
           {"configure", jsonOfParts(difference.configure)},
           {"nodes", nodes},
           {"unchanged", difference.unchanged}});
}

ExitStatus printResult(const Context& context, const DiffOptions& options,
                       const FileDifference& difference) {
  if (options.isJson) {
    printDifferenceJson(difference, options.isRunning);
  } else if (!context.settings().isQuiet) {
    printDifference(difference, options.isRunning);
  }
  return difference.isEmpty() ? kDone : kFailed;
}

ExitStatus compareFiles(const Context& context, const DiffOptions& options) {
  const auto before =
      readForDiff(context, options.files.front(), ownEnvironment());
  const auto after =
      readForDiff(context, options.files.back(), ownEnvironment());
  if (!before || !after) return kUsage;
  return printResult(context, options, differenceBetween(*before, *after));
}

ExitStatus compareWithProcesses(Context& context, const DiffOptions& options) {
  const ExitStatus status = context.findLauncherProcess();
  if (status != kDone) return status;
  const pid_t pid = context.launcherWithoutFile().pid;
  const auto file =
      readForDiff(context, options.files.front(), launcherEnvironment(pid));
  if (!file) return kUsage;
  size_t unreadable = 0;
  const auto table = context.readProcesses();
  if (!table) return kUsage;
  const auto running = readRunningNodes(*table, pid, unreadable);
  const auto environment = readProcFile(procFile(pid, "environ"));
  if (unreadable > 0 || !environment) {
    context.printError(
        "no permission to examine the processes of the launcher; run vornctl "
        "as root or as the user of the launcher");
    return kUsage;
  }
  const LaunchFile after = withAllVariables(*file);
  const LaunchFile before =
      asRunning(after, running, splitAtNuls(*environment));
  return printResult(context, options, differenceBetween(before, after));
}

}  // namespace

ExitStatus showDifference(Context& context, const DiffOptions& options) {
  if (options.files.size() != (options.isRunning ? 1U : 2U)) {
    context.printError(options.isRunning
                           ? "name one launch file with --running"
                           : "name two launch files, or one with --running");
    return kUsage;
  }
  try {
    return options.isRunning ? compareWithProcesses(context, options)
                             : compareFiles(context, options);
  } catch (const std::bad_alloc&) {
    context.printError("not enough memory to compare the files");
    return kUsage;
  }
}

}  // namespace vorn::launch
