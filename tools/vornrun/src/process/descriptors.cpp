#include "process/descriptors.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "option_values.h"

namespace vorn::run {
namespace {

constexpr unsigned kFirstClosed = 3;
constexpr unsigned kCloseOnExec = 1U << 2;  // CLOSE_RANGE_CLOEXEC

/// close_range(2); with /proc for kernels before 5.9, which do not have it, and
/// before 5.11, which do not know the flag.
bool closeRange(unsigned first, unsigned last, unsigned flags) {
  if (::syscall(SYS_close_range, first, last, flags) == 0) return true;
  DIR* const directory = ::opendir("/proc/self/fd");
  if (directory == nullptr) return false;
  while (const dirent* const entry = ::readdir(directory)) {
    const auto number =
        parseNumber(entry->d_name, first, std::min<long>(last, INT_MAX));
    const int fd = static_cast<int>(number.value_or(-1));
    if (!number || fd == ::dirfd(directory)) continue;
    (void)(flags == 0 ? ::close(fd) : ::fcntl(fd, F_SETFD, FD_CLOEXEC));
  }
  (void)::closedir(directory);
  return true;
}

}  // namespace

bool closeDescriptors(unsigned first, unsigned last) {
  return closeRange(first, last, 0);
}

std::optional<RunError> closeDescriptorsOnExec() {
  if (closeRange(kFirstClosed, ~0U, kCloseOnExec)) return std::nullopt;
  return RunError{"--close-fds", std::string("cannot read /proc/self/fd: ") +
                                     std::strerror(errno)};
}

bool keepDescriptor(int descriptor, int number) {
  if (descriptor == number) return ::fcntl(number, F_SETFD, 0) == 0;
  return ::dup2(descriptor, number) == number;
}

}  // namespace vorn::run
