#pragma once

#include <algorithm>
#include <cstddef>
#include <string>

#include "output/output_text.h"
#include "support/check.h"

namespace vorn::fuzz {

/// Fails unless the output of vornctl is UTF-8, has at most `longest` bytes,
/// and no control characters except line ends and tabs.
inline void checkOutput(const std::string& text, size_t longest) {
  const auto is_raw = [](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 && c != '\n' && c != '\t') || byte == 0x7f;
  };
  check(std::none_of(text.begin(), text.end(), is_raw),
        "the output has no control characters");
  check(launch::isUtf8(text), "the output is UTF-8");
  check(text.size() <= longest, "the output is bounded");
}

}  // namespace vorn::fuzz
