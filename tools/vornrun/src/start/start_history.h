#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "run_settings.h"

namespace vorn::run {

/// The recent executions of a node's program. A series of quick restarts ends
/// with a run that lasts as long as --reset-after.
class StartHistory {
 public:
  /// The history in the text of a file, empty if the file is of another boot or
  /// not such a file.
  static StartHistory parse(std::string_view text, const std::string& boot_id);

  std::string text(const std::string& boot_id) const;

  /// Forgets everything if the last run lasted until `now` at least as long as
  /// `reset_after`. Times are in milliseconds since the boot.
  void beginStart(int64_t now, milliseconds reset_after);

  /// Records an execution.
  void add(int64_t now);

  /// The delay before the next execution.
  milliseconds delay(const Backoff& backoff) const;

  /// Whether the program was executed too often before `now`.
  bool isCrashLoop(const GiveUp& give_up, int64_t now) const;

  size_t size() const { return starts_.size(); }

 private:
  std::vector<int64_t> starts_;  // the oldest one first
};

}  // namespace vorn::run
