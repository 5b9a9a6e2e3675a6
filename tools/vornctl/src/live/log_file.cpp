#include "live/log_file.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "live/launcher_file.h"
#include "live/line_splitter.h"
#include "live/log_time.h"
#include "live/proc_file.h"

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

/// The end of the hole at the start of a file: a file that was truncated while
/// its writer kept its offset has one. 0 if there is none.
int64_t holeEnd(int fd) {
  return std::max<int64_t>(::lseek(fd, 0, SEEK_DATA), 0);
}

/// The first line with a time that begins in these bytes of a file.
std::optional<Probe> firstTimed(int fd, int64_t begin, int64_t end) {
  std::optional<Probe> found;
  // The line before `begin` ends in the byte before it.
  const int64_t hole_end = holeEnd(fd);
  const int64_t start = std::max(begin - 1, hole_end);
  bool is_first = begin > hole_end;
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
/// bisection. The first one if the times in the file are not in order.
int64_t offsetOf(int fd, int64_t size, int64_t since_us) {
  std::optional<Probe> low = firstTimed(fd, 0, size);
  if (!low || low->timeUs >= since_us) return holeEnd(fd);
  int64_t high = size;
  int64_t high_time = INT64_MAX;
  while (high - low->offset > static_cast<int64_t>(kBlockSize)) {
    const int64_t middle = low->offset + (high - low->offset) / 2;
    const std::optional<Probe> probe = firstTimed(fd, middle, high);
    if (!probe) {
      high = middle;
      continue;
    }
    if (probe->timeUs < low->timeUs || probe->timeUs > high_time) {
      return holeEnd(fd);
    }
    if (probe->timeUs < since_us) {
      low = probe;
    } else {
      high = middle;
      high_time = probe->timeUs;
    }
  }
  return low->offset;
}

int64_t fileSize(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? int64_t{status.st_size} : 0;
}

/// Reads a file from `offset` to its end.
bool readPlain(const LogPart& part, int64_t offset, LineSplitter& splitter,
               std::string& error) {
  std::string block(kBlockSize, '\0');
  for (;;) {
    const ssize_t got =
        ::pread(part.file->number(), block.data(), block.size(), offset);
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
  gzFile file = copy < 0 ? nullptr : ::gzdopen(copy, "rb");
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
  std::string reason = ::gzerror(file, &code);
  // Without the number of the descriptor, "<fd:6>: ".
  reason.erase(0, reason.rfind(": ") + 2);
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
      std::min<int64_t>(fileSize(fd), static_cast<int64_t>(kBlockSize) * 16);
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

/// Follows one file, which is replaced after a rotation.
class FollowedFile {
 public:
  FollowedFile(const LogLocation& location, LogPosition& position,
               const LogReader& reader)
      : location_(location),
        position_(position),
        part_{location.name, location.file, false},
        filter_(0, reader) {
    beginAt(position.offset);
  }

  bool isStopped() const { return is_stopped_; }

  /// Reads to the end of the file, or of its successor.
  bool readOn(std::string& error) {
    // A file shorter than the part that was read was truncated.
    if (fileSize(number()) < offset_) restart(part_.file);
    if (!readToEnd(error)) return false;
    const std::shared_ptr<const Descriptor> next = successor();
    if (!next) return true;
    // The writer may have added lines before the rotation.
    if (!readToEnd(error)) return false;
    restart(next);
    return readToEnd(error);
  }

  /// Waits for a change; false if `cancel_fd` is readable.
  bool wait(int cancel_fd) {
    const Descriptor notifier(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    const std::string link = "/proc/self/fd/" + std::to_string(number());
    (void)::inotify_add_watch(notifier.number(), link.c_str(), IN_MODIFY);
    pollfd watched[] = {{notifier.number(), POLLIN, 0}, {cancel_fd, POLLIN, 0}};
    // For rotations, and for file systems without notification.
    constexpr int kLimitMs = 500;
    const bool has_changed = fileSize(number()) != offset_;
    (void)::poll(watched, 2, has_changed ? 0 : kLimitMs);
    return watched[1].revents == 0;
  }

 private:
  int number() const { return part_.file->number(); }

  void beginAt(int64_t offset) {
    begin_ = offset;
    offset_ = offset;
    splitter_.emplace([this](std::string_view line) {
      is_stopped_ = !filter_(line);
      return !is_stopped_;
    });
  }

  void restart(const std::shared_ptr<const Descriptor>& file) {
    if (!is_stopped_) (void)splitter_->finish();
    part_.file = file;
    beginAt(0);
  }

  bool readToEnd(std::string& error) {
    std::string block(kBlockSize, '\0');
    while (!is_stopped_) {
      const ssize_t got =
          ::pread(number(), block.data(), block.size(), offset_);
      if (got < 0) {
        error = "cannot read " + part_.name + ": " + std::strerror(errno);
        return false;
      }
      if (got == 0) break;
      offset_ += got;
      (void)splitter_->add({block.data(), static_cast<size_t>(got)});
      position_.offset = begin_ + splitter_->lineBegin();
    }
    return true;
  }

  /// The file that has replaced the current one at its path; null if none has.
  std::shared_ptr<const Descriptor> successor() const {
    struct stat own {};
    struct stat other {};
    if (::fstat(number(), &own) != 0) return nullptr;
    const auto is_own = [&own, &other] {
      return own.st_dev == other.st_dev && own.st_ino == other.st_ino;
    };
    if (location_.launcher != 0) {
      // A launcher keeps writing to a renamed file.
      const std::string link = procFile(location_.launcher, "fd/2");
      const bool is_written = ::stat(link.c_str(), &other) == 0 && is_own();
      if (is_written || !location_.root.empty()) return nullptr;
    }
    auto file = std::make_shared<const Descriptor>(
        ::open(location_.path.c_str(), kOpenFlags));
    if (file->number() < 0 || ::fstat(file->number(), &other) != 0 ||
        !S_ISREG(other.st_mode) || is_own()) {
      return nullptr;
    }
    return file;
  }

  const LogLocation& location_;
  LogPosition& position_;
  LogPart part_;
  RecordFilter filter_;
  std::optional<LineSplitter> splitter_;
  int64_t begin_ = 0;   // the offset at which the splitter began
  int64_t offset_ = 0;  // of the next byte
  bool is_stopped_ = false;
};

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

bool followLogFile(const LogLocation& location, LogPosition& position,
                   int cancel_fd, const LogReader& reader, std::string& error) {
  FollowedFile file(location, position, reader);
  do {
    if (!file.readOn(error)) return false;
  } while (!file.isStopped() && file.wait(cancel_fd));
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
