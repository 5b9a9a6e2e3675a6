#include "live/log_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "live/launcher_file.h"
#include "live/line_splitter.h"
#include "live/log_time.h"

namespace vorn::launch {
namespace {

constexpr size_t kBlockSize = size_t{64} * 1024;
constexpr int kOpenFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

/// Passes the lines from `since_us` to a reader. The time of a line without one
/// is that of the line before it.
class RecordFilter {
 public:
  RecordFilter(int64_t since_us, const LogReader& reader)
      : since_us_(since_us), reader_(reader) {}

  bool operator()(std::string_view line) {
    LogRecord record;
    record.text = line;
    if (const auto time = parseLogTime(line)) {
      record.timeUs = *time;
      last_us_ = *time;
    }
    return last_us_ < since_us_ || reader_(record);
  }

 private:
  int64_t since_us_;
  const LogReader& reader_;
  int64_t last_us_ = 0;
};

/// One file of a log.
struct LogPart {
  std::string name;
  std::shared_ptr<const Descriptor> file;
  bool isCompressed = false;
};

struct Probe {
  int64_t offset = 0;
  int64_t timeUs = 0;
};

/// The first line with a time that begins in these bytes of a file.
std::optional<Probe> firstTimed(int fd, int64_t begin, int64_t end) {
  std::optional<Probe> found;
  // The line before `begin` ends in the byte before it.
  const int64_t start = std::max<int64_t>(begin - 1, 0);
  bool is_first = begin > 0;
  LineSplitter* current = nullptr;
  LineSplitter splitter([&](std::string_view line) {
    const bool is_fragment = std::exchange(is_first, false);
    const int64_t offset = start + current->lineBegin();
    if (offset >= end) return false;
    const auto time = is_fragment ? std::nullopt : parseLogTime(line);
    if (time) found = Probe{offset, *time};
    return !time;
  });
  current = &splitter;
  std::string block(kBlockSize, '\0');
  for (int64_t offset = start;;) {
    const ssize_t got = ::pread(fd, block.data(), block.size(), offset);
    if (got <= 0) break;
    offset += got;
    const std::string_view bytes(block.data(), static_cast<size_t>(got));
    if (!splitter.add(bytes) || start + splitter.lineBegin() >= end) {
      return found;
    }
  }
  return found;
}

/// The offset of a line before the first one from `since_us`, found by
/// bisection. 0 if the times in the file are not in order.
int64_t offsetOf(int fd, int64_t size, int64_t since_us) {
  std::optional<Probe> low = firstTimed(fd, 0, size);
  if (!low || low->timeUs >= since_us) return 0;
  int64_t high = size;
  int64_t high_time = INT64_MAX;
  while (high - low->offset > static_cast<int64_t>(kBlockSize)) {
    const int64_t middle = low->offset + (high - low->offset) / 2;
    const std::optional<Probe> probe = firstTimed(fd, middle, high);
    if (!probe) {
      high = middle;
      continue;
    }
    if (probe->timeUs < low->timeUs || probe->timeUs > high_time) return 0;
    if (probe->timeUs < since_us) {
      low = probe;
    } else {
      high = middle;
      high_time = probe->timeUs;
    }
  }
  return low->offset;
}

int64_t sizeOf(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? int64_t{status.st_size} : 0;
}

/// Reads a file from `offset` with read(2), without moving its position.
bool readPlain(const LogPart& part, int64_t offset, LineSplitter& splitter,
               std::string& error) {
  std::string block(kBlockSize, '\0');
  for (;;) {
    const ssize_t got =
        ::pread(part.file->number(), block.data(), block.size(), offset);
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      error = "cannot read " + part.name + ": " + std::strerror(errno);
      return false;
    }
    if (got == 0) return true;
    offset += got;
    if (!splitter.add({block.data(), static_cast<size_t>(got)})) return true;
  }
}

bool readCompressed(const LogPart& part, LineSplitter& splitter,
                    std::string& error) {
  const int copy = ::fcntl(part.file->number(), F_DUPFD_CLOEXEC, 0);
  if (copy >= 0) (void)::lseek(copy, 0, SEEK_SET);
  const gzFile file = copy < 0 ? nullptr : ::gzdopen(copy, "rb");
  if (file == nullptr) {
    error = "cannot read " + part.name + ": " + std::strerror(errno);
    if (copy >= 0) (void)::close(copy);
    return false;
  }
  std::string block(kBlockSize, '\0');
  int got = 0;
  while ((got = ::gzread(file, block.data(),
                         static_cast<unsigned>(block.size()))) > 0) {
    if (!splitter.add({block.data(), static_cast<size_t>(got)})) break;
  }
  int code = Z_OK;
  const std::string reason = ::gzerror(file, &code);
  (void)::gzclose(file);
  if (got >= 0) return true;
  error = "cannot read " + part.name + ": " +
          (code == Z_ERRNO ? std::strerror(errno) : reason);
  return false;
}

bool isCompressed(int fd) {
  unsigned char magic[2] = {};
  return ::pread(fd, magic, sizeof(magic), 0) == sizeof(magic) &&
         magic[0] == 0x1f && magic[1] == 0x8b;
}

/// Reads a part from `since_us`, and its last line also without a line end.
bool readPart(const LogPart& part, int64_t since_us, RecordFilter& filter,
              bool& is_stopped, std::string& error) {
  LineSplitter splitter([&](std::string_view line) {
    is_stopped = !filter(line);
    return !is_stopped;
  });
  const int fd = part.file->number();
  const bool is_read =
      part.isCompressed
          ? readCompressed(part, splitter, error)
          : readPlain(part,
                      since_us == 0 ? 0 : offsetOf(fd, sizeOf(fd), since_us),
                      splitter, error);
  if (is_read && !is_stopped) (void)splitter.finish();
  return is_read;
}

/// Opens a rotated neighbour, if it exists and is a regular file.
std::optional<LogPart> openPart(const LogLocation& location,
                                const std::string& path) {
  const int fd =
      location.launcher == 0
          ? ::open(path.c_str(), kOpenFlags)
          : openAsLauncher(location.launcher, location.root, path, kOpenFlags);
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
      std::min<int64_t>(sizeOf(fd), static_cast<int64_t>(kBlockSize) * 16);
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
                  const LogReader& reader, std::string& error) {
  RecordFilter filter(since_us, reader);
  std::vector<LogPart> parts = partsOf(location, since_us);
  bool is_stopped = false;
  for (; !parts.empty() && !is_stopped; parts.pop_back()) {
    if (!readPart(parts.back(), since_us, filter, is_stopped, error)) {
      return false;
    }
  }
  return true;
}

bool readLogFileEnd(const LogLocation& location, int64_t size, int64_t since_us,
                    const LogReader& reader, bool& is_all, std::string& error) {
  const int fd = location.file->number();
  const int64_t whole = sizeOf(fd);
  is_all = size >= whole || isCompressed(fd);
  if (is_all) return readLogFiles(location, since_us, reader, error);
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
  (void)splitter.finish();
  return true;
}

bool readLogInput(int64_t since_us, const LogReader& reader,
                  std::string& error) {
  LineSplitter splitter(RecordFilter(since_us, reader));
  std::string block(kBlockSize, '\0');
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
