#include "commands/report_timeline.h"

#include <gtest/gtest.h>

#include <sstream>

namespace vorn::launch {
namespace {

constexpr int64_t kTimelineSecond = 1'000'000;
constexpr int64_t kMidnight =
    1'795'305'600 * kTimelineSecond;  // 2026-11-22 00:00:00Z

std::vector<std::string> labels(int64_t begin, int64_t end) {
  std::vector<std::string> labels;
  for (const Tick& tick : ticksOf(begin, end, 8)) labels.push_back(tick.label);
  return labels;
}

Timeline timelineWith(const TimelineRow& row) {
  return {kMidnight, kMidnight + 3000 * kTimelineSecond, {row}};
}

TEST(UtcTextTest, IsADateAndATimeWithoutFractions) {
  EXPECT_EQ(utcText(kMidnight + 61 * kTimelineSecond + 1),
            "2026-11-22 00:01:01Z");
  EXPECT_EQ(utcText(0), "unknown");
}

TEST(TicksTest, AreAtRoundTimes) {
  EXPECT_EQ(labels(kMidnight + 100 * kTimelineSecond,
                   kMidnight + 7000 * kTimelineSecond),
            (std::vector<std::string>{"00:15", "00:30", "00:45", "01:00",
                                      "01:15", "01:30", "01:45"}));
}

TEST(TicksTest, HaveSecondsInAShortTimeAndDatesAtMidnight) {
  EXPECT_EQ(
      labels(kMidnight - 2 * kTimelineSecond, kMidnight + 2 * kTimelineSecond),
      (std::vector<std::string>{"23:59:59", "11-22", "00:00:01", "00:00:02"}));
}

TEST(TicksTest, AreAtMostAsManyAsAskedFor) {
  for (int64_t second = 1; second < 100'000'000; second *= 3) {
    EXPECT_LE(
        labels(kMidnight + 1, kMidnight + second * kTimelineSecond).size(), 8U)
        << second;
  }
}

TEST(ReduceTimelineTest, RemovesAndShortensRunsOutsideOfTheTime) {
  Timeline timeline =
      timelineWith({"a",
                    {{kMidnight - 9, kMidnight - 5, "before"},
                     {kMidnight - 5, kMidnight + 5, "partly"}},
                    {{kMidnight - 1, TimelineMark::Kind::EXIT, "before"},
                     {kMidnight + 1, TimelineMark::Kind::EXIT, "in"}}});
  reduceTimeline(timeline);
  const TimelineRow& row = timeline.rows[0];
  ASSERT_EQ(row.runs.size(), 1U);
  EXPECT_EQ(row.runs[0].beginUs, kMidnight);
  EXPECT_EQ(row.runs[0].endUs, kMidnight + 5);
  ASSERT_EQ(row.marks.size(), 1U);
  EXPECT_EQ(row.marks[0].title, "in");
}

TEST(ReduceTimelineTest, JoinsTheRunsAndMarksOfACrashLoop) {
  TimelineRow row{"a", {}, {}};
  for (int64_t i = 0; i < 3000; ++i) {
    const int64_t begin = kMidnight + i * kTimelineSecond;
    row.runs.push_back({begin, begin + 10, "run"});
    row.marks.push_back({begin + 10, TimelineMark::Kind::FAILURE, "failure"});
  }
  row.marks.push_back({kMidnight, TimelineMark::Kind::ACTION, "command"});
  Timeline timeline = timelineWith(row);
  reduceTimeline(timeline);
  const TimelineRow& reduced = timeline.rows[0];
  ASSERT_EQ(reduced.runs.size(), kMostInRow);
  EXPECT_EQ(reduced.runs[1].title,
            "10 runs, 2026-11-22 00:00:10Z to 2026-11-22 00:00:19Z");
  ASSERT_EQ(reduced.marks.size(), kMostInRow + 1);
  EXPECT_EQ(reduced.marks[0].title,
            "10 failures, 2026-11-22 00:00:00Z to 2026-11-22 00:00:09Z");
  EXPECT_EQ(reduced.marks[1].title, "command");
}

TEST(PrintTimelineSvgTest, PlacesARunAndEscapesItsTitle) {
  std::ostringstream stream;
  Output out(stream);
  printTimelineSvg(
      out, timelineWith({"<b>",
                         {{kMidnight + 1500 * kTimelineSecond,
                           kMidnight + 3000 * kTimelineSecond, "</title>"}},
                         {}}));
  const std::string svg = stream.str();
  EXPECT_NE(svg.find("data-t=\"1500000\" data-e=\"3000000\" x=\"577\" y=\"38\" "
                     "width=\"407\" height=\"12\"><title>&#60;/title&#62;<"),
            std::string::npos)
      << svg;
  EXPECT_EQ(svg.find("<b>"), std::string::npos) << svg;
}

}  // namespace
}  // namespace vorn::launch
