#include "live/restart_counts.h"

#include <algorithm>
#include <utility>

#include "output/duration.h"
#include "output/json.h"

namespace vorn::launch {
namespace {

// Lines before an event show its cause.
constexpr int64_t kContextUs = 60 * kSecondUs;

}  // namespace

RestartCounts::RestartCounts(std::string launcher, int64_t start_us,
                             const std::string& saved)
    : launcher_(std::move(launcher)), start_us_(start_us) {
  const Json document = Json::parse(saved, nullptr, false);
  try {
    if (document.at("launcher") != launcher_) return;
    const auto until_us = document.at("until").get<int64_t>();
    nodes_ =
        document.at("restarts").get<std::map<std::string, CountsByCause>>();
    saved_until_us_ = until_us_ = until_us;
  } catch (const Json::exception&) {
    nodes_.clear();
  }
}

int64_t RestartCounts::sinceUs() const {
  return saved_until_us_ == 0 ? start_us_ - kSecondUs
                              : saved_until_us_ - kContextUs;
}

void RestartCounts::add(const HistoryEvent& event) {
  if (event.timeUs <= saved_until_us_) return;
  until_us_ = std::max(until_us_, event.timeUs);
  // Also an earlier launcher may have written to the log.
  if (event.kind == HistoryEvent::Kind::LAUNCHER_STARTED) nodes_.clear();
  if (event.kind != HistoryEvent::Kind::STARTED) return;
  const auto* const cause =
      std::find(kCountedCauses.begin(), kCountedCauses.end(), event.cause);
  if (cause == kCountedCauses.end()) return;
  const auto index = static_cast<size_t>(cause - kCountedCauses.begin());
  ++nodes_[event.node].at(index);
}

const CountsByCause& RestartCounts::of(const std::string& name_in_log) const {
  static const CountsByCause none{};
  const auto found = nodes_.find(name_in_log);
  return found == nodes_.end() ? none : found->second;
}

std::string RestartCounts::save() const {
  const Json document = {
      {"launcher", launcher_}, {"until", until_us_}, {"restarts", nodes_}};
  return document.dump(-1, ' ', true, Json::error_handler_t::replace) + '\n';
}

}  // namespace vorn::launch
