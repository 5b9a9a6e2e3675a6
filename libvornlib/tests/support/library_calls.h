#pragma once

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <system_error>

namespace vorn::test {

/// What the library's code calls in place of a system call or
/// std::filesystem's, led here by the linker; an empty function is the real
/// call.
struct LibraryCalls {
  std::function<ssize_t(int, const void*, size_t)> write;
  std::function<int(clockid_t, timespec*)> clock_gettime;
  std::function<std::filesystem::path(const std::filesystem::path&,
                                      std::error_code&)>
      read_symlink;
  std::function<int(int, struct stat*)> fstat;
  std::function<int(int, rlimit*)> getrlimit;
  std::function<int(int, int)> fcntl;  // descriptor and operation
};

/// The replacements in force; one set per process.
LibraryCalls& libraryCalls();

/// The real call.
ssize_t realWrite(int fd, const void* bytes, size_t size);

}  // namespace vorn::test
