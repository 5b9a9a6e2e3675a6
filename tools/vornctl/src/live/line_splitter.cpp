#include "live/line_splitter.h"

#include <algorithm>

namespace vorn::launch {

bool LineSplitter::add(std::string_view piece) {
  while (!piece.empty()) {
    const size_t end = piece.find('\n');
    std::string_view part = piece.substr(0, end);
    const size_t taken = std::min(piece.size(), part.size() + 1);
    count_ += static_cast<int64_t>(taken);
    piece.remove_prefix(taken);
    if (unfinished_.empty()) {
      part.remove_prefix(std::min(part.size(), part.find_first_not_of('\0')));
      if (end != std::string_view::npos) {
        if (!pass(part.substr(0, kMaxLogLine), count_)) return false;
        continue;
      }
    }
    unfinished_ += part.substr(0, kMaxLogLine - unfinished_.size());
    if (end == std::string_view::npos) return true;
    const std::string line = std::move(unfinished_);
    unfinished_.clear();
    if (!pass(line, count_)) return false;
  }
  return true;
}

bool LineSplitter::finish() {
  if (unfinished_.empty()) return true;
  const std::string line = std::move(unfinished_);
  unfinished_.clear();
  return pass(line, count_);
}

bool LineSplitter::pass(std::string_view line, int64_t next) {
  const bool is_wanted = receiver_(line);
  line_begin_ = next;
  return is_wanted;
}

}  // namespace vorn::launch
