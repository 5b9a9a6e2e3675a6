#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

namespace vorn::launch {

/// The reason why a launcher does not reply.
enum class BusyReason {
  UNKNOWN,
  READING_REQUEST,  // waits for the request of another client
  WRITING_LOG,      // blocked writing to its standard output or error
  LOCKED,           // waits for a lock, which only it can release
  STOPPING_NODE,    // or waits for the 'sleep' of a node
};

/// The reason that the kernel functions show in which the launcher slept,
/// sampled at intervals (empty: it ran, or without the permission). A process
/// that works also waits for a lock or for the reader of its log at times,
/// therefore WRITING_LOG and LOCKED need the same function in all samples.
BusyReason busyReason(const std::vector<std::string>& kernel_functions);

/// Why the launcher `pid` (0: unknown) does not answer, as far as /proc shows,
/// and the remedy: "launcher 42 is suspended ...". If /proc does not show it,
/// the likely reasons.
std::string explainSilence(pid_t pid);

/// The launcher that listens on the socket at this path, which may refuse
/// connections because its queue is full; 0 if that cannot be known.
pid_t findListener(const std::string& socket_path);

/// Whether the process `pid` is known to exit within 200 ms: the kernel closes
/// the connections of a process before it reports the exit.
bool exitsSoon(pid_t pid);

}  // namespace vorn::launch
