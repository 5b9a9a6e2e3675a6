#include "live/history_event.h"

#include <csignal>

namespace vorn::launch {

bool HistoryEvent::isSignal() const {
  return code == CLD_KILLED || code == CLD_DUMPED;
}

bool HistoryEvent::isCoreDumped() const { return code == CLD_DUMPED; }

bool HistoryEvent::isForced() const {
  return isSignal() && status == SIGKILL &&
         (cause == Cause::OPERATOR || cause == Cause::REQUIRED);
}

bool HistoryEvent::isFailure() const {
  return kind == Kind::EXITED && cause == Cause::ITSELF &&
         (isSignal() || status != 0);
}

}  // namespace vorn::launch
