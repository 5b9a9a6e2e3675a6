#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "monitor/child_process.h"
#include "monitor/poll_set.h"
#include "run_settings.h"
#include "start/network.h"

namespace vorn::run {

struct CheckResult {
  bool isOk = false;
  std::string message;  // the reason of a failure; any bytes
};

/// Repeated attempts to find out whether a condition is true, one at a time and
/// without waiting. NOTIFY and FD are not conditions that can be checked.
class ConditionCheck {
 public:
  /// The references must outlive the check; commands run as the node's user, in
  /// its environment and in `directory`.
  ConditionCheck(const Condition& condition, const MonitoredNode& node,
                 const std::string& directory);
  ~ConditionCheck();
  ConditionCheck(const ConditionCheck&) = delete;
  ConditionCheck& operator=(const ConditionCheck&) = delete;

  /// Starts an attempt. Not while isBusy().
  void begin(int64_t now_ms, int64_t timeout_ms);

  /// An attempt runs, or the command of the last one has not ended yet.
  bool isBusy() const { return is_running_ || command_.isRunning(); }

  void addPolls(PollSet& polls) const;
  int64_t deadline() const;

  /// The result of the attempt, once.
  std::optional<CheckResult> proceed(const PollSet& polls, int64_t now_ms);

  /// Ends a command.
  void stop();

 private:
  CheckResult checkFile();
  void connectToNextAddress(int error);
  void beginCommand();
  void readOutput();
  CheckResult commandResult();
  void finish(CheckResult result);
  void closeDescriptor();

  const Condition& condition_;
  const MonitoredNode& node_;
  const std::string& directory_;
  bool is_running_ = false;
  std::optional<CheckResult> result_;
  int64_t timeout_ms_ = 0;
  int64_t ends_at_ms_ = 0;
  int fd_ = -1;  // a connection, or the output of a command
  ChildProcess command_;
  std::vector<SocketAddress> addresses_;
  size_t next_address_ = 0;
  std::string output_;                   // the beginning of that of the command
  std::optional<timespec> last_change_;  // of a FILE
};

}  // namespace vorn::run
