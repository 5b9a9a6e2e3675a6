#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "monitor/condition_check.h"
#include "monitor/node_state.h"
#include "monitor/notify_message.h"

namespace vorn::run {

/// Finds out whether the node is ready (--ready) and whether it is healthy
/// (--watchdog, --probe); records that in its state. Watchdog and probe begin
/// when the node is ready, or has been executed if --ready is not set, and end
/// with STOPPING=1.
class Health {
 public:
  /// The references must outlive this object.
  Health(const RunSettings& settings, const MonitoredNode& node,
         NodeState& state);

  /// The program has been executed.
  void noteExecuted(int64_t now_ms);
  /// The node is ready, according to itself.
  void noteReady(int64_t now_ms);
  void noteMessage(const NotifyMessage& message, int64_t now_ms);

  void addPolls(PollSet& polls) const;
  int64_t deadline() const;
  void proceed(const PollSet& polls, int64_t now_ms);

  /// The option and the reason, once after the node has become unhealthy:
  /// "--watchdog: no WATCHDOG=1 within 5s".
  std::optional<std::string> takeFailure();

  /// Ends the commands of checks.
  void stop();

 private:
  bool isWatched() const;
  int64_t watchedSinceMs() const;
  int64_t watchdogDeadline() const;
  void setPhase(Phase phase);
  void fail(const std::string& reason);
  void proceedReadiness(const PollSet& polls, int64_t now_ms);
  void proceedProbe(const PollSet& polls, int64_t now_ms);
  void noteProbe(const CheckResult& result);

  const RunSettings& settings_;
  NodeState& state_;
  std::optional<ConditionCheck> readiness_;
  int64_t next_readiness_ms_ = 0;
  std::optional<ConditionCheck> probe_;
  int64_t next_probe_ms_ = 0;
  unsigned failed_probes_ = 0;
  std::optional<std::string> failure_;
};

}  // namespace vorn::run
