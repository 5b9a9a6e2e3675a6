#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "output/output.h"

// The timeline of a report: one row per node. All times are in microseconds
// since the epoch.

namespace vorn::launch {

/// A run of a process.
struct TimelineRun {
  int64_t beginUs = 0;
  int64_t endUs = 0;
  std::string title;
};

/// An event at a point in time.
struct TimelineMark {
  enum class Kind { EXIT, FAILURE, ACTION };

  int64_t timeUs = 0;
  Kind kind = Kind::EXIT;
  std::string title;
};

struct TimelineRow {
  std::string name;
  std::vector<TimelineRun> runs;  // without overlaps, the oldest first
  std::vector<TimelineMark> marks;
};

struct Timeline {
  int64_t beginUs = 0;
  int64_t endUs = 0;
  std::vector<TimelineRow> rows;
};

/// The most runs, and the most marks of a kind, that a row shows.
constexpr size_t kMostInRow = 300;

/// Joins the runs and marks of a row that has more than kMostInRow of them:
/// those in the same of kMostInRow equal parts of the time become one, with
/// their number in its title. Removes those outside of the time, and shortens
/// runs that are partly outside.
void reduceTimeline(Timeline& timeline);

/// A point on the axis.
struct Tick {
  int64_t timeUs = 0;
  std::string label;  // in UTC: "07:30", "07:30:05" or "11-22"
};

/// At most `count` points at round times.
std::vector<Tick> ticksOf(int64_t begin_us, int64_t end_us, size_t count);

/// Writes the timeline as SVG, which the script of the page can zoom.
void printTimelineSvg(Output& out, const Timeline& timeline);

/// "2026-11-22 07:30:00Z"; "unknown" for 0.
std::string utcText(int64_t time_us);

}  // namespace vorn::launch
