#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "monitor/log_sink.h"

namespace vorn::run {

using LogSinks = std::vector<std::unique_ptr<LogSink>>;

/// Reads one stream of the node and hands it to the sinks: whole lines, or the
/// start of a line that has not continued for two seconds or fills the buffer.
class LogReader {
 public:
  static constexpr int64_t kPartialLineMs = 2000;

  /// `fd` is the reading end, which stays the caller's; -1: never readable.
  /// Without `holds_partial_lines`, every text is handed on at once. `held` is
  /// set to the number of bytes in memory and must outlive the reader.
  LogReader(Stream stream, int fd, bool holds_partial_lines, uint64_t& held);

  int descriptor() const { return fd_; }
  /// The monotonic time in ms at which the start of a line is handed on.
  int64_t deadline() const;

  /// Reads what is there, at most `most` bytes. Returns the number of bytes.
  size_t read(const LogSinks& sinks, int64_t now_ms, size_t most);

  /// Hands on the start of a line, if its time has come.
  void flushPartialLine(const LogSinks& sinks, int64_t now_ms);

 private:
  void handOn(const LogSinks& sinks, size_t size);

  Stream stream_;
  int fd_;
  bool holds_partial_lines_;
  uint64_t& held_;
  size_t size_;  // of the buffer
  std::unique_ptr<char[]> data_;
  size_t used_ = 0;
  int64_t partial_since_ms_ = kNever;
};

}  // namespace vorn::run
