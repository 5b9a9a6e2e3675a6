#pragma once

#include <cstdint>
#include <string_view>

#include "monitor/clock.h"
#include "monitor/poll_set.h"

namespace vorn::run {

/// The two output streams of a node. With --pty, and if only --log-dir is set,
/// both are one, which is called OUTPUT.
enum class Stream : uint8_t { OUTPUT, ERROR };

/// A destination of the output of the node. It takes all text at once and never
/// waits for a reader: text that it cannot hold is dropped and counted.
class LogSink {
 public:
  LogSink() = default;
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;
  virtual ~LogSink() = default;

  /// Takes whole lines, or the start of one: text without a line end.
  virtual void write(Stream stream, std::string_view text) = 0;

  virtual void addPolls(PollSet&) const {}
  /// The monotonic time in ms of the next proceed() without an event.
  virtual int64_t deadline() const { return kNever; }
  virtual void proceed(const PollSet&, int64_t /*now_ms*/) {}

  /// Writes the rest, and counts as dropped what cannot be written.
  virtual void finish() {}

  /// Bytes that were taken and not yet written.
  virtual uint64_t heldBytes() const { return 0; }
};

}  // namespace vorn::run
