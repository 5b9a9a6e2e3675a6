#pragma once

#include <string>

#include "control_client.h"

namespace vorn::launch {

/// The exit status of vornctl. Scripts rely on the numbers; exit_status.cpp
/// contains their meanings.
enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kNotRunning = 3,
  kNoSuchNode = 4,
  kNoLauncher = 5,
  kTimedOut = 6,
  kUnknown = 7,
  kProtocolError = 8,
  kUntrusted = 9,
  kTryLater = 21,  // as updaters expect it
};

/// The section "Exit status" of the help of a command; of all commands if
/// `command` is empty.
std::string exitStatusHelp(const std::string& command);

inline ExitStatus exitStatusOf(Outcome outcome) {
  switch (outcome) {
    case Outcome::DONE:
      return kDone;
    case Outcome::FAILED:
      return kFailed;
    case Outcome::NOT_FOUND:
      return kNoSuchNode;
    case Outcome::INVALID_NAME:
      return kUsage;
    case Outcome::NO_LAUNCHER:
      return kNoLauncher;
    case Outcome::UNTRUSTED:
      return kUntrusted;
    case Outcome::NOT_SENT:
      return kTimedOut;
    case Outcome::UNKNOWN:
      return kUnknown;
    case Outcome::PROTOCOL_ERROR:
      break;
  }
  return kProtocolError;
}

}  // namespace vorn::launch
