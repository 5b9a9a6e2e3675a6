#pragma once

#include <cstddef>
#include <string>

namespace vorn::run {

/// The longest file that is read, in bytes.
inline constexpr size_t kLongestFile = size_t{1} << 20;

/// The content of a file, or the reason why it cannot be read.
struct FileText {
  std::string text;
  std::string error;  // "Permission denied"; empty without an error
  bool isMissing = false;
};
FileText readFileText(const std::string& path);

}  // namespace vorn::run
