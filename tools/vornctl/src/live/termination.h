#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "live/process_table.h"

namespace vorn::launch {

/// The outcome for a process that was to be terminated.
struct Termination {
  enum class Outcome { TERMINATED, KILLED, RUNNING };

  Process process;
  Outcome outcome = Outcome::RUNNING;
  std::string error;  // the reason for RUNNING
};

/// Sends SIGTERM to these processes, and SIGKILL to those that still run after
/// `grace`. Uses pidfds, and checks the start time after opening one, so that
/// a process that has got the pid of an exited one receives no signal. A
/// readable `cancel_fd` (-1: none) ends the wait without SIGKILL.
std::vector<Termination> terminate(const std::vector<Process>& processes,
                                   std::chrono::milliseconds grace,
                                   int cancel_fd);

}  // namespace vorn::launch
