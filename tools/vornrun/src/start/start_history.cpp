#include "start/start_history.h"

#include <algorithm>
#include <limits>

#include "option_values.h"

namespace vorn::run {
namespace {

constexpr size_t kMostStarts = 1000;  // the largest number of --give-up

/// The text up to the line end, which is removed from `text`.
std::string_view takeLine(std::string_view& text) {
  const size_t end = std::min(text.find('\n'), text.size());
  const std::string_view line = text.substr(0, end);
  text.remove_prefix(std::min(end + 1, text.size()));
  return line;
}

}  // namespace

StartHistory StartHistory::parse(std::string_view text,
                                 const std::string& boot_id) {
  StartHistory history;
  if (takeLine(text) != boot_id) return history;
  while (!text.empty()) {
    const auto start =
        parseNumber(takeLine(text), 0, std::numeric_limits<long>::max());
    if (!start) return {};
    history.add(*start);
  }
  return history;
}

std::string StartHistory::text(const std::string& boot_id) const {
  std::string result = boot_id + "\n";
  for (const int64_t start : starts_) result += std::to_string(start) + "\n";
  return result;
}

void StartHistory::beginStart(int64_t now, milliseconds reset_after) {
  if (!starts_.empty() && now - starts_.back() >= reset_after.count()) {
    starts_.clear();
  }
}

void StartHistory::add(int64_t now) {
  if (starts_.size() == kMostStarts) starts_.erase(starts_.begin());
  starts_.push_back(now);
}

milliseconds StartHistory::delay(const Backoff& backoff) const {
  if (starts_.empty()) return milliseconds(0);
  milliseconds delay = backoff.first;
  for (size_t i = 1; i < starts_.size() && delay < backoff.longest; ++i) {
    delay *= 2;
  }
  return std::min(delay, backoff.longest);
}

bool StartHistory::isCrashLoop(const GiveUp& give_up, int64_t now) const {
  const auto recent = std::count_if(
      starts_.begin(), starts_.end(),
      [&](int64_t start) { return now - start < give_up.period.count(); });
  return recent >= static_cast<ptrdiff_t>(give_up.count);
}

}  // namespace vorn::run
