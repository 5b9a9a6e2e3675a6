#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "live/history_event.h"
#include "live/log_line.h"

namespace vorn::launch {

/// Derives events from the lines of launchers, oldest first, in memory that
/// depends only on the number of nodes.
class LogHistory {
 public:
  using Receiver = std::function<void(const HistoryEvent&)>;
  /// The names of the nodes, as in the log, with an executable.
  using Executables = std::multimap<std::string, std::string>;

  /// The log names the executable, not the node, if an executable is missing.
  explicit LogHistory(Receiver receiver, Executables executables = {});

  /// Adds one line of the log, without its line end; lines that are not a
  /// launcher's have no effect. `time_us` is used for lines without a time.
  /// `writer`, if not 0, is the process that wrote the line according to the
  /// journal.
  void add(int64_t time_us, pid_t writer, std::string_view text);

  /// Reports events that waited for a next line.
  void finish();

 private:
  /// A run whose exit the log does not have yet.
  struct Run {
    std::string node;
    int64_t startUs = 0;  // 0 if unknown
    size_t number = 0;    // of the start, counted for each launcher
    HistoryEvent::Cause stopCause = HistoryEvent::Cause::UNKNOWN;
    bool isOpen = false;
  };
  struct NodeState {
    bool isKnown = false;  // the log has shown it
    Run run;
    bool waitsForRestart = false;
    bool isStopRefused = false;  // it can exit by itself later
  };
  /// An event whose cause the next line can change.
  struct Pending {
    HistoryEvent event;
    bool isRestarted = false;  // a run was stopped for it
  };
  /// A launcher and what its log has shown.
  struct Launcher {
    pid_t pid = 0;
    bool isLoading = false;     // it reads its launch file
    bool isStartingUp = false;  // it starts its nodes
    std::map<std::string, NodeState> nodes;
    size_t starts = 0;
    // Runs whose node has been started again before their exits were
    // collected, by the numbers of their starts: the exits have no name.
    std::map<size_t, Run> replaced;
    size_t lastReplaced = 0;  // the key of the last one
    int command = -1;         // of the last line, otherwise -1
    int64_t commandUs = 0;
    // Stop commands whose exit the log can still have: the last command, and
    // the one before it, since the launcher handles a signal after at most one
    // further command.
    bool isStopLast = false;
    bool isStopBefore = false;
    bool isInExits = false;            // the last line was about an exit
    std::optional<HistoryEvent> exit;  // its next lines are still to come
    // The exit of a oneshot that a stop command has probably caused, and those
    // after it: one of them can prove that the command was for another node.
    std::vector<HistoryEvent> held;
    std::optional<Pending> pending;
  };

  Launcher& launcherOf(const LogLine& line);
  NodeState& stateOf(Launcher& launcher, const std::string& node);
  void addLine(Launcher& launcher, const LogLine& line);
  bool addExitLine(Launcher& launcher, std::string_view text);
  bool addReapLine(Launcher& launcher, std::string_view text);
  static void forgetStop(Launcher& launcher);
  bool addControlLine(Launcher& launcher, std::string_view text);
  bool addStartLine(Launcher& launcher, std::string_view text);
  void addStarted(Launcher& launcher, const std::string& name);
  void addRefused(Launcher& launcher, const std::string& name);
  void addMissing(Launcher& launcher, const std::string& path);
  void addStopFailed(Launcher& launcher, std::string_view text);
  void settlePending(Launcher& launcher, std::string_view text);
  void settleExit(Launcher& launcher);
  void reportExit(Launcher& launcher, const Run& run, HistoryEvent::Cause cause,
                  bool is_unsure = false);
  void releaseHeld(Launcher& launcher);
  void replaceRun(Launcher& launcher, NodeState& node);
  void endLauncher(Launcher& launcher);
  HistoryEvent::Cause causeOfStart(const Launcher& launcher,
                                   const NodeState& node) const;
  bool isRestarted(const Launcher& launcher, const NodeState& node) const;
  HistoryEvent eventOf(const Launcher& launcher, HistoryEvent::Kind kind,
                       const std::string& node) const;

  Receiver receiver_;
  Executables executables_;
  std::vector<Launcher> launchers_;   // the latest last
  std::set<pid_t> execution_failed_;  // children that could not execute theirs
  int64_t time_us_ = 0;               // of the current line
};

}  // namespace vorn::launch
