#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "support/check.h"
#include "support/library_calls.h"
#include "vornlib/trace.h"

namespace vorn::fuzz {

inline bool isControlCharacter(char c) {
  const auto byte = static_cast<unsigned char>(c);
  return byte < 0x20 || byte == 0x7f;
}

/// True for one whole line without a control character in it.
inline bool isOneLine(std::string_view text) {
  return !text.empty() && text.back() == '\n' &&
         std::none_of(text.begin(), text.end() - 1, isControlCharacter);
}

/// Captures the log of this process from construction to destruction: counts
/// its lines, each of which must be one whole line, and prints none.
class LogSink {
 public:
  LogSink() {
    // The log inspects standard error only once.
    static const bool kIsNamed = [] {
      (void)::setenv("NO_COLOR", "1", 1);
      (void)::unsetenv("JOURNAL_STREAM");
      setNodeName("fuzz");
      return true;
    }();
    (void)kIsNamed;
    test::libraryCalls().write = [this](int fd, const void* bytes,
                                        size_t size) {
      check(fd == STDERR_FILENO, "the log goes to standard error");
      check(isOneLine({static_cast<const char*>(bytes), size}),
            "a log call is one line without control characters");
      ++lines_;
      return static_cast<ssize_t>(size);
    };
  }
  ~LogSink() { test::libraryCalls() = {}; }
  LogSink(const LogSink&) = delete;
  LogSink& operator=(const LogSink&) = delete;

  int lines() const { return lines_; }

 private:
  int lines_ = 0;
};

}  // namespace vorn::fuzz
