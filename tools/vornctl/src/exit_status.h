#pragma once

#include "control_client.h"

namespace vorn::launch {

/// How vornctl ends; scripts rely on the numbers.
enum ExitStatus : int {
  kDone = 0,           // done, or the condition is true
  kFailed = 1,         // an operation FAILED, or check has found something
  kUsage = 2,          // wrong usage; nothing was asked of the launcher
  kNotRunning = 3,     // status: a named node does not run; wait: the
                       // condition did not hold
  kNoSuchNode = 4,     // the launcher has no such node
  kNoLauncher = 5,     // nobody listens, or we may not connect
  kTimedOut = 6,       // given up before sending; wait: given up waiting
  kUnknown = 7,        // sent, but the outcome is not known
  kProtocolError = 8,  // the reply makes no sense
  kUntrusted = 9,      // the launcher belongs to somebody else
};

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
