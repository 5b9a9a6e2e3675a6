#include "process/descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>

#include "option_values.h"

namespace vorn::run {
namespace {

constexpr unsigned kFirstClosed = 3;
constexpr unsigned kCloseOnExec = 1U << 2;  // CLOSE_RANGE_CLOEXEC

/// For kernels before 5.11.
bool closeListedDescriptorsOnExec() {
  DIR* const directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return false;
  while (const dirent* const entry = ::readdir(directory)) {
    const auto number = parseNumber(entry->d_name, kFirstClosed,
                                    std::numeric_limits<int>::max());
    if (number) (void)::fcntl(static_cast<int>(*number), F_SETFD, FD_CLOEXEC);
  }
  (void)::closedir(directory);
  return true;
}

}  // namespace

std::optional<RunError> closeDescriptorsOnExec() {
  if (::syscall(SYS_close_range, kFirstClosed, ~0U, kCloseOnExec) == 0 ||
      closeListedDescriptorsOnExec()) {
    return std::nullopt;
  }
  return RunError{"--close-fds", std::string("cannot read /proc/self/fd: ") +
                                     std::strerror(errno)};
}

bool keepDescriptor(int descriptor, int number) {
  if (descriptor == number) return ::fcntl(number, F_SETFD, 0) == 0;
  return ::dup2(descriptor, number) == number;
}

}  // namespace vorn::run
