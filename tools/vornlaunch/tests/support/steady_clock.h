#pragma once

#include <chrono>

namespace vorn::test {

/// Stops the steady clock that the launcher's code reads, and moves it by hand;
/// it runs again from the destruction on. One at a time.
class StoppedSteadyClock {
 public:
  /// Stops the clock at `reading` since its epoch.
  explicit StoppedSteadyClock(std::chrono::nanoseconds reading);
  ~StoppedSteadyClock();
  StoppedSteadyClock(const StoppedSteadyClock&) = delete;
  StoppedSteadyClock& operator=(const StoppedSteadyClock&) = delete;

  std::chrono::steady_clock::time_point now() const;
  void advance(std::chrono::nanoseconds time);
};

}  // namespace vorn::test
