#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "live/launcher_process.h"
#include "live/log_source.h"
#include "live/node_history.h"
#include "live/node_status.h"
#include "live/node_usage.h"

// The facts about nodes that `top` collects at intervals. Each interval is so
// long that collecting needs a small share of the processor only.

namespace vorn::launch {

/// The time of the next repetition of an activity.
class Repetition {
 public:
  using Clock = std::chrono::steady_clock;

  /// At least `interval` passes between two repetitions.
  explicit Repetition(std::chrono::milliseconds interval)
      : interval_(interval) {}

  bool isDue() const { return Clock::now() >= next_; }

  /// Does it, and postpones the next time if it takes long.
  template <typename Activity>
  void perform(const Activity& activity) {
    constexpr int kShare = 100;  // of the time is used for it
    const Clock::time_point begin = Clock::now();
    activity();
    const Clock::time_point end = Clock::now();
    next_ = end + std::max<Clock::duration>(interval_, kShare * (end - begin));
  }

 private:
  std::chrono::milliseconds interval_;
  Clock::time_point next_{};
};

/// The usage and the history of nodes.
class TopFacts {
 public:
  /// Reads the facts of `launcher`, which is borrowed, from its log and from
  /// /proc. `log_file` as for findLog().
  TopFacts(const LauncherProcess& launcher, std::string log_file)
      : launcher_(launcher), log_file_(std::move(log_file)) {}

  /// Reads what is due; the history if `has_changed` or a minute has passed.
  /// Returns whether the usage was read.
  bool refresh(const std::vector<NodeView>& nodes, bool has_changed);

  /// Adds the facts to the nodes.
  void addTo(std::vector<NodeView>& nodes) const;

  /// The last lines of the log, at most `count`. Empty, with a sentence in
  /// `error`, if it cannot be read.
  const std::vector<std::string>& logLines(size_t count, std::string& error);

 private:
  struct Usage {
    pid_t pid = 0;
    std::optional<double> cpuPercent;
    std::optional<int64_t> memoryBytes;
  };

  void readUsage(std::vector<NodeView> nodes);
  void readHistory(const std::vector<NodeView>& nodes);
  void readLogLines(size_t count);

  const LauncherProcess& launcher_;
  std::string log_file_;
  UsageSampler sampler_;
  std::map<std::string, Usage> usage_;
  NodeHistories histories_;
  bool has_histories_ = false;
  bool has_news_ = true;  // since the history was read
  std::vector<std::string> lines_;
  size_t line_count_ = 0;  // that was requested
  std::string log_error_;
  Repetition usage_time_{std::chrono::seconds(2)};
  Repetition history_time_{std::chrono::seconds(1)};
  Repetition full_history_time_{std::chrono::minutes(1)};
  Repetition line_time_{std::chrono::milliseconds(500)};
};

}  // namespace vorn::launch
