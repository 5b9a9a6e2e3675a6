#pragma once

#include <string_view>

// The datagrams of sd_notify(3).

namespace vorn::run {

/// The assignments of one datagram that have a meaning here; the others, such
/// as ERRNO= and EXTEND_TIMEOUT_USEC=, are ignored.
struct NotifyMessage {
  bool isReady = false;        // READY=1
  bool isStopping = false;     // STOPPING=1
  bool isAlive = false;        // WATCHDOG=1
  bool requestsAbort = false;  // WATCHDOG=trigger: the program is unhealthy
  bool hasStatus = false;      // STATUS=
  std::string_view status;     // part of the datagram
};

/// Accepts any bytes.
NotifyMessage parseNotifyMessage(std::string_view datagram);

}  // namespace vorn::run
