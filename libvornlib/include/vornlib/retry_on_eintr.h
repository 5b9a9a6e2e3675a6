#pragma once

#include <cerrno>

namespace vorn {

/// Repeats `call`, a callable around one system call that returns -1 on
/// failure, while a caught signal interrupts it. Returns the last result; errno
/// is the call's own.
template <typename Call>
auto retryOnEintr(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

}  // namespace vorn
