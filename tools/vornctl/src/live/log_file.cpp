#include "live/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "live/launcher_file.h"
#include "live/line_splitter.h"
#include "live/log_part.h"

namespace vorn::launch {
namespace {

/// Passes a last line without a line end, or leaves it to followLog().
void finishPart(LineSplitter& splitter, int64_t begin, LogPosition* end) {
  if (end == nullptr) {
    (void)splitter.finish();
  } else {
    end->offset = begin + splitter.lineBegin();
  }
}

/// Reads a part from `since_us`. `end` is that of readLog(), and null for the
/// older parts.
bool readPart(const LogPart& part, int64_t since_us, RecordFilter& filter,
              bool& is_stopped, std::string& error, LogPosition* end) {
  LineSplitter splitter([&](std::string_view line) {
    is_stopped = !filter(line);
    return !is_stopped;
  });
  const int fd = part.file->number();
  const int64_t begin = part.isCompressed || since_us == 0
                            ? holeEnd(fd)
                            : offsetOf(fd, fileSize(fd), since_us);
  const bool is_read = part.isCompressed
                           ? readCompressed(part, splitter, error)
                           : readPlain(part, begin, splitter, error);
  if (is_read && !is_stopped) finishPart(splitter, begin, end);
  return is_read;
}

/// Opens a rotated neighbour, if it exists and is a regular file.
std::optional<LogPart> openPart(const LogLocation& location,
                                const std::string& path) {
  const int fd = location.launcher == 0
                     ? ::open(path.c_str(), kLogOpenFlags)
                     : openAsLauncher(location.launcher, location.root, path,
                                      kLogOpenFlags);
  LogPart part{path, std::make_shared<const Descriptor>(fd), false};
  struct stat status {};
  if (fd < 0 || ::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) {
    return std::nullopt;
  }
  part.isCompressed = isCompressed(fd);
  return part;
}

std::optional<LogPart> openNumber(const LogLocation& location,
                                  const std::string& base, int number) {
  const std::string path = base + '.' + std::to_string(number);
  auto part = openPart(location, path);
  return part ? part : openPart(location, path + ".gz");
}

/// Whether a file can have lines from `since_us`: it was written since then.
bool isRecent(const LogPart& part, int64_t since_us) {
  struct stat status {};
  return ::fstat(part.file->number(), &status) != 0 ||
         (int64_t{status.st_mtim.tv_sec} + 1) * 1'000'000 >= since_us;
}

bool beginsBefore(const LogPart& part, int64_t since_us) {
  if (part.isCompressed) return false;  // is only known after its expansion
  const int fd = part.file->number();
  // A part of the file that is long enough for a launcher's line.
  const int64_t end =
      std::min<int64_t>(fileSize(fd), static_cast<int64_t>(kLogBlockSize) * 16);
  const auto first = firstTimed(fd, 0, end);
  return first && first->timeUs < since_us;
}

/// The path of the newest file and its number. A launcher cannot reopen its
/// log: after a rotation by renaming, it writes to NAME.1.
std::pair<std::string, int> splitNumber(const std::string& path) {
  const size_t dot = path.rfind('.');
  constexpr size_t kMostDigits = 3;
  if (dot == std::string::npos || dot + 1 == path.size() ||
      path.size() - dot - 1 > kMostDigits ||
      path.find_first_not_of("0123456789", dot + 1) != std::string::npos) {
    return {path, 0};
  }
  return {path.substr(0, dot), std::stoi(path.substr(dot + 1))};
}

/// The files of the log that can have records from `since_us`, the newest
/// first.
std::vector<LogPart> partsOf(const LogLocation& location, int64_t since_us) {
  std::vector<LogPart> parts = {
      {location.name, location.file, isCompressed(location.file->number())}};
  auto [base, number] = splitNumber(location.path);
  if (number != 0 && openNumber(location, location.path, 1)) {
    base = location.path;
    number = 0;
  }
  constexpr int kMostFiles = 1000;
  while (number < kMostFiles &&
         !(since_us != 0 && beginsBefore(parts.back(), since_us))) {
    auto part = openNumber(location, base, ++number);
    if (!part || (since_us != 0 && !isRecent(*part, since_us))) break;
    parts.push_back(std::move(*part));
  }
  return parts;
}

}  // namespace

bool readLogFiles(const LogLocation& location, int64_t since_us,
                  const LogReader& reader, std::string& error,
                  LogPosition* end) {
  RecordFilter filter(since_us, reader);
  std::vector<LogPart> parts = partsOf(location, since_us);
  bool is_stopped = false;
  for (; !parts.empty() && !is_stopped; parts.pop_back()) {
    if (!readPart(parts.back(), since_us, filter, is_stopped, error,
                  parts.size() == 1 ? end : nullptr)) {
      return false;
    }
  }
  return true;
}

bool readLogFileEnd(const LogLocation& location, int64_t size, int64_t since_us,
                    const LogReader& reader, bool& is_all, std::string& error,
                    LogPosition* end) {
  const int fd = location.file->number();
  const int64_t whole = fileSize(fd);
  is_all = size >= whole || isCompressed(fd);
  if (is_all) return readLogFiles(location, since_us, reader, error, end);
  const int64_t begin = whole - size;
  RecordFilter filter(since_us, reader);
  bool is_first = true;
  LineSplitter splitter([&](std::string_view line) {
    return std::exchange(is_first, false) || filter(line);
  });
  if (since_us != 0) {
    const auto first = firstTimed(fd, begin, whole);
    is_all = first && first->timeUs < since_us;
  }
  if (!readPlain({location.name, location.file, false}, begin, splitter,
                 error)) {
    return false;
  }
  finishPart(splitter, begin, end);
  return true;
}

bool readLogInput(int64_t since_us, const LogReader& reader,
                  std::string& error) {
  LineSplitter splitter(RecordFilter(since_us, reader));
  std::string block(kLogBlockSize, '\0');
  for (;;) {
    const ssize_t got = ::read(STDIN_FILENO, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error =
          std::string("cannot read standard input: ") + std::strerror(errno);
      return false;
    }
    if (got == 0) {
      (void)splitter.finish();
      return true;
    }
    if (!splitter.add({block.data(), static_cast<size_t>(got)})) return true;
  }
}

}  // namespace vorn::launch
