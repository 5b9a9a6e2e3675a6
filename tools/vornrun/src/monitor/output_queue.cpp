#include "monitor/output_queue.h"

#include <cstring>

namespace vorn::run {

bool OutputQueue::append(std::initializer_list<std::string_view> parts) {
  size_t size = 0;
  for (const std::string_view part : parts) size += part.size();
  if (end_ - begin_ + size > kSize) return false;
  if (end_ + size > kSize) {
    std::memmove(data_.get(), data_.get() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
  }
  for (const std::string_view part : parts) {
    std::memcpy(data_.get() + end_, part.data(), part.size());
    end_ += part.size();
  }
  return true;
}

void OutputQueue::removeFront(size_t size) {
  begin_ += size;
  if (begin_ == end_) clear();
}

}  // namespace vorn::run
