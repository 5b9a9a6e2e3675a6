#include "commands/history.h"

#include <fnmatch.h>

#include <algorithm>
#include <deque>
#include <set>

#include "context/launcher_log.h"
#include "context/node_patterns.h"
#include "live/action_records.h"
#include "live/event_text.h"
#include "live/history_json.h"
#include "live/log_source.h"
#include "live/node_history.h"
#include "output/duration.h"
#include "output/json.h"
#include "output/output.h"
#include "output/table.h"

namespace vorn::launch {
namespace {

// Grows when a member changes its meaning or is removed, not when one is added.
constexpr int kHistorySchema = 1;

/// An event of the log or a recorded action.
struct Entry {
  int64_t timeUs = 0;
  HistoryEvent event;
  std::optional<ActionRecord> action;

  bool isExit() const {
    return !action && event.kind == HistoryEvent::Kind::EXITED;
  }
};

/// The nodes that the arguments select, which may be only in the log.
class Filter {
 public:
  explicit Filter(const std::vector<std::string>& arguments)
      : arguments_(arguments) {}

  bool accepts(const std::string& name_in_log) {
    if (arguments_.empty()) return true;
    bool is_accepted = false;
    for (const std::string& argument : arguments_) {
      const bool fits =
          nameInLog(argument) == name_in_log ||
          (isPattern(argument) &&
           ::fnmatch(argument.c_str(), name_in_log.c_str(), 0) == 0);
      if (fits) found_.insert(argument);
      is_accepted = is_accepted || fits;
    }
    return is_accepted;
  }

  bool accepts(const ActionRecord& action) {
    return std::any_of(
        action.nodes.begin(), action.nodes.end(),
        [this](const std::string& node) { return accepts(nameInLog(node)); });
  }

  /// The first argument that has accepted nothing and is not in the file; empty
  /// if there is none.
  std::string unknownIn(const LaunchFile& file) const {
    for (const std::string& argument : arguments_) {
      if (found_.count(argument) == 0 && file.find(argument) == nullptr) {
        return argument;
      }
    }
    return "";
  }

 private:
  const std::vector<std::string>& arguments_;
  std::set<std::string> found_;
};

/// The last entries, with at most this many exits.
class LastEntries {
 public:
  explicit LastEntries(size_t exits) : most_exits_(exits) {}

  void add(Entry entry) {
    exits_ += entry.isExit() ? 1 : 0;
    entries_.push_back(std::move(entry));
    while (exits_ > most_exits_) {
      exits_ -= entries_.front().isExit() ? 1 : 0;
      entries_.pop_front();
    }
  }

  const std::deque<Entry>& entries() const { return entries_; }

 private:
  size_t most_exits_;
  size_t exits_ = 0;
  std::deque<Entry> entries_;
};

/// Adds recorded actions between the events of the log, by their times.
class Merger {
 public:
  Merger(std::vector<ActionRecord> actions, Filter& filter, LastEntries& target)
      : actions_(std::move(actions)), filter_(filter), target_(target) {}

  void add(const HistoryEvent& event) {
    addActionsUntil(event.timeUs);
    if (event.node.empty() || filter_.accepts(event.node)) {
      target_.add({event.timeUs, event, std::nullopt});
    }
  }

  void finish() { addActionsUntil(INT64_MAX); }

 private:
  void addActionsUntil(int64_t time_us) {
    for (; next_ < actions_.size() && actions_[next_].timeUs <= time_us;
         ++next_) {
      const ActionRecord& action = actions_[next_];
      if (!filter_.accepts(action)) continue;
      target_.add({action.timeUs, HistoryEvent(), action});
    }
  }

  const std::vector<ActionRecord> actions_;
  size_t next_ = 0;
  Filter& filter_;
  LastEntries& target_;
};

Json jsonOf(const Entry& entry) {
  if (!entry.action) return jsonOf(entry.event);
  const ActionRecord& action = *entry.action;
  return {{"time", formatUtc(action.timeUs)},
          {"event", "action"},
          {"nodes", action.nodes},
          {"command", action.command},
          {"user", action.user},
          {"outcome", action.outcome},
          {"reason", action.reason.empty() ? Json() : Json(action.reason)}};
}

std::string namesIn(const Entry& entry) {
  if (!entry.action) return entry.event.node.empty() ? "-" : entry.event.node;
  std::string text;
  for (const std::string& node : entry.action->nodes) {
    if (!text.empty()) text += ' ';
    text += node;
  }
  return text;
}

Colour colourOf(const Entry& entry) {
  if (entry.action) return Colour::BOLD;
  if (entry.event.isFailure()) return Colour::RED;
  return entry.event.isForced() ? Colour::YELLOW : Colour::NONE;
}

void printTable(const std::deque<Entry>& entries, bool has_colours) {
  Table table;
  table.header = {"TIME", "NODE", "EVENT", "RUN"};
  for (const Entry& entry : entries) {
    const int64_t run_us = entry.event.runUs;
    table.rows.push_back(
        {{terminalText(formatTime(entry.timeUs / kSecondUs))},
         {terminalText(namesIn(entry))},
         {terminalText(entry.action ? actionText(*entry.action)
                                    : eventText(entry.event)),
          colourOf(entry)},
         {run_us < 0 ? "-" : terminalText(formatSpan(run_us / kSecondUs))}});
  }
  Output out = standardOutput();
  printAligned(out, table, has_colours);
}

void printJson(const std::string& log, const std::deque<Entry>& entries) {
  Json events = Json::array();
  for (const Entry& entry : entries) events.push_back(jsonOf(entry));
  standardOutput() << jsonText(
      {{"schema", kHistorySchema}, {"log", log}, {"events", events}});
}

}  // namespace

ExitStatus showHistory(Context& context, const HistoryOptions& options) {
  const LauncherLog log = findLauncherLog(context);
  if (log.status != kDone) return log.status;
  Filter filter(options.nodes);
  LastEntries last(options.exits);
  Merger merger(readActionRecords(kActionFile, options.sinceUs), filter, last);
  std::string error;
  const bool is_read = readEvents(
      log.launcher, log.location, options.sinceUs,
      [&](const HistoryEvent& event) { merger.add(event); }, {}, error);
  if (!is_read) {
    context.printError(error);
    return kUsage;
  }
  merger.finish();
  const std::string unknown = filter.unknownIn(log.launcher.file);
  if (!unknown.empty()) {
    context.printError(unknown +
                       ": no such node in the launch file or the log");
    return kNoSuchNode;
  }
  if (options.isJson) {
    printJson(log.location.name, last.entries());
  } else {
    printTable(last.entries(), context.settings().hasColours);
  }
  return kDone;
}

}  // namespace vorn::launch
