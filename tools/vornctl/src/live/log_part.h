#pragma once

#include <fcntl.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "descriptor.h"
#include "live/line_splitter.h"
#include "live/log_source.h"

// One file of a log, which can have rotated neighbours.

namespace vorn::launch {

constexpr size_t kLogBlockSize = size_t{64} * 1024;
constexpr int kLogOpenFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;

/// Passes the lines from `since_us` to a reader. The time of a line without one
/// is that of the line before it.
class RecordFilter {
 public:
  /// `reader` must live as long as the filter.
  RecordFilter(int64_t since_us, const LogReader& reader)
      : since_us_(since_us), reader_(reader) {}

  /// Returns false if the reader wants no more lines.
  bool operator()(std::string_view line);

 private:
  int64_t since_us_;
  const LogReader& reader_;
  int64_t last_us_ = 0;
};

/// One file of a log.
struct LogPart {
  std::string name;  // for messages
  std::shared_ptr<const Descriptor> file;
  bool isCompressed = false;
};

/// A line with a time.
struct TimedLine {
  int64_t offset = 0;
  int64_t timeUs = 0;
};

/// The size of a file in bytes; 0 if it is unknown.
int64_t fileSize(int fd);

/// Whether a file begins as one of gzip.
bool isCompressed(int fd);

/// The end of the hole at the start of a file: a file that was truncated while
/// its writer kept its offset has one. 0 without a hole.
int64_t holeEnd(int fd);

/// The first line with a time that begins in these bytes of a file.
std::optional<TimedLine> firstTimed(int fd, int64_t begin, int64_t end);

/// The offset of a line before the first one from `since_us`, found by
/// bisection. The first one if the times in the file are not in order.
int64_t offsetOf(int fd, int64_t size, int64_t since_us);

/// Reads a file from `offset` to its end. Returns false after an error.
bool readPlain(const LogPart& part, int64_t offset, LineSplitter& splitter,
               std::string& error);

/// Reads a compressed file from its start to its end. Returns false after an
/// error.
bool readCompressed(const LogPart& part, LineSplitter& splitter,
                    std::string& error);

}  // namespace vorn::launch
