#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace vorn::launch {

/// One line of the launcher's log; the texts are parts of the parsed line.
struct LogLine {
  int64_t timeUs =
      0;  // since the epoch; 0 if it has no time, as in the journal
  bool isEvent = false;
  std::string_view level;    // "INFO", "WARN", "ERROR" or a number
  std::string_view program;  // "vornlaunch"
  pid_t pid = 0;             // of the writer, as it sees itself
  std::string_view function;
  std::string_view text;
};

/// Parses a line, without its line end, as libvornlib writes it: with or
/// without a time, a syslog priority or colours. Text in front of a line with
/// a time is skipped: a node that shares the file can have written part of a
/// line. Nothing if it is another text.
std::optional<LogLine> parseLogLine(std::string_view line);

/// The name of a node as the log writes it: control characters are escaped.
std::string nameInLog(std::string_view name);

}  // namespace vorn::launch
