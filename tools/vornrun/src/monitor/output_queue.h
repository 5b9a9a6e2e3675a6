#pragma once

#include <cstddef>
#include <initializer_list>
#include <memory>
#include <string_view>

namespace vorn::run {

/// Bytes that wait for a slow reader, in a buffer of fixed size.
class OutputQueue {
 public:
  static constexpr size_t kSize = size_t{32} << 10;

  /// Adds all parts, or nothing if they do not fit; returns whether they did.
  bool append(std::initializer_list<std::string_view> parts);

  /// The bytes to be written next; valid until the next change.
  std::string_view content() const {
    return {data_.get() + begin_, end_ - begin_};
  }
  void removeFront(size_t size);
  void clear() { begin_ = end_ = 0; }

 private:
  // Not initialized, so that unused pages take no memory.
  std::unique_ptr<char[]> data_{new char[kSize]};
  size_t begin_ = 0;
  size_t end_ = 0;
};

}  // namespace vorn::run
