#include "commands/report_timeline.h"

#include <algorithm>
#include <ctime>
#include <iterator>
#include <map>
#include <string_view>
#include <utility>

namespace vorn::launch {
namespace {

constexpr int64_t kAxisUsPerSecond = 1'000'000;
constexpr int64_t kSecondsPerDay = 86'400;

// In the units of the drawing, which the style sheet makes pixels on a narrow
// screen. report.js reads the first two from the drawing.
constexpr int64_t kPlotLeft = 170;
constexpr int64_t kPlotWidth = 814;
constexpr int64_t kDrawingWidth = 1000;
constexpr int64_t kAxisHeight = 30;
constexpr int64_t kRowHeight = 28;
constexpr int64_t kBarHeight = 12;
constexpr int64_t kShortestBar = 2;
constexpr size_t kLabelLength = 21;  // characters
constexpr size_t kTicks = 8;

std::string formatUtcSeconds(int64_t seconds, const char* format) {
  const std::time_t time = seconds;
  std::tm parts{};
  (void)::gmtime_r(&time, &parts);
  char text[40];
  return {text, std::strftime(text, sizeof(text), format, &parts)};
}

std::string tickLabel(int64_t seconds, int64_t step) {
  if (seconds % kSecondsPerDay == 0) return formatUtcSeconds(seconds, "%m-%d");
  return formatUtcSeconds(seconds, step < 60 ? "%H:%M:%S" : "%H:%M");
}

/// The smallest round step in seconds with at most `count` steps.
int64_t stepFor(int64_t seconds, size_t count) {
  constexpr int64_t kSteps[] = {1,    2,    5,     10,    15,    30,
                                60,   120,  300,   600,   900,   1800,
                                3600, 7200, 10800, 21600, 43200, 86400};
  const auto most = static_cast<int64_t>(count);
  for (const int64_t step : kSteps) {
    if (seconds / step < most) return step;
  }
  return (seconds / most / kSecondsPerDay + 1) * kSecondsPerDay;
}

/// The number of the part of the time that contains this point.
int64_t slotOf(const Timeline& timeline, int64_t time_us) {
  const int64_t part = std::max<int64_t>(
      (timeline.endUs - timeline.beginUs) / int64_t{kMostInRow}, 1);
  return (time_us - timeline.beginUs) / part;
}

void clipRuns(const Timeline& timeline, std::vector<TimelineRun>& runs) {
  for (TimelineRun& run : runs) {
    run.beginUs = std::max(run.beginUs, timeline.beginUs);
    run.endUs = std::min(run.endUs, timeline.endUs);
  }
  runs.erase(std::remove_if(runs.begin(), runs.end(),
                            [](const TimelineRun& run) {
                              return run.endUs < run.beginUs;
                            }),
             runs.end());
}

void joinRuns(const Timeline& timeline, std::vector<TimelineRun>& runs) {
  if (runs.size() <= kMostInRow) return;
  std::vector<TimelineRun> joined;
  std::vector<size_t> counts;
  for (const TimelineRun& run : runs) {
    if (!joined.empty() && slotOf(timeline, joined.back().beginUs) ==
                               slotOf(timeline, run.beginUs)) {
      joined.back().endUs = run.endUs;
      ++counts.back();
      joined.back().title = std::to_string(counts.back()) + " runs, " +
                            utcText(joined.back().beginUs) + " to " +
                            utcText(run.endUs);
    } else {
      joined.push_back(run);
      counts.push_back(1);
    }
  }
  runs = std::move(joined);
}

const char* pluralFor(TimelineMark::Kind kind) {
  switch (kind) {
    case TimelineMark::Kind::FAILURE:
      return " failures, ";
    case TimelineMark::Kind::ACTION:
      return " commands, ";
    case TimelineMark::Kind::EXIT:
      break;
  }
  return " exits, ";
}

void joinMarks(const Timeline& timeline, std::vector<TimelineMark>& marks) {
  if (marks.size() <= kMostInRow) return;
  std::map<std::pair<int64_t, TimelineMark::Kind>, std::vector<TimelineMark>>
      slots;
  for (TimelineMark& mark : marks) {
    slots[{slotOf(timeline, mark.timeUs), mark.kind}].push_back(
        std::move(mark));
  }
  marks.clear();
  for (auto& [slot, joined] : slots) {
    TimelineMark& first = joined.front();
    if (joined.size() > 1) {
      first.title = std::to_string(joined.size()) + pluralFor(first.kind) +
                    utcText(first.timeUs) + " to " +
                    utcText(joined.back().timeUs);
    }
    marks.push_back(std::move(first));
  }
}

/// The horizontal position of a point in time.
int64_t xPosition(const Timeline& timeline, int64_t time_us) {
  const auto span = static_cast<double>(timeline.endUs - timeline.beginUs);
  const auto offset = static_cast<double>(time_us - timeline.beginUs);
  return kPlotLeft +
         static_cast<int64_t>(offset / span * static_cast<double>(kPlotWidth));
}

/// Milliseconds since the begin, which the script can compute with.
int64_t scriptTime(const Timeline& timeline, int64_t time_us) {
  return (time_us - timeline.beginUs) / 1000;
}

void printTicks(Output& out, const Timeline& timeline, int64_t height) {
  out << "<g class=\"ticks\">\n";
  for (const Tick& tick : ticksOf(timeline.beginUs, timeline.endUs, kTicks)) {
    const int64_t x = xPosition(timeline, tick.timeUs);
    out << "<line x1=\"" << x << "\" y1=\"" << kAxisHeight - 8 << "\" x2=\""
        << x << "\" y2=\"" << height << "\"/><text x=\"" << x + 3 << "\" y=\""
        << kAxisHeight - 12 << "\">" << htmlText(tick.label) << "</text>\n";
  }
  out << "</g>\n";
}

void printRun(Output& out, const Timeline& timeline, const TimelineRun& run,
              int64_t middle) {
  const int64_t x = xPosition(timeline, run.beginUs);
  const int64_t width =
      std::max(xPosition(timeline, run.endUs) - x, kShortestBar);
  out << "<rect class=\"run\" data-t=\"" << scriptTime(timeline, run.beginUs)
      << "\" data-e=\"" << scriptTime(timeline, run.endUs) << "\" x=\"" << x
      << "\" y=\"" << middle - kBarHeight / 2 << "\" width=\"" << width
      << "\" height=\"" << kBarHeight << "\"><title>" << htmlText(run.title)
      << "</title></rect>\n";
}

OutputText shapeOf(TimelineMark::Kind kind) {
  switch (kind) {
    case TimelineMark::Kind::FAILURE:
      return "<path class=\"failure\" d=\"M-5-5 5 5M5-5-5 5\"/>";
    case TimelineMark::Kind::ACTION:
      return "<path class=\"action\" d=\"M-5-13H5L0-4Z\"/>";
    case TimelineMark::Kind::EXIT:
      break;
  }
  return "<circle class=\"exit\" r=\"4\"/>";
}

void printMark(Output& out, const Timeline& timeline, const TimelineMark& mark,
               int64_t middle) {
  out << "<g data-t=\"" << scriptTime(timeline, mark.timeUs) << "\" data-y=\""
      << middle << "\" transform=\"translate("
      << xPosition(timeline, mark.timeUs) << " " << middle << ")\">"
      << shapeOf(mark.kind) << "<title>" << htmlText(mark.title)
      << "</title></g>\n";
}

void printRow(Output& out, const Timeline& timeline, const TimelineRow& row,
              int64_t top) {
  const int64_t middle = top + kRowHeight / 2;
  const OutputText name = terminalText(row.name);
  out << "<g class=\"row\"><text class=\"name\" x=\"4\" y=\"" << middle + 4
      << "\">" << htmlText(truncated(name, kLabelLength).str()) << "<title>"
      << htmlText(row.name) << "</title></text>\n<line x1=\"0\" y1=\""
      << top + kRowHeight << "\" x2=\"" << kDrawingWidth << "\" y2=\""
      << top + kRowHeight << "\"/>\n<g clip-path=\"url(#plot)\">\n";
  for (const TimelineRun& run : row.runs) {
    printRun(out, timeline, run, middle);
  }
  for (const TimelineMark& mark : row.marks) {
    printMark(out, timeline, mark, middle);
  }
  out << "</g></g>\n";
}

}  // namespace

std::string utcText(int64_t time_us) {
  if (time_us == 0) return "unknown";
  return formatUtcSeconds(time_us / kAxisUsPerSecond, "%Y-%m-%d %H:%M:%SZ");
}

void reduceTimeline(Timeline& timeline) {
  for (TimelineRow& row : timeline.rows) {
    clipRuns(timeline, row.runs);
    const auto is_outside = [&](const TimelineMark& mark) {
      return mark.timeUs < timeline.beginUs || mark.timeUs > timeline.endUs;
    };
    row.marks.erase(
        std::remove_if(row.marks.begin(), row.marks.end(), is_outside),
        row.marks.end());
    joinRuns(timeline, row.runs);
    joinMarks(timeline, row.marks);
  }
}

std::vector<Tick> ticksOf(int64_t begin_us, int64_t end_us, size_t count) {
  const int64_t begin = begin_us / kAxisUsPerSecond;
  const int64_t end = end_us / kAxisUsPerSecond;
  const int64_t step = stepFor(end - begin, count);
  std::vector<Tick> ticks;
  for (int64_t time = (begin / step + 1) * step; time <= end; time += step) {
    ticks.push_back({time * kAxisUsPerSecond, tickLabel(time, step)});
  }
  return ticks;
}

void printTimelineSvg(Output& out, const Timeline& timeline) {
  const int64_t height =
      kAxisHeight + kRowHeight * static_cast<int64_t>(timeline.rows.size());
  out << "<svg id=\"timeline-plot\" role=\"img\" aria-labelledby=\"timeline\" "
         "viewBox=\"0 0 "
      << kDrawingWidth << " " << height + 2 << "\" data-begin=\""
      << timeline.beginUs / 1000 << "\" data-span=\""
      << scriptTime(timeline, timeline.endUs) << "\" data-left=\"" << kPlotLeft
      << "\" data-width=\"" << kPlotWidth
      << "\">\n<clipPath id=\"plot\"><rect x=\"" << kPlotLeft - 5
      << "\" y=\"0\" width=\"" << kPlotWidth + 10 << "\" height=\"" << height
      << "\"/></clipPath>\n";
  printTicks(out, timeline, height);
  int64_t top = kAxisHeight;
  for (const TimelineRow& row : timeline.rows) {
    printRow(out, timeline, row, top);
    top += kRowHeight;
  }
  out << "</svg>\n";
}

}  // namespace vorn::launch
