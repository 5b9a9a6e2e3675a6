#include "commands/top_list.h"

#include <algorithm>
#include <functional>
#include <limits>

namespace vorn::launch {
namespace {

/// The value by which nodes are sorted, the smallest first. Nodes without a
/// value are last.
double sortValue(const NodeView& view, const std::string& column) {
  constexpr double kLast = std::numeric_limits<double>::infinity();
  if (column == "pid") return view.pid == 0 ? kLast : view.pid;
  if (column == "cpu") return view.cpuPercent ? -*view.cpuPercent : kLast;
  if (column == "memory") {
    return view.memoryBytes ? -static_cast<double>(*view.memoryBytes) : kLast;
  }
  if (column == "restarts") return -static_cast<double>(view.restarts);
  // The youngest first.
  return view.condition == Condition::RUNNING
             ? static_cast<double>(view.uptimeSeconds)
             : kLast;
}

bool isBefore(const NodeView& a, const NodeView& b, const std::string& column) {
  if (column == "node") return a.name < b.name;
  if (column == "state") {
    return std::string(wordFor(a.condition)) < wordFor(b.condition);
  }
  return sortValue(a, column) < sortValue(b, column);
}

}  // namespace

const std::vector<TopColumn>& topColumns() {
  static const std::vector<TopColumn> columns = {
      {"node", "NODE(N)", 'N'},         {"state", "STATE(S)", 'S'},
      {"pid", "PID(P)", 'P'},           {"cpu", "CPU(C)", 'C'},
      {"memory", "MEM(M)", 'M'},        {"uptime", "UPTIME(U)", 'U'},
      {"restarts", "RESTARTS(R)", 'R'}, {"policy", "POLICY", 0},
      {"required", "REQUIRED", 0}};
  return columns;
}

void TopList::update(std::vector<NodeView> nodes) {
  nodes_ = std::move(nodes);
  arrange();
}

const NodeView* TopList::selected() const {
  return shown_.empty() ? nullptr : shown_[selected_index_];
}

void TopList::select(long step) {
  if (shown_.empty()) return;
  const long last = static_cast<long>(shown_.size()) - 1;
  selected_index_ = static_cast<size_t>(
      std::clamp(static_cast<long>(selected_index_) + step, 0L, last));
  selected_name_ = shown_[selected_index_]->name;
}

bool TopList::toggleSort(int key) {
  for (const TopColumn& column : topColumns()) {
    if (key == 0 || column.key != key) continue;
    sorted_by_ = sorted_by_ == &column ? nullptr : &column;
    arrange();
    return true;
  }
  return false;
}

void TopList::toggleFailing() {
  is_failing_only_ = !is_failing_only_;
  arrange();
}

void TopList::setFilter(const std::string& text) {
  filter_ = text;
  arrange();
}

std::string TopList::position(size_t first, size_t rows) const {
  const size_t count = shown_.size();
  std::string text;
  if (count > rows || count < nodes_.size()) {
    const size_t end = std::min(count, first + rows);
    text =
        (count == 0 ? "0"
                    : std::to_string(first + 1) + '-' + std::to_string(end)) +
        " of " + std::to_string(count);
  }
  const auto add = [&text](const std::string& part) {
    text += (text.empty() ? "" : ", ") + part;
  };
  if (!filter_.empty()) add("filter '" + filter_ + '\'');
  if (is_failing_only_) add("failing");
  if (sorted_by_ != nullptr) add(std::string("by ") + sorted_by_->name);
  return text;
}

void TopList::arrange() {
  shown_.clear();
  for (const NodeView& node : nodes_) {
    const bool is_shown = node.name.find(filter_) != std::string::npos &&
                          (!is_failing_only_ || isFailing(node));
    if (is_shown) shown_.push_back(&node);
  }
  std::stable_sort(
      shown_.begin(), shown_.end(), [&](const NodeView* a, const NodeView* b) {
        return sorted_by_ == nullptr ? isFailing(*a) && !isFailing(*b)
                                     : isBefore(*a, *b, sorted_by_->name);
      });
  if (shown_.empty()) {
    selected_index_ = 0;
    return;
  }
  const auto found = std::find_if(
      shown_.begin(), shown_.end(),
      [&](const NodeView* node) { return node->name == selected_name_; });
  if (found != shown_.end()) {
    selected_index_ = static_cast<size_t>(found - shown_.begin());
  } else {
    selected_index_ = std::min(selected_index_, shown_.size() - 1);
    selected_name_ = shown_[selected_index_]->name;
  }
}

}  // namespace vorn::launch
