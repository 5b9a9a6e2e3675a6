#include "support/write_call.h"

// The linker turns every call of write() into __wrap_write and offers the
// original as __real_write; the names are its own.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)

extern "C" {

ssize_t __real_write(int fd, const void* bytes, size_t size);
ssize_t __wrap_write(int fd, const void* bytes, size_t size) {
  const auto& replacement = vorn::test::writeCall();
  return replacement ? replacement(fd, bytes, size)
                     : __real_write(fd, bytes, size);
}

}  // extern "C"

namespace vorn::test {

WriteCall& writeCall() {
  static WriteCall call;
  return call;
}

ssize_t realWrite(int fd, const void* bytes, size_t size) {
  return __real_write(fd, bytes, size);
}

}  // namespace vorn::test

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
