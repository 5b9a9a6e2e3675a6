#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <string_view>

// The state of a node as other programs read it: STATEDIR/NODE.json.

namespace vorn::run {

enum class Phase : uint8_t {
  WAITING,   // for the conditions of --wait-for
  DELAYED,   // by --backoff
  STARTING,  // executed, and not ready yet if --ready is set
  READY,
  RUNNING,  // without --ready: executed
  UNHEALTHY,
  GAVE_UP,
};

const char* nameOf(Phase phase);

/// What vornrun reports by reportPhase() before it executes the program.
struct PhaseMessage {
  Phase phase = Phase::STARTING;
  uint32_t restarts = 0;     // quick ones, one after the other
  int64_t delayedUntil = 0;  // Unix time in s; 0: not delayed
  uint32_t condition = 0;    // the number of the --wait-for that it waits for
};

/// Plain data in memory that the guardian shares with the monitor, so that a
/// restarted monitor continues with it.
struct NodeState {
  Phase phase = Phase::STARTING;
  int64_t phaseSince = 0;  // Unix time in s
  char status[256] = {};   // printable text: the condition that it waits for,
                           // later the STATUS= of the program
  bool expectsReadiness = false;
  bool isReady = false;
  bool isStopping = false;  // STOPPING=1: no longer watched
  bool isExecuted = false;  // the program, not vornrun
  int64_t executedMs = 0;   // on the monotonic clock
  int64_t readyMs = 0;      // on the monotonic clock
  uint32_t restarts = 0;
  int64_t delayedUntil = 0;   // Unix time in s; 0: not delayed
  uint64_t droppedBytes = 0;  // output that reached no log
  uint64_t heldBytes = 0;     // output that was read and not yet written
  uint64_t ignoredMessages = 0;
  int64_t watchdogPeriodMs = 0;  // 0: no watchdog
  int64_t watchdogLastMs = 0;    // the last WATCHDOG=1, on the monotonic clock
  bool hasProbeResult = false;
  bool isProbeOk = false;
  char probeMessage[200] = {};  // printable text
  int64_t probeTime = 0;        // Unix time in s
  int64_t killAtMs = 0;  // the time of SIGKILL, on the monotonic clock; 0: none
  uint32_t monitorStarts = 0;
  uint64_t fileInode = 0;  // of the state file; 0: not written
};

/// The process that a state file describes: `startTime` in clock ticks since
/// the boot, as in /proc/PID/stat.
struct NodeIdentity {
  std::string name;
  pid_t pid = 0;
  uint64_t startTime = 0;
};

/// The content of the state file: one JSON object and a line end.
std::string stateText(const NodeState& state, const NodeIdentity& node);

/// Copies `text` with '?' for control characters and for bytes that are not
/// UTF-8, cut to `size` - 1 bytes at a character, and adds a NUL.
void copyPrintable(std::string_view text, char* to, size_t size);

}  // namespace vorn::run
