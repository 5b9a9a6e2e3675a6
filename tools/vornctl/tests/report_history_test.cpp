#include "commands/report_history.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

namespace vorn::launch {
namespace {

using ReportedKind = HistoryEvent::Kind;
using MarkKind = TimelineMark::Kind;

constexpr int64_t kHistorySecond = 1'000'000;
constexpr int64_t kHistoryBegin = 1000 * kHistorySecond;
constexpr int64_t kHistoryEnd = 2000 * kHistorySecond;

HistoryEvent eventAt(int64_t second, ReportedKind kind,
                     const std::string& node = "a") {
  HistoryEvent event;
  event.timeUs = kHistoryBegin + second * kHistorySecond;
  event.kind = kind;
  event.node = node;
  return event;
}

HistoryEvent failure(int64_t second, int signal) {
  HistoryEvent exit = eventAt(second, ReportedKind::EXITED);
  exit.cause = HistoryEvent::Cause::ITSELF;
  exit.code = CLD_DUMPED;
  exit.status = signal;
  exit.runUs = 5 * kHistorySecond;
  return exit;
}

/// The row of node "a" after these events.
TimelineRow rowAfter(const std::vector<HistoryEvent>& events,
                     ReportPage page = {}) {
  ReportHistory history(kHistoryBegin, {"a"});
  for (const HistoryEvent& each : events) history.add(each);
  history.finish(kHistoryEnd, page);
  return page.timeline.rows.at(1);
}

TEST(ReportHistoryTest, ARunIsFromItsStartToItsExit) {
  const TimelineRow row =
      rowAfter({eventAt(10, ReportedKind::STARTED), failure(15, SIGSEGV)});
  ASSERT_EQ(row.runs.size(), 1U);
  EXPECT_EQ(row.runs[0].beginUs, kHistoryBegin + 10 * kHistorySecond);
  EXPECT_EQ(row.runs[0].endUs, kHistoryBegin + 15 * kHistorySecond);
  ASSERT_EQ(row.marks.size(), 1U);
  EXPECT_EQ(row.marks[0].kind, MarkKind::FAILURE);
}

TEST(ReportHistoryTest, ARunWithoutAStartIsAsLongAsItsExitSays) {
  const TimelineRow row = rowAfter({failure(15, SIGSEGV)});
  ASSERT_EQ(row.runs.size(), 1U);
  EXPECT_EQ(row.runs[0].beginUs, kHistoryBegin + 10 * kHistorySecond);
}

TEST(ReportHistoryTest, ARunWithoutAnExitEndsAtTheEnd) {
  const TimelineRow row = rowAfter({eventAt(10, ReportedKind::STARTED)});
  ASSERT_EQ(row.runs.size(), 1U);
  EXPECT_EQ(row.runs[0].endUs, kHistoryEnd);
  EXPECT_EQ(row.runs[0].title,
            "1970-01-01 00:16:50Z to 1970-01-01 00:33:20Z: its end is not in "
            "the log");
}

TEST(ReportHistoryTest, ANodeThatRunsNowIsShownWithoutEventsInTheLog) {
  ReportPage page;
  NodeView& view = page.nodes.emplace_back();
  view.name = "a";
  view.condition = Condition::RUNNING;
  view.startSeconds = 1990;
  const TimelineRow row = rowAfter({}, page);
  ASSERT_EQ(row.runs.size(), 1U);
  EXPECT_EQ(row.runs[0].beginUs, 1990 * kHistorySecond);
}

TEST(ReportHistoryTest, AnActionIsAMarkOfEachOfItsNodes) {
  ActionRecord action;
  action.timeUs = kHistoryBegin + 10 * kHistorySecond;
  action.command = "stop";
  action.user = "eve";
  action.reason = "token=abc";
  action.outcome = "done";
  action.nodes = {"a", "b"};
  ReportHistory history(kHistoryBegin, {"a", "b"});
  history.add(action, ReportMasking(LaunchFile{}));
  ReportPage page;
  history.finish(kHistoryEnd, page);
  for (const size_t row : {size_t{1}, size_t{2}}) {
    ASSERT_EQ(page.timeline.rows[row].marks.size(), 1U);
    EXPECT_EQ(page.timeline.rows[row].marks[0].title,
              "1970-01-01 00:16:50Z: command stop by eve: token=[hidden]");
  }
  EXPECT_EQ(page.events.size(), 2U);
}

TEST(ReportHistoryTest, TheOldestOfTooManyEventsAreOmittedAndCounted) {
  ReportHistory history(kHistoryBegin, {"a"});
  for (int64_t i = 0; i < 2500; ++i)
    history.add(eventAt(i, ReportedKind::STARTED));
  ReportPage page;
  history.finish(kHistoryBegin + 3000 * kHistorySecond, page);
  EXPECT_EQ(page.events.size(), kMostReportEvents);
  EXPECT_EQ(page.omittedEvents, 1500U);
  EXPECT_EQ(page.events[0].timeUs, kHistoryBegin + 1500 * kHistorySecond);
}

TEST(ReportHistoryTest, TheTimelineStartsWithTheFirstEvent) {
  ReportHistory history(kHistoryBegin, {"a"});
  history.add(eventAt(900, ReportedKind::STARTED));
  ReportPage page;
  history.finish(kHistoryEnd, page);
  EXPECT_EQ(page.timeline.beginUs, kHistoryBegin + 900 * kHistorySecond);
}

}  // namespace
}  // namespace vorn::launch
