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

#include "live/log_line.h"

namespace vorn::launch {

/// One event in the life of a node or of a launcher.
struct HistoryEvent {
  enum class Kind {
    LAUNCHER_STARTED,   // `launcher` has begun to read its launch file
    LAUNCHER_STOPPING,  // by SIGTERM: it stops all nodes and exits
    STARTED,
    EXITED,
    LOST,                // its launcher ended; the log does not have its exit
    START_REFUSED,       // the node is disabled
    START_SKIPPED,       // the first attempt of a node without autostart
    EXECUTABLE_MISSING,  // the node is disabled from now on
    FORK_FAILED,
    STOP_FAILED,        // the kernel refused the signal; `detail` is the reason
    RESTART_CANCELLED,  // stopped while it waited for its restart
  };
  /// Why the node was started or has exited.
  enum class Cause {
    UNKNOWN,
    START_UP,  // of the launcher
    ITSELF,    // it exited without a command, or is restarted after that
    OPERATOR,  // a command on the control socket
    REQUIRED,  // a node that requires it was stopped or restarted
  };

  int64_t timeUs = 0;  // since the epoch; 0 if unknown
  Kind kind = Kind::STARTED;
  Cause cause = Cause::UNKNOWN;
  std::string node;  // as the log writes it; empty if it is not known
  pid_t launcher = 0;
  // Of EXITED:
  pid_t pid = 0;
  int code = 0;        // CLD_EXITED, CLD_KILLED or CLD_DUMPED
  int status = 0;      // exit status, or the signal
  int64_t runUs = -1;  // duration of the run; -1 if unknown, also of LOST
  bool isOneshot = false;
  bool isExecutionFailed = false;  // the program could not be executed
  std::string detail;  // the path of a missing executable, or a reason

  bool isSignal() const;
  bool isCoreDumped() const;
  /// SIGTERM had no effect in time, so the launcher has sent SIGKILL.
  bool isForced() const;
  /// It exited by itself with a signal or another status than 0.
  bool isFailure() const;
};

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
  void reportExit(Launcher& launcher, const Run& run,
                  HistoryEvent::Cause cause);
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
