#include "commands/logs.h"

#include <algorithm>
#include <deque>

#include "context/launcher_log.h"
#include "live/log_time.h"
#include "live/node_lines.h"
#include "output/output.h"
#include "output/table.h"
#include "system/stop_signals.h"

namespace vorn::launch {
namespace {

using LocationKind = LogLocation::Kind;

constexpr size_t kFollowedLines = 10;  // that are printed first, as by tail(1)

struct SelectedNode {
  std::string name;  // as the log writes it
  std::string executable;
  // The run of --previous.
  int64_t beginUs = 0;
  int64_t endUs = INT64_MAX;
};

/// One line that may be printed.
struct Line {
  const LogRecord& record;
  std::optional<LogLine> launchers;  // the launcher's line, if it is one
  std::string writer;                // the node, if it is known
  int64_t timeUs;
};

class Logs {
 public:
  Logs(Context& context, const LogsOptions& options, const LauncherLog& log,
       const std::vector<std::string>& names)
      : context_(context),
        options_(options),
        log_(log.location),
        is_journal_(log_.kind == LocationKind::JOURNAL),
        writers_(is_journal_ && log_.path.empty()),
        since_us_(options.sinceUs) {
    for (const std::string& name : names) {
      const auto* const node = log.launcher.file.find(name);
      nodes_.push_back({nameInLog(name),
                        node == nullptr ? "" : nameInLog(node->executable)});
    }
  }

  ExitStatus run() {
    std::string error;
    if ((is_journal_ || options_.isPrevious) && !learn(error)) {
      return fail(error);
    }
    if (options_.isPrevious && !selectRuns()) return kFailed;
    if (!is_journal_ && !nodes_.empty()) explainFile();
    LogPosition position;
    LogPosition* const end = options_.isFollowed ? &position : nullptr;
    if (!print(end, error)) return fail(error);
    standardOutput().flush();
    if (!options_.isFollowed) return kDone;
    const LogReader reader = [this](const LogRecord& record) {
      follow(record);
      return standardOutput().isGood();
    };
    return followLog(log_, position, -1, reader, error) ? kDone : fail(error);
  }

 private:
  /// A line of a node that has exited before its environment could be read.
  struct HeldLine {
    LogRecord record;
    std::string text;
  };

  ExitStatus fail(const std::string& error) const {
    standardOutput().flush();
    context_.printError(error);
    return kUsage;
  }

  bool learn(std::string& error) {
    LogLocation launchers = log_;
    // The lines of nodes are many and not needed here.
    if (is_journal_) launchers.matches.emplace_back("_COMM=vornlaunch");
    const LogReader reader = [this](const LogRecord& record) {
      writers_.learn(record);
      return true;
    };
    const bool is_read = readLog(launchers, since_us_, reader, error);
    writers_.finishLearning();
    return is_read;
  }

  /// Finds the runs of --previous; false after an error.
  bool selectRuns() {
    for (SelectedNode& node : nodes_) {
      const LineWriters::Run* const run = writers_.lastRunOf(node.name);
      if (run == nullptr) {
        context_.printError(node.name + ": " + log_.name +
                            " contains no run that has ended");
        return false;
      }
      node.beginUs = run->startUs;
      node.endUs = run->reportEndUs;
    }
    const auto begins = [](const SelectedNode& one, const SelectedNode& other) {
      return one.beginUs < other.beginUs;
    };
    const auto ends = [](const SelectedNode& one, const SelectedNode& other) {
      return one.endUs < other.endUs;
    };
    since_us_ = std::max(
        since_us_,
        std::min_element(nodes_.begin(), nodes_.end(), begins)->beginUs);
    end_us_ = std::max_element(nodes_.begin(), nodes_.end(), ends)->endUs;
    return true;
  }

  void explainFile() const {
    if (context_.settings().isQuiet) return;
    context_.printError(
        log_.name +
        " does not show which node has written a line: printing only the "
        "launcher's lines about the nodes; see 'Output of single nodes' in "
        "operations.md");
  }

  bool print(LogPosition* end, std::string& error) {
    const LogReader reader = [this](const LogRecord& record) {
      const Line line = lineOf(record);
      if (isShown(line)) printLine(line);
      return line.timeUs <= end_us_;
    };
    std::optional<size_t> count = options_.count;
    if (options_.isFollowed && !count && since_us_ == 0 &&
        log_.kind != LocationKind::STANDARD_INPUT) {
      count = kFollowedLines;
    }
    if (!count) return readLog(log_, since_us_, reader, error, end);
    const auto matches = [this](const LogRecord& record) {
      return isShown(lineOf(record));
    };
    return readLogEnd(log_, *count, since_us_, matches, reader, error, end);
  }

  Line lineOf(const LogRecord& record) {
    Line line{record, launcherLineIn(record), "", record.timeUs};
    if (line.launchers && line.timeUs == 0) {
      line.timeUs = line.launchers->timeUs;
    }
    if (!line.launchers) line.writer = writers_.nodeOf(record);
    return line;
  }

  bool isShown(const Line& line) const {
    if (nodes_.empty()) return true;
    return std::any_of(
        nodes_.begin(), nodes_.end(), [&line](const SelectedNode& node) {
          if (line.timeUs < node.beginUs || line.timeUs > node.endUs) {
            return false;
          }
          return line.launchers ? isAboutNode(line.launchers->text, node.name,
                                              node.executable)
                                : line.writer == node.name;
        });
  }

  /// Prints a line in the form of the launcher's log in a file; in the journal
  /// those of nodes begin with their writers.
  void printLine(const Line& line) {
    Output out = standardOutput();
    OutputText text;
    if (is_journal_) {
      text += terminalText(formatLogTime(line.record.timeUs) + ' ');
      if (!line.launchers) {
        text += terminalText(line.writer.empty() ? "-" : line.writer) + "[" +
                line.record.pid + "]: ";
      }
    }
    text += terminalText(line.record.text);
    out << (context_.settings().hasColours ? coloured(text, colourOf(line))
                                           : text)
        << "\n";
    if (options_.isFollowed) out.flush();
  }

  static Colour colourOf(const Line& line) {
    if (!line.launchers) return Colour::NONE;
    if (line.launchers->level == "ERROR") return Colour::RED;
    return line.launchers->level == "WARN" ? Colour::YELLOW : Colour::FAINT;
  }

  /// Prints a new record, or holds it until the launcher has reported the exit
  /// of its writer.
  void follow(const LogRecord& record) {
    const size_t known = writers_.runCount();
    if (is_journal_) writers_.learn(record);
    if (writers_.runCount() != known) releaseHeld();
    const Line line = lineOf(record);
    if (isShown(line)) {
      printLine(line);
    } else if (is_journal_ && !line.launchers && line.writer.empty()) {
      constexpr size_t kMostHeld = 1000;
      if (held_.size() == kMostHeld) held_.pop_front();
      held_.push_back({record, std::string(record.text)});
      held_.back().record.identifier = {};
    }
  }

  void releaseHeld() {
    std::deque<HeldLine> kept;
    for (HeldLine& held : held_) {
      held.record.text = held.text;
      const Line line = lineOf(held.record);
      if (isShown(line)) {
        printLine(line);
      } else if (line.writer.empty()) {
        kept.push_back(std::move(held));
      }
    }
    held_ = std::move(kept);
  }

  Context& context_;
  const LogsOptions& options_;
  const LogLocation& log_;
  bool is_journal_;
  LineWriters writers_;
  std::vector<SelectedNode> nodes_;  // empty: all
  // The part of the log that is read.
  int64_t since_us_;
  int64_t end_us_ = INT64_MAX;
  std::deque<HeldLine> held_;
};

}  // namespace

ExitStatus showLogs(Context& context, const LogsOptions& options) {
  if (options.isPrevious && options.nodes.empty()) {
    context.printError("--previous requires the name of a node");
    return kUsage;
  }
  if (options.isPrevious && context.settings().logFile == "-") {
    context.printError(
        "--previous cannot read standard input, which can be read only once");
    return kUsage;
  }
  LauncherLog log = findLauncherLog(context);
  if (log.status != kDone) return log.status;
  const std::vector<std::string> names =
      selectLogged(context, options.nodes, log);
  if (log.status != kDone) return log.status;
  dieByStopSignals(context.settings().cancelFd);
  return Logs(context, options, log, names).run();
}

}  // namespace vorn::launch
