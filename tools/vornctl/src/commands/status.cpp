#include "commands/status.h"

#include <algorithm>
#include <chrono>
#include <ctime>

#include "context/targets.h"
#include "live/history_json.h"
#include "live/launcher_description.h"
#include "live/log_source.h"
#include "live/node_cells.h"
#include "live/node_history.h"
#include "live/node_usage.h"
#include "output/duration.h"
#include "output/json.h"
#include "output/output.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kStatusSchema = 1;
constexpr std::chrono::minutes kReplyLimit{5};
constexpr size_t kUsualColumns = 7;
// The columns that a narrow terminal omits, in this order: started, required,
// policy, uptime, pid.
const std::vector<size_t> kLeastNeeded = {4, 6, 5, 3, 2};

Json jsonOf(const RunState& state) {
  Json json = {{"phase", state.phase},
               {"phaseSince", orNull(state.phaseSince)},
               {"ready", orNull(state.isReady)},
               {"status", state.status},
               {"restarts", state.restarts},
               {"delayedUntil", orNull(state.delayedUntil)},
               {"droppedBytes", state.droppedBytes},
               {"lastProbe", Json()}};
  if (const auto& probe = state.lastProbe) {
    json["lastProbe"] = {{"ok", probe->isOk},
                         {"message", probe->message},
                         {"time", orNull(probe->time)}};
  }
  return json;
}

Json jsonOf(const NodeView& view, const LaunchFile::Node* node) {
  Json json = {
      {"name", view.name},
      {"state", wordFor(view.state)},
      {"condition", wordFor(view.condition)},
      {"pid", orNull(view.pid)},
      {"startSeconds", orNull(view.startSeconds)},
      {"uptimeSeconds", view.condition == Condition::RUNNING
                            ? Json(view.uptimeSeconds)
                            : Json()},
      {"restartInSeconds", view.condition == Condition::RESTARTING
                               ? Json(view.restartInSeconds)
                               : Json()},
      {"failed", isFailing(view)},
      {"crashLoop", view.isCrashLoop},
      {"restarts", view.restarts < 0 ? Json() : Json(view.restarts)},
      {"lastExit", view.lastExit ? jsonOf(*view.lastExit) : Json()},
      {"cpuPercent", orNull(view.cpuPercent)},
      {"memoryBytes", orNull(view.memoryBytes)},
      {"stale", orNull(view.isStale)},
      {"run", view.run.state ? jsonOf(*view.run.state) : Json()},
  };
  if (node != nullptr) {
    json["policy"] = {{"oneshot", node->oneshot.value},
                      {"autostart", node->autostart.value},
                      {"disabled", node->disabled.value}};
    json["required"] = valuesOf(node->required);
    json["executable"] = node->executable;
  }
  return json;
}

void printJson(const LauncherProcess& launcher,
               const std::vector<NodeView>& views) {
  Json nodes = Json::array();
  for (const NodeView& view : views) {
    nodes.push_back(jsonOf(view, launcher.file.find(view.name)));
  }
  const Json document = {
      {"schema", kStatusSchema},
      {"launcher", launcherJson(launcher)},
      {"nodes", nodes},
  };
  standardOutput() << jsonText(document);
}

bool contains(const std::vector<std::string>& words, const char* word) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

/// Adds what the log says about the nodes. An unreadable log is an error only
/// if the user has asked for it.
void addFromLog(const Context& context, const StatusOptions& options,
                const LauncherProcess& launcher, std::vector<NodeView>& views) {
  const int64_t now_us = std::time(nullptr) * kSecondUs;
  const bool is_asked = options.isFailedOnly ||
                        contains(options.columns, "restarts") ||
                        contains(options.columns, "last_exit");
  std::string error;
  NodeHistories histories;
  const auto log = findLog(launcher, context.settings().logFile, error);
  bool is_read = log.has_value();
  if (is_read && (is_asked || options.isJson)) {
    is_read = readRecent(launcher, *log, now_us, views, histories, error);
    if (is_read) addHistory(histories, now_us, views);
  } else if (is_read) {
    is_read = readOneshotExits(launcher, *log, views, histories, error);
    addHistory(histories, now_us, views);
  }
  if (!is_read && is_asked) context.printError(error);
}

/// Adds the facts that /proc shows about the nodes, if the output has them.
void addFromProc(const StatusOptions& options, const LauncherProcess& launcher,
                 std::vector<NodeView>& views) {
  const auto& columns = options.columns;
  const bool has_usage =
      options.isJson || contains(columns, "cpu") || contains(columns, "memory");
  const bool has_staleness = options.isJson || contains(columns, "stale");
  if (!has_usage && !has_staleness) return;
  const ProcessTable table = ProcessTable::read();
  if (has_usage) addUsage(table, launcher, views);
  if (has_staleness) addStaleness(table, launcher, views);
}

std::vector<std::string> columnsFor(const StatusOptions& options) {
  std::vector<std::string> columns = options.columns;
  for (size_t i = 0; options.columns.empty() && i < kUsualColumns; ++i) {
    columns.push_back(statusColumns()[i].name);
  }
  return columns;
}

Table tableOf(const StatusOptions& options,
              const std::vector<NodeView>& views) {
  const std::vector<std::string> columns = columnsFor(options);
  Table table;
  for (size_t i = 0; options.hasHeader && i < columns.size(); ++i) {
    table.header.push_back(terminalText(upperCase(columns[i])));
  }
  for (const NodeView& view : views) {
    std::vector<Cell>& row = table.rows.emplace_back();
    for (const std::string& column : columns) {
      row.push_back(options.isPlain ? plainCellFor(view, column)
                                    : cellFor(view, column));
    }
  }
  return table;
}

void printTable(const StatusOptions& options, const Settings& settings,
                const LauncherProcess& launcher,
                const std::vector<NodeView>& views) {
  Output out = standardOutput();
  Table table = tableOf(options, views);
  if (options.isPlain) {
    printPlain(out, table);
    return;
  }
  if (options.columns.empty()) {
    if (options.hasHeader) {
      out << describeLauncher(launcher, launcherName(launcher),
                              settings.terminalWidth)
          << "\n";
    }
    if (settings.terminalWidth != 0) {
      fitInto(table, settings.terminalWidth, kLeastNeeded);
    }
  }
  printAligned(out, table, settings.hasColours);
}

}  // namespace

ExitStatus showStatus(Context& context, const StatusOptions& options) {
  const Targets targets = findTargets(context, options.nodes);
  if (targets.status != kDone) return targets.status;
  const LauncherProcess& launcher = targets.launcher;
  ControlClient client = context.client(kReplyLimit, "asking the launcher");
  std::vector<NodeView> views;
  ExitStatus result = kDone;
  for (const std::string& name : targets.names) {
    const StatusReply reply = client.status(name);
    if (!reply.isDone()) {
      context.printRequestError(name, reply, launcher.file);
      result = exitStatusOf(reply.outcome);
      if (reply.outcome != Outcome::NOT_FOUND &&
          reply.outcome != Outcome::INVALID_NAME) {
        return result;
      }
      continue;
    }
    views.push_back(viewOf(launcher, name, reply, std::time(nullptr)));
    const bool runs = views.back().condition == Condition::RUNNING;
    if (!runs && !options.nodes.empty() && result == kDone) {
      result = kNotRunning;
    }
  }
  context.clearActivity();
  addFromLog(context, options, launcher, views);
  if (options.isFailedOnly) {
    views.erase(std::remove_if(views.begin(), views.end(),
                               [](const auto& v) { return !isFailing(v); }),
                views.end());
    if (result == kDone || result == kNotRunning) {
      result = views.empty() ? kDone : kFailed;
    }
  }
  context.warnAboutOrphans();
  if (context.settings().isQuiet) return result;
  addFromProc(options, launcher, views);
  if (options.isJson) {
    printJson(launcher, views);
  } else {
    printTable(options, context.settings(), launcher, views);
  }
  return result;
}

}  // namespace vorn::launch
