#pragma once

#include <iosfwd>

#include "output/output_text.h"

namespace vorn::launch {

/// A stream that accepts only text that is safe to write.
class Output {
 public:
  /// Writes to `stream`, which is borrowed.
  explicit Output(std::ostream& stream) : stream_(stream) {}

  Output& operator<<(const OutputText& text);
  void flush();

  /// Whether all writes succeeded so far.
  bool isGood() const;

 private:
  std::ostream& stream_;
};

/// Standard output and standard error; nothing else writes to them.
Output standardOutput();
Output standardError();

}  // namespace vorn::launch
