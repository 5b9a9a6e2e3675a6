#include "live/last_lines.h"

#include <deque>

namespace vorn::launch {
namespace {

constexpr int64_t kMinuteUs = 60'000'000;

/// Reads the lines between `since_us` and the line of the launcher about the
/// exit.
std::deque<std::string> readBefore(const LogLocation& location,
                                   const HistoryEvent& exit, size_t count,
                                   int64_t since_us) {
  const std::string end = "si_pid: " + std::to_string(exit.pid) + ',';
  std::deque<std::string> lines;
  std::string error;
  (void)readLog(
      location, since_us,
      [&](const LogRecord& record) {
        const auto line = parseLogLine(record.text);
        if (line && line->pid == exit.launcher) {
          const int64_t time_us =
              line->timeUs != 0 ? line->timeUs : record.timeUs;
          return time_us < exit.timeUs || line->text.rfind(end, 0) != 0;
        }
        if (record.pid != 0 && record.pid != exit.pid) return true;
        lines.emplace_back(record.text);
        if (lines.size() > count) lines.pop_front();
        return true;
      },
      error);
  return lines;
}

}  // namespace

LastLines readLastLines(const LogLocation& location, const HistoryEvent& exit,
                        size_t count) {
  // A line of a node in a file has no time: it is as old as the last line of
  // the launcher before it, which can be long ago.
  const int64_t run_us = exit.runUs < 0 ? 60 * kMinuteUs : exit.runUs;
  std::deque<std::string> lines;
  for (const int64_t back_us : {kMinuteUs, run_us + kMinuteUs}) {
    lines = readBefore(location, exit, count, exit.timeUs - back_us);
    if (!lines.empty()) break;
  }
  return {{lines.begin(), lines.end()},
          location.kind == LogLocation::Kind::JOURNAL};
}

}  // namespace vorn::launch
