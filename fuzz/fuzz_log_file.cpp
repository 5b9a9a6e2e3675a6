// A file of any content as the log of a launcher. The correct result: the
// records are the lines of the file, cut to their longest length; from a point
// in time they are those from the first line of that time, if the times are in
// order. Everything else that reads logs must survive the lines.
//
// Input: the point in time (four bytes, in microseconds after the first time in
// the file), a byte for the length of a line of a node after each line, then
// the lines.

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "live/line_splitter.h"
#include "live/log_history.h"
#include "live/log_source.h"
#include "live/log_time.h"
#include "support/check.h"
#include "support/input.h"

namespace vorn::fuzz {
namespace {

using launch::LogLocation;
using launch::LogRecord;

struct Line {
  std::string text;
  int64_t timeUs = 0;  // that of the line before it if it has none
};

std::vector<Line> linesOf(std::string_view file) {
  std::vector<Line> lines;
  int64_t time = 0;
  while (!file.empty()) {
    const size_t end = std::min(file.find('\n'), file.size());
    std::string_view text = file.substr(0, end);
    const bool is_complete = end < file.size();
    file.remove_prefix(end + (is_complete ? 1 : 0));
    text.remove_prefix(std::min(text.find_first_not_of('\0'), text.size()));
    if (!is_complete && text.empty()) break;
    text = text.substr(0, launch::kMaxLogLine);
    time = launch::parseLogTime(text).value_or(time);
    lines.push_back({std::string(text), time});
  }
  return lines;
}

/// The input with a long line after each line: a point in time is searched only
/// in large files.
std::string padded(std::string_view file, size_t length) {
  if (length == 0) return std::string(file);
  std::string whole;
  for (const char letter : file) {
    whole += letter;
    if (letter == '\n') whole.append(length, 'x') += '\n';
  }
  return whole;
}

LogLocation store(std::string_view file) {
  LogLocation location;
  location.name = "log";
  location.path = "/nonexistent/log";
  location.file = std::make_shared<const launch::Descriptor>(
      ::memfd_create("log", MFD_CLOEXEC));
  check(::write(location.file->number(), file.data(), file.size()) ==
            static_cast<ssize_t>(file.size()),
        "the file is written");
  return location;
}

std::vector<std::string> textsSince(const LogLocation& location,
                                    int64_t since_us) {
  std::vector<std::string> texts;
  std::string error;
  const auto reader = [&](const LogRecord& record) {
    texts.emplace_back(record.text);
    return true;
  };
  check(readLog(location, since_us, reader, error), "the log is read");
  std::vector<std::string> last;
  check(readLogEnd(
            location, 3, since_us, [](const LogRecord&) { return true; },
            [&](const LogRecord& record) {
              last.emplace_back(record.text);
              return true;
            },
            error),
        "the end of the log is read");
  check(last.size() == std::min<size_t>(texts.size(), 3) &&
            std::equal(last.begin(), last.end(),
                       texts.end() - static_cast<ptrdiff_t>(last.size())),
        "the end of the log is its last records");
  return texts;
}

void checkRecords(const LogLocation& location, const std::vector<Line>& lines,
                  int64_t since_us) {
  const auto is_older = [](const Line& one, const Line& other) {
    return one.timeUs < other.timeUs;
  };
  // Without an order of times, where the lines since a time begin is not
  // defined.
  if (since_us != 0 && !std::is_sorted(lines.begin(), lines.end(), is_older)) {
    std::string error;
    check(readLog(
              location, since_us, [](const LogRecord&) { return true; }, error),
          "the log is read");
    return;
  }
  std::vector<std::string> expected;
  for (const Line& line : lines) {
    if (line.timeUs >= since_us) expected.push_back(line.text);
  }
  check(textsSince(location, since_us) == expected,
        "the records are the lines from that time");
}

bool isCompressed(std::string_view file) {
  return file.substr(0, 2) == "\x1f\x8b";
}

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn::fuzz;
  Input input(data, size);
  const int64_t offset_us = input.number();
  constexpr size_t kPadding = 64;
  const size_t padding = input.byte() * kPadding;
  const std::string file = padded(input.bytes(size), padding);
  const LogLocation location = store(file);
  const std::vector<Line> lines = linesOf(file);
  if (isCompressed(file)) {
    std::string error;
    (void)readLog(
        location, 0, [](const LogRecord&) { return true; }, error);
    return 0;
  }
  checkRecords(location, lines, 0);
  int64_t first = 1;
  for (const Line& line : lines) {
    if (first <= 1) first = std::max(first, line.timeUs);
  }
  checkRecords(location, lines, first + offset_us);
  vorn::launch::LogHistory history([](const vorn::launch::HistoryEvent&) {});
  for (const Line& line : lines) history.add(line.timeUs, 0, line.text);
  history.finish();
  return 0;
}
