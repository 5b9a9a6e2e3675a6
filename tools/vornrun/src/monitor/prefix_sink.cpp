#include "monitor/prefix_sink.h"

#include <algorithm>
#include <utility>

#include "monitor/dropped_notice.h"

namespace vorn::run {

PrefixSink::PrefixSink(Stream stream, int fd, std::string prefix,
                       uint64_t& dropped)
    : stream_(stream),
      output_(fd),
      prefix_(std::move(prefix)),
      dropped_(dropped) {}

void PrefixSink::write(Stream stream, std::string_view text) {
  if (stream != stream_) return;
  while (!text.empty()) {
    const size_t end = text.substr(0, kLongestLine).find('\n');
    const size_t size = end == std::string_view::npos
                            ? std::min(text.size(), kLongestLine)
                            : end + 1;
    writeLine(text.substr(0, size));
    text.remove_prefix(size);
  }
  flush();
}

void PrefixSink::writeLine(std::string_view line) {
  // Without a prefix, the text stays as it is.
  const bool is_cut = line.back() != '\n' && !prefix_.empty();
  const std::string_view end = is_cut ? "\n" : "";
  if (appendNotice() && queue_.append({prefix_, line, end})) return;
  flush();
  if (appendNotice() && queue_.append({prefix_, line, end})) return;
  drop(line.size());
}

bool PrefixSink::appendNotice() {
  if (unreported_ == 0) return true;
  // Only then, so that a slow reader sees one gap instead of many.
  if (!queue_.content().empty()) return false;
  const std::string notice = droppedNotice(unreported_, "");
  if (!queue_.append({prefix_, notice})) return false;
  unreported_ = 0;
  return true;
}

void PrefixSink::drop(size_t size) {
  unreported_ += size;
  dropped_ += size;
}

void PrefixSink::flush() {
  while (!queue_.content().empty()) {
    const ssize_t written = output_.write(queue_.content());
    if (written == 0) return;
    if (written < 0) {
      drop(queue_.content().size());
      queue_.clear();
      return;
    }
    queue_.removeFront(static_cast<size_t>(written));
  }
}

void PrefixSink::addPolls(PollSet& polls) const {
  if (!queue_.content().empty()) polls.add(output_.descriptor(), POLLOUT);
}

void PrefixSink::proceed(const PollSet& polls, int64_t /*now_ms*/) {
  if (queue_.content().empty() || !polls.hasEvent(output_.descriptor())) return;
  flush();
  if (queue_.content().empty() && appendNotice()) flush();
}

void PrefixSink::finish() {
  const int64_t end = monotonicMs() + kFinishMs;
  for (;;) {
    flush();
    if (queue_.content().empty() && appendNotice()) flush();
    const int64_t left = end - monotonicMs();
    if (queue_.content().empty() || left <= 0) return;
    PollSet polls;
    polls.add(output_.descriptor(), POLLOUT);
    polls.wait(static_cast<int>(left));
  }
}

}  // namespace vorn::run
