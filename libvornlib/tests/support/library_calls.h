#pragma once

#include <sys/types.h>

#include <ctime>
#include <functional>

namespace vorn::test {

/// What the library's code calls in place of a system call, led here by the
/// linker; an empty function is the real call.
struct LibraryCalls {
  std::function<ssize_t(int, const void*, size_t)> write;
  std::function<int(clockid_t, timespec*)> clock_gettime;
};

/// The replacements in force; one set per process.
LibraryCalls& libraryCalls();

/// The real call.
ssize_t realWrite(int fd, const void* bytes, size_t size);

}  // namespace vorn::test
