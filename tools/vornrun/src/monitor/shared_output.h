#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string_view>

namespace vorn::run {

/// The original standard output or error, which the launcher and other nodes
/// use as well. Writes without waiting and without O_NONBLOCK on the shared
/// open file description.
class SharedOutput {
 public:
  /// `fd` remains the caller's and must stay open.
  explicit SharedOutput(int fd);
  SharedOutput(const SharedOutput&) = delete;
  SharedOutput& operator=(const SharedOutput&) = delete;
  ~SharedOutput();

  /// The number of bytes that were written, 0 if the reader is slow, -1 if
  /// nothing can be written any more. A pipe takes whole lines where possible,
  /// so that lines of other writers do not cut them.
  ssize_t write(std::string_view text) const;

  /// Polled for POLLOUT; -1 if write() never returns 0.
  int descriptor() const { return kind_ == Kind::FILE ? -1 : fd_; }

 private:
  enum class Kind { FILE, PIPE, SOCKET };
  Kind kind_ = Kind::FILE;
  int fd_;
  bool is_owned_ = false;
};

/// The number of bytes of `text` that a pipe takes in one piece: whole lines up
/// to PIPE_BUF if there are any.
size_t pieceForPipe(std::string_view text);

}  // namespace vorn::run
