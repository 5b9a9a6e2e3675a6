#include "live/log_line.h"

#include <algorithm>
#include <charconv>

#include "live/log_time.h"

namespace vorn::launch {
namespace {

bool isDigit(char letter) { return letter >= '0' && letter <= '9'; }

template <typename Number>
std::optional<Number> numberIn(std::string_view digits) {
  Number number = 0;
  const char* const end = digits.data() + digits.size();
  const auto result = std::from_chars(digits.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
  return number;
}

/// Removes `part` from the start of `rest`; false if it is not there.
bool skip(std::string_view& rest, std::string_view part) {
  if (rest.substr(0, part.size()) != part) return false;
  rest.remove_prefix(part.size());
  return true;
}

/// Removes a syslog priority, "<6>".
void skipPriority(std::string_view& rest) {
  if (rest.size() > 2 && rest[0] == '<' && isDigit(rest[1]) && rest[2] == '>') {
    rest.remove_prefix(3);
  }
}

/// Removes a colour sequence of a terminal.
void skipColour(std::string_view& rest) {
  for (const std::string_view colour :
       {"\x1b[32m", "\x1b[33m", "\x1b[31m", "\x1b[0m"}) {
    if (skip(rest, colour)) return;
  }
}

bool isLevel(std::string_view word) {
  return word == "INFO" || word == "WARN" || word == "ERROR" ||
         numberIn<int>(word);
}

/// Removes the text up to `mark`, and the mark itself. Nothing if it is not
/// there.
std::optional<std::string_view> takeUntil(std::string_view& rest,
                                          std::string_view mark) {
  const size_t end = rest.find(mark);
  if (end == std::string_view::npos) return std::nullopt;
  const std::string_view part = rest.substr(0, end);
  rest.remove_prefix(end + mark.size());
  return part;
}

bool takeLevel(std::string_view& rest, LogLine& line) {
  line.isEvent = skip(rest, "*");
  skipColour(rest);
  const size_t end = rest.find_first_of(" \x1b");
  if (end == std::string_view::npos) return false;
  line.level = rest.substr(0, end);
  rest.remove_prefix(end);
  skipColour(rest);
  if (rest.empty() || rest.front() != ' ' || !isLevel(line.level)) return false;
  rest.remove_prefix(std::min(rest.size(), rest.find_first_not_of(' ')));
  return true;
}

/// Parses the line after its time and its priority.
bool parseRest(std::string_view rest, LogLine& line) {
  if (!takeLevel(rest, line)) return false;
  const auto program = takeUntil(rest, "[");
  const auto pid = program ? takeUntil(rest, "] ") : std::nullopt;
  const auto number = pid ? numberIn<pid_t>(*pid) : std::nullopt;
  const auto location = number ? takeUntil(rest, " ") : std::nullopt;
  const auto function = location ? takeUntil(rest, ": ") : std::nullopt;
  constexpr auto kNowhere = std::string_view::npos;
  if (!function || location->find(':') == kNowhere ||
      program->find(' ') != kNowhere || function->find(' ') != kNowhere) {
    return false;
  }
  line.program = *program;
  line.pid = *number;
  line.function = *function;
  line.text = rest;
  return true;
}

/// The line with the last time in `text`, if it is complete.
std::optional<LogLine> parseAtTime(std::string_view text) {
  for (size_t end = text.rfind("Z "); end != std::string_view::npos && end > 0;
       end = text.rfind("Z ", end - 1)) {
    if (end + 1 < kLogTimeLength) break;
    const std::string_view tail = text.substr(end + 1 - kLogTimeLength);
    const auto time = parseLogTime(tail);
    LogLine line;
    if (!time || !parseRest(tail.substr(kLogTimeLength + 1), line)) continue;
    line.timeUs = *time;
    return line;
  }
  return std::nullopt;
}

}  // namespace

std::optional<LogLine> parseLogLine(std::string_view line) {
  LogLine parsed;
  std::string_view rest = line;
  skipPriority(rest);
  return parseRest(rest, parsed) ? parsed : parseAtTime(line);
}

std::string nameInLog(std::string_view name) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  std::string escaped;
  for (const char letter : name) {
    const auto byte = static_cast<unsigned char>(letter);
    if (byte >= 0x20 && byte != 0x7f) {
      escaped += letter;
    } else if (letter == '\n') {
      escaped += "\\n";
    } else if (letter == '\r') {
      escaped += "\\r";
    } else if (letter == '\t') {
      escaped += "\\t";
    } else {
      escaped += {'\\', 'x', kHexDigits[byte >> 4U], kHexDigits[byte & 0x0fU]};
    }
  }
  return escaped;
}

}  // namespace vorn::launch
