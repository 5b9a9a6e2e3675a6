#include "commands/report_history.h"

#include <algorithm>
#include <utility>

#include "live/event_text.h"
#include "live/log_line.h"

namespace vorn::launch {
namespace {

using EventKind = HistoryEvent::Kind;

constexpr int64_t kHistoryUsPerSecond = 1'000'000;
constexpr int64_t kShortestUs = 10 * kHistoryUsPerSecond;
constexpr size_t kLauncherRow = 0;

bool isFailureEvent(const HistoryEvent& event) {
  switch (event.kind) {
    case EventKind::EXITED:
      return event.isFailure();
    case EventKind::EXECUTABLE_MISSING:
    case EventKind::FORK_FAILED:
    case EventKind::STOP_FAILED:
      return true;
    default:
      return false;
  }
}

}  // namespace

ReportHistory::ReportHistory(int64_t begin_us,
                             const std::vector<std::string>& nodes)
    : begin_us_(begin_us) {
  rows_.push_back({"(launcher)", {}, {}});
  for (const std::string& node : nodes) {
    index_[nameInLog(node)] = rows_.size();
    rows_.push_back({node, {}, {}});
  }
}

size_t ReportHistory::rowOf(const std::string& node) {
  const auto [place, is_new] = index_.emplace(node, rows_.size());
  if (is_new) rows_.push_back({node, {}, {}});
  return place->second;
}

void ReportHistory::addMark(size_t row, int64_t time_us,
                            TimelineMark::Kind kind, const std::string& text) {
  rows_[row].marks.push_back({time_us, kind, utcText(time_us) + ": " + text});
}

void ReportHistory::addEvent(int64_t time_us, const std::string& node,
                             const std::string& text, bool is_failure) {
  events_.push_back({time_us, node, text, is_failure});
  if (events_.size() <= 2 * kMostReportEvents) return;
  events_.pop_front();
  ++omitted_events_;
}

void ReportHistory::endRun(size_t row, int64_t time_us,
                           const std::string& title) {
  const auto run = running_.find(row);
  const int64_t begin = run == running_.end() ? begin_us_ : run->second;
  if (run != running_.end()) running_.erase(run);
  rows_[row].runs.push_back({begin, time_us,
                             (begin == begin_us_ ? "before " : "") +
                                 utcText(begin) + " to " + utcText(time_us) +
                                 ": " + title});
}

void ReportHistory::add(const HistoryEvent& event) {
  const bool is_launcher = event.kind == EventKind::LAUNCHER_STARTED ||
                           event.kind == EventKind::LAUNCHER_STOPPING;
  const size_t row = is_launcher ? kLauncherRow : rowOf(event.node);
  const std::string text = eventText(event);
  const bool is_failure = isFailureEvent(event);
  addEvent(event.timeUs, rows_[row].name, text, is_failure);
  switch (event.kind) {
    case EventKind::LAUNCHER_STARTED:
      if (running_.count(row) > 0) endRun(row, event.timeUs, "launcher");
      running_[row] = event.timeUs;
      return;
    case EventKind::STARTED:
      running_[row] = event.timeUs;
      return;
    case EventKind::EXITED:
      if (event.runUs >= 0) running_[row] = event.timeUs - event.runUs;
      [[fallthrough]];
    case EventKind::LOST:
    case EventKind::LAUNCHER_STOPPING:
      endRun(row, event.timeUs, text);
      break;
    default:
      if (!is_failure) return;
  }
  addMark(row, event.timeUs,
          is_failure ? TimelineMark::Kind::FAILURE : TimelineMark::Kind::EXIT,
          text);
}

void ReportHistory::add(const ActionRecord& action,
                        const ReportMasking& masking) {
  const std::string text = masking.masked("command " + actionText(action));
  for (const std::string& node : action.nodes) {
    const size_t row = rowOf(nameInLog(node));
    addMark(row, action.timeUs, TimelineMark::Kind::ACTION, text);
    addEvent(action.timeUs, node, text, action.failures.count(node) > 0);
  }
}

void ReportHistory::finish(int64_t end_us, ReportPage& page) {
  for (const NodeView& view : page.nodes) {
    if (view.condition != Condition::RUNNING) continue;
    const size_t row = rowOf(nameInLog(view.name));
    running_.emplace(row, view.startSeconds * kHistoryUsPerSecond);
    endRun(row, end_us, "still running");
  }
  while (!running_.empty()) {
    endRun(running_.begin()->first, end_us, "its end is not in the log");
  }
  std::stable_sort(events_.begin(), events_.end(),
                   [](const ReportEvent& a, const ReportEvent& b) {
                     return a.timeUs < b.timeUs;
                   });
  while (events_.size() > kMostReportEvents) {
    events_.pop_front();
    ++omitted_events_;
  }
  page.events.assign(events_.begin(), events_.end());
  page.omittedEvents = omitted_events_;
  // A log that starts later does not leave most of the drawing empty.
  int64_t begin_us = end_us - kShortestUs;
  for (const TimelineRow& row : rows_) {
    if (!row.runs.empty()) begin_us = std::min(begin_us, row.runs[0].beginUs);
  }
  for (const ReportEvent& event : page.events) {
    begin_us = std::min(begin_us, event.timeUs);
  }
  begin_us = std::max(begin_us, begin_us_);
  page.timeline = {begin_us, end_us, std::move(rows_)};
  reduceTimeline(page.timeline);
}

}  // namespace vorn::launch
