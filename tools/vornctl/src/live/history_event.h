#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>

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

}  // namespace vorn::launch
