#include "live/log_part.h"

#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "live/log_time.h"

namespace vorn::launch {

bool RecordFilter::operator()(std::string_view line) {
  LogRecord record;
  record.text = line;
  if (const auto time = parseLogTime(line)) {
    record.timeUs = *time;
    last_us_ = *time;
  }
  return last_us_ < since_us_ || reader_(record);
}

int64_t fileSize(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 ? int64_t{status.st_size} : 0;
}

bool isCompressed(int fd) {
  unsigned char magic[2] = {};
  return ::pread(fd, magic, sizeof(magic), 0) == sizeof(magic) &&
         magic[0] == 0x1f && magic[1] == 0x8b;
}

int64_t holeEnd(int fd) {
  return std::max<int64_t>(::lseek(fd, 0, SEEK_DATA), 0);
}

std::optional<TimedLine> firstTimed(int fd, int64_t begin, int64_t end) {
  std::optional<TimedLine> found;
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
    if (time) found = TimedLine{offset, *time};
    return !time;
  });
  current = &splitter;
  std::string block(kLogBlockSize, '\0');
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

int64_t offsetOf(int fd, int64_t size, int64_t since_us) {
  std::optional<TimedLine> low = firstTimed(fd, 0, size);
  if (!low || low->timeUs >= since_us) return holeEnd(fd);
  int64_t high = size;
  int64_t high_time = INT64_MAX;
  while (high - low->offset > static_cast<int64_t>(kLogBlockSize)) {
    const int64_t middle = low->offset + (high - low->offset) / 2;
    const std::optional<TimedLine> probe = firstTimed(fd, middle, high);
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

bool readPlain(const LogPart& part, int64_t offset, LineSplitter& splitter,
               std::string& error) {
  std::string block(kLogBlockSize, '\0');
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
  std::string block(kLogBlockSize, '\0');
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

}  // namespace vorn::launch
