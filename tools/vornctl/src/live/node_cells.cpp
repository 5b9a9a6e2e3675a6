#include "live/node_cells.h"

#include <cstdint>

#include "live/event_text.h"
#include "output/quantity.h"

namespace vorn::launch {
namespace {

Colour colourOf(const NodeView& view) {
  if (view.isCrashLoop) return Colour::RED;
  switch (view.condition) {
    case Condition::RUNNING:
      return Colour::GREEN;
    case Condition::EXITING:
    case Condition::STOPPING:
    case Condition::RESTARTING:
      return Colour::YELLOW;
    case Condition::FAILED:
    case Condition::UNKNOWN_NODE:
      return Colour::RED;
    case Condition::DISABLED:
      if (view.isExecutableMissing) return Colour::RED;
      break;
    case Condition::STOPPED:
    case Condition::NEVER_STARTED:
      break;
  }
  return Colour::FAINT;
}

OutputText orDash(const std::string& text) {
  return text.empty() ? "-" : terminalText(text);
}

OutputText orDash(int64_t number) {
  return number == 0 ? "-" : OutputText(number);
}

Cell lastExitCell(const NodeView& view) {
  if (!view.lastExit) return {"-"};
  OutputText text = terminalText(exitWord(*view.lastExit));
  if (view.lastExit->isCoreDumped()) text += "+core";
  return {text, view.lastExit->isFailure() ? Colour::RED : Colour::NONE};
}

Cell staleCell(const NodeView& view) {
  if (!view.isStale) return {"-"};
  return *view.isStale ? Cell{"yes", Colour::YELLOW} : Cell{"no"};
}

Cell phaseCell(const NodeView& view) {
  if (!view.run.state) return {"-"};
  const RunState& state = *view.run.state;
  return {terminalText(state.phase), state.isFailing() ? Colour::RED
                                     : state.isUp()    ? Colour::GREEN
                                                       : Colour::YELLOW};
}

}  // namespace

const std::vector<Column>& statusColumns() {
  static const std::vector<Column> columns = {
      {"node", "name in the launch file"},
      {"state", "running, stopped, restarting, disabled or another state"},
      {"pid", "process ID"},
      {"uptime", "time since the start of a running node"},
      {"started", "time of the last start"},
      {"policy", "restart, oneshot, manual or manual+oneshot"},
      {"required", "nodes that restart when this node stops"},
      {"executable", "program of the node"},
      {"restarts", "restarts in the last hour, after it exited by itself"},
      {"last_exit",
       "exit status or signal of the last exit in the last hour; if the node "
       "does not run, of its last exit"},
      {"cpu", "average share of one processor since the start, in percent"},
      {"memory", "resident memory of the process and its descendants"},
      {"stale", "whether the program was replaced or removed since the start"},
      {"ready", "phase that vornrun reports, such as starting or ready"}};
  return columns;
}

std::vector<std::string> expandColumns(const std::vector<std::string>& names) {
  std::vector<std::string> expanded;
  for (const std::string& name : names) {
    if (name != kAllColumns) {
      expanded.push_back(name);
      continue;
    }
    for (const Column& column : statusColumns()) {
      expanded.push_back(column.name);
    }
  }
  return expanded;
}

Cell cellFor(const NodeView& view, const std::string& column) {
  if (column == "node") return {terminalText(view.name)};
  if (column == "state") {
    std::string word = wordFor(view.condition);
    if (view.condition == Condition::RESTARTING) {
      word += " in " + formatSpan(view.restartInSeconds);
    }
    if (view.isCrashLoop) word += ", crash loop";
    return {terminalText(word), colourOf(view)};
  }
  if (column == "pid") return {orDash(view.pid)};
  if (column == "uptime") {
    return {view.condition == Condition::RUNNING
                ? terminalText(formatSpan(view.uptimeSeconds))
                : "-"};
  }
  if (column == "started") return {terminalText(formatTime(view.startSeconds))};
  if (column == "policy") return {orDash(view.policy)};
  if (column == "required") return {orDash(view.required)};
  if (column == "restarts") {
    if (view.restarts < 0) return {"-"};
    return {view.restarts, view.isCrashLoop ? Colour::RED : Colour::NONE};
  }
  if (column == "last_exit") return lastExitCell(view);
  if (column == "cpu") {
    return {view.cpuPercent ? terminalText(formatPercent(*view.cpuPercent))
                            : "-"};
  }
  if (column == "memory") {
    return {view.memoryBytes ? terminalText(formatBytes(*view.memoryBytes))
                             : "-"};
  }
  if (column == "stale") return staleCell(view);
  if (column == "ready") return phaseCell(view);
  return {orDash(view.executable)};
}

Cell stateOrPhase(const NodeView& view) {
  const bool is_up = !view.run.state || view.run.state->isUp();
  if (view.condition != Condition::RUNNING || is_up || view.isCrashLoop) {
    return cellFor(view, "state");
  }
  return phaseCell(view);
}

Cell plainCellFor(const NodeView& view, const std::string& column) {
  const bool runs = view.condition == Condition::RUNNING;
  if (column == "uptime") {
    return {runs ? OutputText(view.uptimeSeconds) : "-"};
  }
  if (column == "started") return {orDash(view.startSeconds)};
  if (column == "state" || column == "ready") {
    std::string word = column == "state" ? wordFor(view.condition)
                       : !view.run.state ? "-"
                                         : view.run.state->phase;
    for (char& letter : word) {
      if (letter == ' ') letter = '-';
    }
    return {terminalText(word)};
  }
  if (column == "memory") {
    return {view.memoryBytes ? OutputText(*view.memoryBytes) : "-"};
  }
  return {cellFor(view, column).text};
}

}  // namespace vorn::launch
