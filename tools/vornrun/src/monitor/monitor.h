#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

#include "account.h"
#include "monitor/node_state.h"
#include "process/environment.h"
#include "run_arguments.h"
#include "run_settings.h"

// The process that watches a node from outside, for the options that need one:
// logs, readiness, watchdog, probe and the state file. It is not a child of the
// program: a child would surprise a program that waits for all of its children.
//
//   node ── fork ── (exits at once) ── fork ── guardian ── fork ── monitor
//
// The guardian only keeps the pipes open and restarts the monitor when that is
// killed, so that the node never writes to a pipe without a reader. Both exit
// after the node, which they follow by its pidfd.

namespace vorn::run {

/// The node that is watched. Its probes run as the same user and in the same
/// environment.
struct MonitoredNode {
  std::string name;
  const Account* account = nullptr;  // nullptr: the user of vornrun
  const Environment& environment;    // without the variables of the monitor
};

/// The program's ends of the connections to the monitor; the caller owns the
/// descriptors, which exec closes. -1 or empty: not connected.
struct MonitorConnection {
  int standardOutput = -1;   // becomes descriptor 1
  int standardError = -1;    // becomes descriptor 2
  int ready = -1;            // becomes that of --ready fd:N
  int phases = -1;           // for reportPhase()
  std::string notifySocket;  // the value of NOTIFY_SOCKET
};

/// Starts the monitor of the calling process, which becomes the node, if an
/// option needs it. Returns the error, if any; no process remains then.
std::optional<RunError> startMonitor(const RunSettings& settings,
                                     const MonitoredNode& node,
                                     MonitorConnection& connection);

/// Adds the variables of sd_notify(3) to the environment of the program.
void addNotifyVariables(const RunSettings& settings,
                        const MonitorConnection& connection,
                        Environment& environment);

/// Makes the connections the descriptors of the program, which must be executed
/// next. `original_error`, which must be -1, becomes a descriptor of the
/// original standard error, which exec closes, if that is replaced. Returns the
/// error, if any.
std::optional<RunError> connectProgram(const RunSettings& settings,
                                       const MonitorConnection& connection,
                                       int& original_error);

/// Sends WAITING, DELAYED, STARTING or GAVE_UP to the monitor; the monitor
/// itself finds out the later phases. Without a monitor, nothing happens.
void reportPhase(const MonitorConnection& connection,
                 const PhaseMessage& message);

}  // namespace vorn::run
