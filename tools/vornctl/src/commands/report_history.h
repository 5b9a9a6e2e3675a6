#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

#include "commands/report_masking.h"
#include "commands/report_page.h"
#include "live/action_records.h"
#include "live/log_history.h"

namespace vorn::launch {

/// The most events in the table of a report; the latest are kept.
constexpr size_t kMostReportEvents = 1000;

/// Collects the events of the nodes for the timeline and the table of a report.
class ReportHistory {
 public:
  /// For events from `begin_us` on. The rows are those of the launcher and of
  /// `nodes`, which are followed by those of other nodes in the log.
  ReportHistory(int64_t begin_us, const std::vector<std::string>& nodes);

  void add(const HistoryEvent& event);
  void add(const ActionRecord& action, const ReportMasking& masking);

  /// Fills the timeline until `end_us`, and the events. The nodes of the page
  /// that run are shown as running.
  void finish(int64_t end_us, ReportPage& page);

 private:
  size_t rowOf(const std::string& node);
  void endRun(size_t row, int64_t time_us, const std::string& title);
  void addMark(size_t row, int64_t time_us, TimelineMark::Kind kind,
               const std::string& text);
  void addEvent(int64_t time_us, const std::string& node,
                const std::string& text, bool is_failure);

  int64_t begin_us_;
  std::vector<TimelineRow> rows_;        // the first is the launcher's
  std::map<std::string, size_t> index_;  // of nodes, as the log writes them
  std::map<size_t, int64_t> running_;    // starts of unfinished runs, by row
  std::deque<ReportEvent> events_;
  size_t omitted_events_ = 0;
};

}  // namespace vorn::launch
