#include "commands/orphans.h"

#include <signal.h>

#include <optional>
#include <string>
#include <vector>

#include "live/busy_launcher.h"
#include "live/launcher_description.h"
#include "live/node_status.h"
#include "live/orphans.h"
#include "live/termination.h"
#include "output/json.h"
#include "output/output.h"
#include "output/quantity.h"
#include "output/table.h"
#include "vorn/launch_rules.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kOrphansSchema = 1;
// An orphan can create processes while it is being terminated.
constexpr int kMostRounds = 3;

/// The processes of one run of the command.
struct Scene {
  pid_t listener = 0;  // the launcher that has the control socket; 0: unknown
  std::vector<LauncherProcess> launchers;
  Orphans orphans;
};

/// Whether the process is a child that its launcher has not made a node yet.
bool isUnfinishedChild(const ProcessTable& table, const Process& process) {
  const Process* const parent = table.find(process.parent);
  return parent != nullptr && parent->name == process.name &&
         argumentsOf(parent->pid) == argumentsOf(process.pid);
}

/// Nothing, after an error message, if the processes cannot be read.
std::optional<Scene> lookAround(const Context& context) {
  const auto table = context.readProcesses();
  if (!table) return std::nullopt;
  Scene scene;
  scene.listener =
      findListener(context.client(kLongestStop).options().socketPath);
  for (const Process* const launcher : launchersIn(*table, scene.listener)) {
    if (isUnfinishedChild(*table, *launcher)) continue;
    scene.launchers.push_back(identifyLauncher(launcher->pid, ""));
  }
  scene.orphans = findOrphans(*table, scene.listener);
  return scene;
}

void printOrphans(const Scene& scene, const Settings& settings) {
  Output out = standardOutput();
  for (const LauncherProcess& launcher : scene.launchers) {
    const std::string name =
        launcherName(launcher) +
        (launcher.pid == scene.listener ? "" : " (not on this control socket)");
    out << describeLauncher(launcher, name, settings.terminalWidth) << "\n";
  }
  if (scene.orphans.processes.empty()) return;
  Table table;
  table.header = {"PID", "NODE", "STARTED", "REASON", "MEMORY", "COMMAND"};
  for (const Orphan& orphan : scene.orphans.processes) {
    const Process& process = orphan.process;
    const auto start = static_cast<int64_t>(startOf(process));
    table.rows.push_back(
        {{process.pid},
         {terminalText(orphan.node)},
         {terminalText(formatTime(start))},
         {terminalText(reasonFor(orphan))},
         {terminalText(formatBytes(process.residentBytes))},
         {spaces(2 * orphan.depth) + terminalText(commandLineOf(process))}});
  }
  if (settings.terminalWidth != 0) {
    truncateLastColumn(table, settings.terminalWidth);
  }
  printAligned(out, table, settings.hasColours);
  out.flush();
}

Json orphanJson(const Orphan& orphan) {
  const Process& process = orphan.process;
  return {{"pid", process.pid},
          {"parent", process.parent},
          {"node", orphan.node},
          {"reason", orphan.isOfEarlierRun ? "earlier-run" : "launcher-exited"},
          {"startSeconds", static_cast<int64_t>(startOf(process))},
          {"memoryBytes", process.residentBytes},
          {"command", argumentsOf(process.pid)}};
}

void printOrphansAsJson(const Scene& scene) {
  Json launchers = Json::array();
  for (const LauncherProcess& launcher : scene.launchers) {
    Json json = launcherJson(launcher);
    json.erase("launchFileChanged");  // is not read
    json["hasControlSocket"] = launcher.pid == scene.listener;
    launchers.push_back(json);
  }
  Json orphans = Json::array();
  for (const Orphan& orphan : scene.orphans.processes) {
    orphans.push_back(orphanJson(orphan));
  }
  standardOutput() << jsonText(Json{{"schema", kOrphansSchema},
                                    {"launchers", launchers},
                                    {"orphans", orphans},
                                    {"notExamined", scene.orphans.unreadable}});
}

/// Terminates the orphans, and prints one line per process.
void endOrphans(const Context& context, const Orphans& orphans) {
  std::vector<Process> processes;
  for (const Orphan& orphan : orphans.processes) {
    processes.push_back(orphan.process);
  }
  const auto results =
      terminate(processes, kLongestStop, context.settings().cancelFd);
  Output out = standardOutput();
  for (size_t i = 0; i < results.size(); ++i) {
    const std::string name = std::to_string(results[i].process.pid) + " (" +
                             orphans.processes[i].node + "): ";
    if (results[i].outcome == Termination::Outcome::RUNNING) {
      context.printError(name + results[i].error);
    } else if (!context.settings().isQuiet) {
      const bool is_killed = results[i].outcome == Termination::Outcome::KILLED;
      out << terminalText(name + (is_killed ? "killed" : "terminated")) << "\n";
    }
  }
}

}  // namespace

ExitStatus showOrphans(const Context& context, const OrphansOptions& options) {
  // Terminate all orphans even if the reader of the output has exited.
  if (options.isKill) (void)::signal(SIGPIPE, SIG_IGN);
  auto scene = lookAround(context);
  if (!scene) return kUsage;
  const Settings& settings = context.settings();
  if (!settings.isQuiet && scene->orphans.unreadable > 0) {
    context.printError("processes not examined for lack of permission: " +
                       std::to_string(scene->orphans.unreadable) +
                       "; root can examine them");
  }
  if (!settings.isQuiet && options.isJson) printOrphansAsJson(*scene);
  if (!settings.isQuiet && !options.isJson) printOrphans(*scene, settings);
  const size_t count = scene->orphans.processes.size();
  if (count == 0) return kDone;
  if (!options.isKill) return kFailed;
  const std::string action = "terminate " + std::to_string(count) +
                             (count == 1 ? " process" : " processes");
  if (!options.isConfirmed && !context.confirm(action)) {
    return settings.isInteractive ? kFailed : kUsage;
  }
  for (int i = 0; i < kMostRounds && !scene->orphans.processes.empty(); ++i) {
    endOrphans(context, scene->orphans);
    if (context.isCancelled()) return kFailed;
    scene = lookAround(context);
    if (!scene) return kFailed;
  }
  return scene->orphans.processes.empty() ? kDone : kFailed;
}

}  // namespace vorn::launch
