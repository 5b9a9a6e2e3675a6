#include "commands/top_facts.h"

#include <ctime>
#include <optional>
#include <utility>

#include "live/node_lines.h"
#include "output/duration.h"

namespace vorn::launch {
namespace {

/// The text of a line, without the origin of a line of the launcher, for which
/// the screen is too narrow.
std::string describeRecord(const LogRecord& record) {
  const auto line = launcherLineIn(record);
  if (!line) return std::string(record.text);
  const int64_t time_us = line->timeUs != 0 ? line->timeUs : record.timeUs;
  const std::string begin =
      time_us == 0 ? "" : formatTime(time_us / kSecondUs) + ' ';
  return begin + std::string(line->level) + ' ' + std::string(line->text);
}

}  // namespace

bool TopFacts::refresh(const std::vector<NodeView>& nodes, bool has_changed) {
  has_news_ = has_news_ || has_changed;
  if ((has_news_ && history_time_.isDue()) || full_history_time_.isDue()) {
    has_news_ = false;
    history_time_.perform(
        [&] { full_history_time_.perform([&] { readHistory(nodes); }); });
  }
  if (!usage_time_.isDue()) return false;
  usage_time_.perform([&] { readUsage(nodes); });
  return true;
}

void TopFacts::addTo(std::vector<NodeView>& nodes) const {
  if (has_histories_) {
    addHistory(histories_, std::time(nullptr) * kSecondUs, nodes);
  }
  for (NodeView& node : nodes) {
    const auto found = usage_.find(node.name);
    if (found == usage_.end() || found->second.pid != node.pid) continue;
    node.cpuPercent = found->second.cpuPercent;
    node.memoryBytes = found->second.memoryBytes;
  }
}

const std::vector<std::string>& TopFacts::logLines(size_t count,
                                                   std::string& error) {
  if (count != line_count_ || line_time_.isDue()) {
    line_time_.perform([&] { readLogLines(count); });
  }
  error = log_error_;
  return lines_;
}

void TopFacts::readUsage(std::vector<NodeView> nodes) {
  sampler_.add(ProcessTable::read(), launcher_, nodes);
  usage_.clear();
  for (const NodeView& node : nodes) {
    if (!node.memoryBytes) continue;
    usage_[node.name] = {node.pid, node.cpuPercent, node.memoryBytes};
  }
}

void TopFacts::readHistory(const std::vector<NodeView>& nodes) {
  std::string error;
  NodeHistories histories;
  const auto log = findLog(launcher_, log_file_, error);
  has_histories_ =
      log && readRecent(launcher_, *log, std::time(nullptr) * kSecondUs, nodes,
                        histories, error);
  histories_ = std::move(histories);
}

void TopFacts::readLogLines(size_t count) {
  constexpr size_t kLongestShownLine = 1000;  // wider than any screen
  line_count_ = count;
  lines_.clear();
  log_error_.clear();
  const auto log = findLog(launcher_, log_file_, log_error_);
  if (!log) return;
  const bool is_read = readLogEnd(
      *log, count, 0, [](const LogRecord&) { return true; },
      [&](const LogRecord& record) {
        lines_.push_back(describeRecord(record).substr(0, kLongestShownLine));
        return true;
      },
      log_error_);
  if (!is_read) lines_.clear();
}

}  // namespace vorn::launch
