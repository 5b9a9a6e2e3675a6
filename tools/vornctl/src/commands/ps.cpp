#include "commands/ps.h"

#include <algorithm>
#include <map>
#include <optional>

#include "context/targets.h"
#include "live/launcher_description.h"
#include "live/listening_sockets.h"
#include "live/node_processes.h"
#include "live/node_status.h"
#include "output/json.h"
#include "output/output.h"
#include "output/quantity.h"
#include "output/table.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kPsSchema = 1;
constexpr size_t kIndent = 2;  // columns per generation

using Sockets = std::optional<std::vector<ListeningSocket>>;
using Trees = std::map<std::string, std::vector<NodeProcess>>;

double averagePercent(const Process& process) {
  return cpuPercent(process.cpuTicks, ageOf(process));
}

OutputText textFor(const Sockets& sockets) {
  if (!sockets) return "?";
  std::string text;
  for (const ListeningSocket& socket : *sockets) {
    text += (text.empty() ? "" : ", ") + describeSocket(socket);
  }
  return text.empty() ? "-" : terminalText(text);
}

Json socketJson(const ListeningSocket& socket) {
  return {{"protocol", socket.protocol},
          {"address", socket.address},
          {"port", orNull(socket.port)}};
}

Json processJson(const NodeProcess& each, const PsOptions& options,
                 ListeningSockets& sockets) {
  const Process& process = *each.process;
  Json json = {{"pid", process.pid},
               {"parent", process.parent},
               {"depth", each.depth},
               {"state", std::string(1, process.state)},
               {"startSeconds", static_cast<int64_t>(startOf(process))},
               {"cpuSeconds", secondsOf(process.cpuTicks)},
               {"cpuPercent", averagePercent(process)},
               {"memoryBytes", process.residentBytes},
               {"threads", process.threads},
               {"command", argumentsOf(process.pid)}};
  if (!options.hasPorts) return json;
  Json list;
  if (const Sockets open = sockets.of(process.pid)) {
    list = Json::array();
    for (const ListeningSocket& socket : *open)
      list.push_back(socketJson(socket));
  }
  json["listening"] = list;
  return json;
}

void printProcessesAsJson(const Targets& targets, const Trees& trees,
                          const PsOptions& options) {
  ListeningSockets sockets;
  Json nodes = Json::array();
  for (const std::string& name : targets.names) {
    Json processes = Json::array();
    if (const auto found = trees.find(name); found != trees.end()) {
      for (const NodeProcess& each : found->second) {
        processes.push_back(processJson(each, options, sockets));
      }
    }
    nodes.push_back({{"name", name}, {"processes", processes}});
  }
  standardOutput() << jsonText(
      Json{{"schema", kPsSchema},
           {"launcher", launcherJson(targets.launcher)},
           {"nodes", nodes}});
}

std::vector<Cell> processRow(const std::string& node, const NodeProcess& each,
                             const PsOptions& options,
                             ListeningSockets& sockets) {
  const Process& process = *each.process;
  std::vector<Cell> row = {
      {terminalText(node)},
      {process.pid},
      {terminalText(formatPercent(averagePercent(process)))},
      {terminalText(formatBytes(process.residentBytes))},
      {process.threads},
      {terminalText(formatSpan(static_cast<int64_t>(ageOf(process))))}};
  if (options.hasPorts) row.push_back({textFor(sockets.of(process.pid))});
  row.push_back(
      {spaces(each.depth * kIndent) + terminalText(commandLineOf(process))});
  return row;
}

void printTree(const Targets& targets, const Trees& trees,
               const PsOptions& options, const Settings& settings) {
  ListeningSockets sockets;
  Table table;
  table.header = {"NODE", "PID", "CPU%", "MEMORY", "THREADS", "AGE"};
  if (options.hasPorts) table.header.emplace_back("LISTENS");
  table.header.emplace_back("COMMAND");
  for (const std::string& name : targets.names) {
    const auto found = trees.find(name);
    if (found == trees.end()) continue;
    for (const NodeProcess& each : found->second) {
      table.rows.push_back(processRow(name, each, options, sockets));
    }
  }
  Output out = standardOutput();
  out << describeLauncher(targets.launcher, launcherName(targets.launcher),
                          settings.terminalWidth)
      << "\n";
  if (settings.terminalWidth != 0) {
    truncateLastColumn(table, settings.terminalWidth);
  }
  printAligned(out, table, settings.hasColours);
}

/// The exit status for named nodes, after an error message for each name that
/// is not one.
ExitStatus statusFor(const Context& context, const Targets& targets,
                     const Trees& trees) {
  ExitStatus status = kDone;
  for (const std::string& name : targets.names) {
    if (trees.count(name) > 0) continue;
    const LaunchFile& file = targets.launcher.file;
    if (targets.isFileKnown && file.find(name) == nullptr) {
      ControlReply reply;
      reply.outcome = Outcome::NOT_FOUND;
      context.printRequestError(name, reply, file);
      status = kNoSuchNode;
    } else if (status == kDone) {
      status = kNotRunning;
    }
  }
  return status;
}

}  // namespace

ExitStatus showProcesses(Context& context, const PsOptions& options) {
  const Targets targets = findTargets(context, options.nodes);
  if (targets.status != kDone) return targets.status;
  const pid_t launcher = targets.launcher.pid;
  if (launcher == 0) {
    context.printError(
        "cannot see the processes of a launcher in another pid namespace; run "
        "vornctl there");
    return kUsage;
  }
  const auto table = context.readProcesses();
  if (!table) return kUsage;
  size_t unreadable = 0;
  const Trees trees = processesOfNodes(*table, launcher, unreadable);
  if (unreadable > 0) {
    context.printError("no permission to examine the processes of launcher " +
                       std::to_string(launcher) +
                       "; run vornctl as root or as their user");
    return kFailed;
  }
  if (!context.settings().isQuiet) {
    if (options.isJson) {
      printProcessesAsJson(targets, trees, options);
    } else {
      printTree(targets, trees, options, context.settings());
    }
  }
  return options.nodes.empty() ? kDone : statusFor(context, targets, trees);
}

}  // namespace vorn::launch
