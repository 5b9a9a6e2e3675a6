#include "support/steady_clock.h"

#include <optional>

namespace vorn::test {

using std::chrono::steady_clock;

// The linker leads the calls of std::chrono::steady_clock::now() to the first
// and offers the original as the second.
steady_clock::time_point wrappedNow() __asm__(
    "__wrap__ZNSt6chrono3_V212steady_clock3nowEv");
steady_clock::time_point realNow() __asm__(
    "__real__ZNSt6chrono3_V212steady_clock3nowEv");

namespace {

std::optional<steady_clock::time_point>& stoppedAt() {
  static std::optional<steady_clock::time_point> reading;
  return reading;
}

}  // namespace

steady_clock::time_point wrappedNow() {
  return stoppedAt() ? *stoppedAt() : realNow();
}

StoppedSteadyClock::StoppedSteadyClock(std::chrono::nanoseconds reading) {
  stoppedAt() = steady_clock::time_point(reading);
}

StoppedSteadyClock::~StoppedSteadyClock() { stoppedAt().reset(); }

steady_clock::time_point StoppedSteadyClock::now() const {
  return *stoppedAt();
}

void StoppedSteadyClock::advance(std::chrono::nanoseconds time) {
  *stoppedAt() += time;
}

}  // namespace vorn::test
