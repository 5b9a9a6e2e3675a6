#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>

#include "live/log_history.h"

namespace vorn::launch {

/// The causes by which restarts are counted.
constexpr std::array kCountedCauses = {
    HistoryEvent::Cause::ITSELF, HistoryEvent::Cause::OPERATOR,
    HistoryEvent::Cause::REQUIRED, HistoryEvent::Cause::UNKNOWN};

/// How often a node was started, for each of kCountedCauses.
using CountsByCause = std::array<uint64_t, kCountedCauses.size()>;

/// Counts the starts of each node after the start-up of one launcher. The
/// counts can be saved as text, so that only the new part of a log has to be
/// read.
class RestartCounts {
 public:
  /// For the launcher that `launcher` identifies, which began at `start_us`.
  /// Continues the counts in `saved`, a text of save(), if they are of the same
  /// launcher; ignores any other text.
  RestartCounts(std::string launcher, int64_t start_us,
                const std::string& saved);

  /// The time since which the log is needed, in microseconds since the epoch.
  int64_t sinceUs() const;

  /// Counts an event that is later than those before. Ignores events that the
  /// saved counts contain.
  void add(const HistoryEvent& event);

  const CountsByCause& of(const std::string& name_in_log) const;

  std::string save() const;

 private:
  std::string launcher_;
  int64_t start_us_;
  int64_t saved_until_us_ = 0;  // the last event in the saved counts
  int64_t until_us_ = 0;
  std::map<std::string, CountsByCause> nodes_;
};

}  // namespace vorn::launch
