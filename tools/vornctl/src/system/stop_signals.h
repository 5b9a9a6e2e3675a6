#pragma once

namespace vorn::launch {

/// Lets SIGINT, SIGTERM and SIGHUP terminate the process at once: for commands
/// that only compute and have no request in flight. A signal that the caller
/// ignores stays ignored. If a signal has already been caught, which
/// `cancel_fd` reports by a byte with the number, it terminates the process
/// now.
void dieByStopSignals(int cancel_fd);

}  // namespace vorn::launch
