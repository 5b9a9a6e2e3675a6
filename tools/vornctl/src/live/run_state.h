#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "live/launcher_process.h"

namespace vorn::launch {

/// What vornrun reports about a run of a node, from its state file. Times are
/// in seconds since the epoch.
struct RunState {
  struct Probe {
    bool isOk = false;
    std::string message;
    int64_t time = 0;
  };

  std::string phase;  // "waiting", "delayed", "starting", "ready", "running",
                      // "unhealthy" or "gave up"
  int64_t phaseSince = 0;
  std::string status;           // the STATUS= of the program; in the phase
                                // "waiting" the condition it waits for
  std::optional<bool> isReady;  // nothing without --ready
  int64_t restarts = 0;         // quick ones, one after the other
  std::optional<int64_t> delayedUntil;
  int64_t droppedBytes = 0;  // output that reached no log
  std::optional<Probe> lastProbe;

  /// Whether the node can be used, as far as vornrun checks it.
  bool isUp() const { return phase == "ready" || phase == "running"; }

  /// Whether vornrun has disabled the node after too many restarts.
  bool hasGivenUp() const { return phase == "gave up"; }

  /// Whether an operator has to do something.
  bool isFailing() const {
    return phase == "delayed" || phase == "unhealthy" || hasGivenUp();
  }
};

/// The run of a node that a state file has to be about.
struct RunIdentity {
  pid_t pid = 0;                       // 0: it has ended
  std::optional<uint64_t> startTicks;  // nothing: unknown
  int64_t startSeconds = 0;            // of the run, since the epoch
};

/// The content of a state file; nothing if it is invalid or about another run.
/// Of the runs that have ended, only one that gave up has a file.
std::optional<RunState> parseRunState(const std::string& text,
                                      const RunIdentity& run);

/// The state of a node whose program is vornrun; nothing if it has none.
struct NodeRun {
  std::optional<RunState> state;
  bool isExpected = false;  // vornrun will report a state, or has done so
};

/// Reads the state file of a node of `launcher`, whose last run has the `pid`
/// and the `start_seconds` of the launcher's reply. Only files of root or of
/// the launcher's user are trusted.
NodeRun readNodeRun(const LauncherProcess& launcher,
                    const LaunchFile::Node& node, pid_t pid,
                    int64_t start_seconds);

}  // namespace vorn::launch
