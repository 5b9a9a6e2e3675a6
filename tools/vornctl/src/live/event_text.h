#pragma once

#include <string>

#include "live/action_records.h"
#include "live/log_history.h"

namespace vorn::launch {

/// "SIGSEGV", or "signal 40" for a signal without a name.
std::string signalName(int signal);

/// An exit in a word: its status, or the name of the signal.
std::string exitWord(const HistoryEvent& exit);

/// An exit after a subject: "exited with status 3", "was killed by SIGSEGV
/// (Segmentation fault), core dumped".
std::string exitText(const HistoryEvent& exit);

/// An event after a subject, with its cause: "restarted after its exit".
std::string eventText(const HistoryEvent& event);

/// "stop by alice: battery change"; the outcome, if it is not "done".
std::string actionText(const ActionRecord& action);

/// The name of an event or a cause for programs, such as "exited".
const char* wordFor(HistoryEvent::Kind kind);
const char* wordFor(HistoryEvent::Cause cause);

}  // namespace vorn::launch
