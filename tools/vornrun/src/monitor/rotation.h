#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// The names and sizes of the files of --log-dir. The file that is being written
// is "current"; a finished one is "NUMBER-TIME.log", or "NUMBER-TIME.log.gz",
// with increasing numbers and the UTC time of its end.

namespace vorn::run {

/// The name of a finished file.
std::string rotatedName(uint64_t number, int64_t unix_time);

struct RotatedFile {
  uint64_t number = 0;
  bool isCompressed = false;
};

/// Empty if it is not the name of a finished file.
std::optional<RotatedFile> parseRotatedName(std::string_view name);

/// The number of bytes of `text` to write before the file with this `room` is
/// finished. 0: finish the file first. Files end with a whole line, unless a
/// single line is larger than a file. `may_end_here`: the file is not empty and
/// ends with a whole line.
size_t bytesBeforeRotation(std::string_view text, uint64_t room,
                           bool may_end_here);

}  // namespace vorn::run
