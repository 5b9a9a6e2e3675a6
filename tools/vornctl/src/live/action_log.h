#pragma once

#include <sys/types.h>

#include <string>

#include "control_client.h"
#include "live/action_records.h"

namespace vorn::launch {

/// Records one invocation of an action: in the system log, and in kActionFile,
/// which only root can write.
class ActionRecorder {
 public:
  /// The action starts now, by the user and on the terminal of this process.
  ActionRecorder(const std::string& command, const std::string& reason,
                 pid_t launcher_pid);

  /// Adds the outcome of a request for the node `name`, unless none was sent.
  void add(const std::string& name, Outcome outcome);

  /// Writes the record with the current time as its end, unless no request was
  /// sent. Waits at most 1 s for other writers. Returns the reason why the
  /// record is not in the file; empty if it is, or if this is not root and the
  /// system log has it.
  std::string write();

 private:
  ActionRecord record_;
};

/// The sentence of a record in the system log: at most about 4 KiB, with
/// control characters escaped.
std::string sentenceOf(const ActionRecord& record);

}  // namespace vorn::launch
