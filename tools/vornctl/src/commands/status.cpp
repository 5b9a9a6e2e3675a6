#include "commands/status.h"

#include <chrono>
#include <cstdio>
#include <ctime>
#include <map>

#include <nlohmann/json.hpp>

#include "output/output.h"
#include "context/targets.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or goes; not when one is added.
constexpr int kSchemaVersion = 1;
constexpr std::chrono::minutes kReplyLimit{5};
constexpr size_t kUsualColumns = 7;
// Of them, those that a narrow terminal does without, the first one first:
// started, required, policy, uptime, pid.
const std::vector<size_t> kLeastNeeded = {4, 6, 5, 3, 2};

Colour colourOf(const NodeView& view) {
  switch (view.condition) {
    case Condition::RUNNING:
      return Colour::GREEN;
    case Condition::EXITING:
    case Condition::STOPPING:
    case Condition::RESTARTING:
      return Colour::YELLOW;
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

/// The cell of a column for a script: one word or number, "-" for none.
Cell plainCellFor(const NodeView& view, const std::string& column) {
  const bool runs = view.condition == Condition::RUNNING;
  if (column == "uptime") {
    return {runs ? OutputText(view.uptimeSeconds) : "-"};
  }
  if (column == "started") return {orDash(view.startSeconds)};
  if (column == "state") {
    std::string word = wordFor(view.condition);
    for (char& letter : word) {
      if (letter == ' ') letter = '-';
    }
    return {terminalText(word)};
  }
  return {cellFor(view, column).text};
}

nlohmann::ordered_json jsonOf(const NodeView& view, const LaunchNode* node) {
  const auto or_null = [](int64_t number) {
    return number == 0 ? nlohmann::ordered_json()
                       : nlohmann::ordered_json(number);
  };
  nlohmann::ordered_json json = {
      {"name", view.name},
      {"state", wordFor(view.state)},
      {"condition", wordFor(view.condition)},
      {"pid", or_null(view.pid)},
      {"startSeconds", or_null(view.startSeconds)},
      {"uptimeSeconds", view.condition == Condition::RUNNING
                            ? nlohmann::ordered_json(view.uptimeSeconds)
                            : nlohmann::ordered_json()},
      {"restartInSeconds", view.condition == Condition::RESTARTING
                               ? nlohmann::ordered_json(view.restartInSeconds)
                               : nlohmann::ordered_json()},
  };
  if (node != nullptr) {
    json["policy"] = {{"oneshot", node->oneshot},
                      {"autostart", node->autostart},
                      {"disabled", node->disabled}};
    json["required"] = node->required;
    json["executable"] = node->executable;
  }
  return json;
}

void printJson(const RunningLauncher& launcher,
               const std::vector<NodeView>& views) {
  nlohmann::ordered_json nodes = nlohmann::ordered_json::array();
  for (const NodeView& view : views) {
    nodes.push_back(jsonOf(view, launcher.file.find(view.name)));
  }
  const nlohmann::ordered_json document = {
      {"schema", kSchemaVersion},
      {"launcher",
       {{"pid", launcher.pid},
        {"startSeconds", launcher.startSeconds == 0
                             ? nlohmann::ordered_json()
                             : nlohmann::ordered_json(launcher.startSeconds)},
        {"launchFile", launcher.launchFile.empty()
                           ? nlohmann::ordered_json()
                           : nlohmann::ordered_json(launcher.launchFile)},
        {"launchFileChanged", launcher.hasChanged}}},
      {"nodes", nodes},
  };
  standardOutput() << jsonText(document);
}

/// "launcher 42".
std::string nameOf(const RunningLauncher& launcher) {
  return launcher.pid == 0 ? "launcher in another pid namespace"
                           : "launcher " + std::to_string(launcher.pid);
}

/// `begin`, then ", launch file /tmp/launch.yaml, since 2026-11-22 10:00:00" as
/// far as known. In several lines if the terminal (0: none) is too narrow.
OutputText introduce(const RunningLauncher& launcher, const std::string& begin,
                     size_t terminal_width) {
  std::vector<OutputText> parts = {terminalText(begin)};
  if (!launcher.launchFile.empty()) {
    parts.push_back("launch file " + terminalText(launcher.launchFile));
  }
  if (launcher.startSeconds != 0) {
    parts.push_back("since " + terminalText(formatTime(launcher.startSeconds)));
  }
  OutputText line;
  OutputText lines;
  for (const OutputText& part : parts) {
    if (!line.empty()) line += ", ";
    line += part;
    if (!lines.empty()) lines += "\n";
    lines += truncated(part, terminal_width);
  }
  const bool fits = terminal_width == 0 || displayWidth(line) <= terminal_width;
  return fits ? line : lines;
}

void printTable(const StatusOptions& options, const Settings& settings,
                const RunningLauncher& launcher,
                const std::vector<NodeView>& views) {
  std::vector<std::string> columns = options.columns;
  if (columns.empty() && options.hasHeader && !options.isPlain) {
    standardOutput() << introduce(launcher, nameOf(launcher),
                                  settings.terminalWidth)
                     << "\n";
  }
  if (columns.empty()) {
    for (size_t i = 0; i < kUsualColumns; ++i) {
      columns.push_back(statusColumns()[i].name);
    }
  }
  Table table;
  if (options.hasHeader) {
    for (const std::string& title : columns) {
      table.header.push_back(terminalText(upperCase(title)));
    }
  }
  for (const NodeView& view : views) {
    std::vector<Cell> row;
    row.reserve(columns.size());
    for (const std::string& column : columns) {
      row.push_back(options.isPlain ? plainCellFor(view, column)
                                    : cellFor(view, column));
    }
    table.rows.push_back(std::move(row));
  }
  Output out = standardOutput();
  if (options.isPlain) {
    printPlain(out, table);
  } else {
    if (options.columns.empty() && settings.terminalWidth != 0) {
      fitInto(table, settings.terminalWidth, kLeastNeeded);
    }
    printAligned(out, table, settings.hasColours);
  }
}

/// A name on a line. A leading dash is escaped, so that "names | xargs vornctl
/// stop" does not take the name for an option.
OutputText lineFor(const std::string& name) {
  if (name.rfind('-', 0) != 0) return terminalText(name) + "\n";
  return "\\x2d" + terminalText(name.substr(1)) + "\n";
}

}  // namespace

const std::vector<Column>& statusColumns() {
  static const std::vector<Column> columns = {
      {"node", "name in the launch file"},
      {"state", "running, stopped, restarting, disabled and so on"},
      {"pid", "its process"},
      {"uptime", "time since the start of a running node"},
      {"started", "time of the last start"},
      {"policy", "restart, oneshot, manual or manual+oneshot"},
      {"required", "nodes that restart when this node stops"},
      {"executable", "program of the node"}};
  return columns;
}

Cell cellFor(const NodeView& view, const std::string& column) {
  if (column == "node") return {terminalText(view.name)};
  if (column == "state") {
    std::string word = wordFor(view.condition);
    if (view.condition == Condition::RESTARTING) {
      word += " in " + formatSpan(view.restartInSeconds);
    }
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
  return {orDash(view.executable)};
}

ExitStatus showStatus(Session& session, const StatusOptions& options) {
  const Subjects subjects = findSubjects(session, options.nodes);
  if (subjects.status != kDone) return subjects.status;
  const RunningLauncher& launcher = subjects.launcher;
  ControlClient client = session.client(kReplyLimit, "asking the launcher");
  std::vector<NodeView> views;
  ExitStatus result = kDone;
  for (const std::string& name : subjects.names) {
    const StatusReply reply = client.status(name);
    if (!reply.isDone()) {
      session.complainAbout(name, reply, launcher.file);
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
  session.clearActivity();
  if (session.settings().isQuiet) return result;
  if (options.isJson) {
    printJson(launcher, views);
  } else {
    printTable(options, session.settings(), launcher, views);
  }
  return result;
}

ExitStatus showNames(Session& session, char separator) {
  // With a launch file given no launcher is needed.
  if (session.settings().launchFile.empty()) {
    if (const ExitStatus status = session.findLauncher(); status != kDone) {
      return status;
    }
  }
  std::string error;
  const RunningLauncher* const launcher = session.launcher(error);
  if (launcher == nullptr) {
    session.complain(error);
    return kUsage;
  }
  for (const LaunchNode& node : launcher->file.nodes) {
    standardOutput() << (separator == '\0' ? nulTerminated(node.name)
                                           : lineFor(node.name));
  }
  return kDone;
}

ExitStatus ping(Session& session) {
  const auto begin = std::chrono::steady_clock::now();
  if (const ExitStatus status = session.findLauncher(); status != kDone) {
    return status;
  }
  const std::chrono::duration<double, std::milli> elapsed =
      std::chrono::steady_clock::now() - begin;
  if (session.settings().isQuiet) return kDone;
  char text[64];
  (void)std::snprintf(text, sizeof(text), " answers in %.1f ms",
                      elapsed.count());
  const RunningLauncher launcher = session.launcherWithoutFile();
  standardOutput() << introduce(launcher, nameOf(launcher) + text, 0) << "\n";
  return kDone;
}

}  // namespace vorn::launch
