#include "monitor/log_reader.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace vorn::run {
namespace {
// One read for a full pipe where nothing is copied; less memory otherwise.
constexpr size_t kDirectBuffer = size_t{64} << 10;
constexpr size_t kLineBuffer = size_t{32} << 10;
}  // namespace

LogReader::LogReader(Stream stream, int fd, bool holds_partial_lines,
                     uint64_t& held)
    : stream_(stream),
      fd_(fd),
      holds_partial_lines_(holds_partial_lines),
      held_(held),
      size_(holds_partial_lines ? kLineBuffer : kDirectBuffer),
      data_(new char[size_]) {
  held_ = 0;
}

int64_t LogReader::deadline() const {
  return used_ == 0 ? kNever : partial_since_ms_ + kPartialLineMs;
}

size_t LogReader::read(const LogSinks& sinks, int64_t now_ms, size_t most) {
  const ssize_t count =
      ::read(fd_, data_.get() + used_, std::min(most, size_ - used_));
  if (count < 0 && (errno == EINTR || errno == EAGAIN)) return 0;
  if (count <= 0) {  // every writer has closed its end; EIO: the same of a pty
    fd_ = -1;
    return 0;
  }
  used_ += static_cast<size_t>(count);
  held_ = used_;
  partial_since_ms_ = now_ms;
  size_t whole = used_;
  if (holds_partial_lines_) {
    const size_t end = std::string_view(data_.get(), used_).rfind('\n');
    if (end != std::string_view::npos) {
      whole = end + 1;
    } else if (used_ < size_) {
      whole = 0;
    }
  }
  if (whole > 0) handOn(sinks, whole);
  return static_cast<size_t>(count);
}

void LogReader::handOn(const LogSinks& sinks, size_t size) {
  for (const auto& sink : sinks) sink->write(stream_, {data_.get(), size});
  used_ -= size;
  std::memmove(data_.get(), data_.get() + size, used_);
  held_ = used_;
}

void LogReader::flushPartialLine(const LogSinks& sinks, int64_t now_ms) {
  if (used_ > 0 && now_ms >= deadline()) handOn(sinks, used_);
}

}  // namespace vorn::run
