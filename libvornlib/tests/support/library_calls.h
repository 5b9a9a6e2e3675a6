#pragma once

#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <ctime>
#include <filesystem>
#include <functional>
#include <system_error>

namespace vorn::test {

/// Replacements of the calls of the system and of std::filesystem that the
/// library's code makes; an empty function is the real call. The linker
/// redirects the calls.
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
