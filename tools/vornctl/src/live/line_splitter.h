#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace vorn::launch {

/// The longest line of a log; the rest of a longer line is dropped.
constexpr size_t kMaxLogLine = size_t{64} * 1024;

/// Splits a log, which arrives in pieces, into lines. Drops NULs at the start
/// of a line: a file that was truncated while its writer kept its offset begins
/// with them. Needs memory for one line.
class LineSplitter {
 public:
  /// Receives a line without its line end, valid during the call; false stops.
  using Receiver = std::function<bool(std::string_view line)>;

  explicit LineSplitter(Receiver receiver) : receiver_(std::move(receiver)) {}

  /// Splits the next piece. False if the receiver has stopped.
  bool add(std::string_view piece);

  /// Passes the last line if it has no line end. False if the receiver stopped.
  bool finish();

  /// The number of bytes before the current line: that of the receiver during
  /// its call, the unfinished one otherwise.
  int64_t lineBegin() const { return line_begin_; }

 private:
  bool pass(std::string_view line, int64_t next);

  Receiver receiver_;
  std::string unfinished_;
  int64_t line_begin_ = 0;
  int64_t count_ = 0;  // of all bytes so far
};

}  // namespace vorn::launch
