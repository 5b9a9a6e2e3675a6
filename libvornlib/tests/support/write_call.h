#pragma once

#include <sys/types.h>

#include <functional>

namespace vorn::test {

using WriteCall = std::function<ssize_t(int, const void*, size_t)>;

/// What the library's code calls in place of write(2), led here by the linker;
/// an empty function is the real call.
WriteCall& writeCall();

/// The real call.
ssize_t realWrite(int fd, const void* bytes, size_t size);

}  // namespace vorn::test
