#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace vorn::fuzz {

/// Reads the bytes of an input from its front. Reads beyond its end return 0 or
/// empty texts, so every sequence of bytes is an input.
class Input {
 public:
  Input(const uint8_t* data, size_t size)
      : rest_(reinterpret_cast<const char*>(data), size) {}

  bool empty() const { return rest_.empty(); }

  uint8_t byte() {
    const std::string_view taken = bytes(1);
    return taken.empty() ? uint8_t{0} : static_cast<uint8_t>(taken.front());
  }

  /// Four bytes, the least first.
  uint32_t number() {
    uint32_t value = 0;
    for (unsigned int shift = 0; shift < 32; shift += 8) {
      value |= static_cast<uint32_t>(byte()) << shift;
    }
    return value;
  }

  /// At most `count` bytes.
  std::string_view bytes(size_t count) {
    const std::string_view taken = rest_.substr(0, count);
    rest_.remove_prefix(taken.size());
    return taken;
  }

  /// The text before the next NUL, which is skipped.
  std::string text() {
    const std::string_view taken = rest_.substr(0, rest_.find('\0'));
    rest_.remove_prefix(std::min(rest_.size(), taken.size() + 1));
    return std::string(taken);
  }

 private:
  std::string_view rest_;
};

}  // namespace vorn::fuzz
