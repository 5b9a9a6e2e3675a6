#pragma once

#include <string>

#include "monitor/log_sink.h"
#include "monitor/output_queue.h"
#include "monitor/shared_output.h"

namespace vorn::run {

/// Copies one stream to the stream that the node would have had, with a prefix
/// before each line.
class PrefixSink : public LogSink {
 public:
  /// Lines of the stream are written to `fd`, which stays the caller's, after
  /// `prefix`. The number of dropped bytes is added to `dropped`, which must
  /// outlive the sink.
  PrefixSink(Stream stream, int fd, std::string prefix, uint64_t& dropped);

  void write(Stream stream, std::string_view text) override;
  void addPolls(PollSet& polls) const override;
  void proceed(const PollSet& polls, int64_t now_ms) override;
  void finish() override;
  uint64_t heldBytes() const override { return queue_.content().size(); }

 private:
  void writeLine(std::string_view line);
  bool appendNotice();
  void flush();
  void drop(size_t size);

  // Longer lines are cut, so that every line fits into the queue.
  static constexpr size_t kLongestLine = size_t{16} << 10;

  Stream stream_;
  SharedOutput output_;
  std::string prefix_;
  uint64_t& dropped_;
  OutputQueue queue_;
  uint64_t unreported_ = 0;  // dropped bytes without a notice yet
};

}  // namespace vorn::run
