#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "live/log_history.h"
#include "live/log_line.h"
#include "live/log_source.h"

namespace vorn::launch {

/// The launcher's line in a record. Nothing if it is another text, or if the
/// journal knows that another process has written it.
std::optional<LogLine> launcherLineIn(const LogRecord& record);

/// Whether the text of a launcher's line is about the node with this name and
/// this executable (empty: unknown), both as the log writes them.
bool isAboutNode(std::string_view text, const std::string& name,
                 const std::string& executable);

/// Finds the nodes that have written the lines of a journal: by the exits in
/// the launcher's lines, which have a pid; by the environment of a process
/// while it exists; or by the identifier of a program that `systemd-cat -t
/// NODE` runs.
class LineWriters {
 public:
  /// A run of a node that has ended.
  struct Run {
    std::string node;     // as the log writes it
    int64_t startUs = 0;  // 0 if unknown
    int64_t endUs = 0;
    // The end of the launcher's lines about its exit.
    int64_t reportEndUs = 0;
  };

  /// `sees_processes`: the pids in the log are those of this machine.
  explicit LineWriters(bool sees_processes);
  LineWriters(const LineWriters&) = delete;
  LineWriters& operator=(const LineWriters&) = delete;

  /// Learns from the launcher's lines; other records have no effect. The oldest
  /// first.
  void learn(const LogRecord& record);

  /// Learns from lines that waited for a next one.
  void finishLearning() { history_.finish(); }

  /// The number of runs that have been learned.
  size_t runCount() const { return runs_.size(); }

  /// The last run of a node that has ended; null if none is known.
  const Run* lastRunOf(const std::string& node) const;

  /// The node whose process has written the record, as the log writes it; empty
  /// if unknown.
  std::string nodeOf(const LogRecord& record);

 private:
  struct Process {
    std::string node;
    int64_t startUs = 0;
  };

  void add(const HistoryEvent& event);
  std::string endedNodeOf(const LogRecord& record) const;
  std::string runningNodeOf(const LogRecord& record);

  bool sees_processes_;
  LogHistory history_;
  std::multimap<pid_t, Run> runs_;
  std::map<std::string, Run> last_runs_;
  std::map<pid_t, Process> processes_;  // that existed at the last look
};

}  // namespace vorn::launch
