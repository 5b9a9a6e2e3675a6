#include "support/library_calls.h"

#include <cstdarg>

// The linker turns every call of X() into __wrap_X and offers the original as
// __real_X; the names are its own.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)

using vorn::test::libraryCalls;

extern "C" {

ssize_t __real_write(int fd, const void* bytes, size_t size);
ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  const auto& replacement = libraryCalls().write;
  return replacement ? replacement(fd, bytes, size)
                     : __real_write(fd, bytes, size);
}

int __real_clock_gettime(clockid_t clock, timespec* time);
int __wrap_clock_gettime(clockid_t clock, timespec* time) {
  const auto& replacement = libraryCalls().clock_gettime;
  return replacement ? replacement(clock, time)
                     : __real_clock_gettime(clock, time);
}

int __real_fstat(int fd, struct stat* status);
int __wrap_fstat(int fd, struct stat* status) {
  const auto& replacement = libraryCalls().fstat;
  return replacement ? replacement(fd, status) : __real_fstat(fd, status);
}

int __real_getrlimit(int resource, rlimit* limit);
int __wrap_getrlimit(int resource, rlimit* limit) {
  const auto& replacement = libraryCalls().getrlimit;
  return replacement ? replacement(resource, limit)
                     : __real_getrlimit(resource, limit);
}

int __real_fcntl(int fd, int operation, ...);
int __wrap_fcntl(int fd, int operation, ...) {
  if (const auto& replacement = libraryCalls().fcntl) {
    return replacement(fd, operation);
  }
  va_list arguments;
  va_start(arguments, operation);
  const long argument = va_arg(arguments, long);
  va_end(arguments);
  return __real_fcntl(fd, operation, argument);
}

}  // extern "C"

namespace vorn::test {

namespace fs = std::filesystem;

fs::path realReadSymlink(const fs::path& link, std::error_code& error) __asm__(
    "__real__ZNSt10filesystem12read_symlinkERKNS_7__cxx114pathERSt10error_"
    "code");
fs::path
wrappedReadSymlink(const fs::path& link, std::error_code& error) __asm__(
    "__wrap__ZNSt10filesystem12read_symlink"
    "ERKNS_7__cxx114pathERSt10error_code");
fs::path wrappedReadSymlink(const fs::path& link, std::error_code& error) {
  const auto& replacement = libraryCalls().read_symlink;
  return replacement ? replacement(link, error) : realReadSymlink(link, error);
}

LibraryCalls& libraryCalls() {
  static LibraryCalls calls;
  return calls;
}

ssize_t realWrite(int fd, const void* bytes, size_t size) {
  return __real_write(fd, bytes, size);
}

}  // namespace vorn::test

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
