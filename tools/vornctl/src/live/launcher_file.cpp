#include "live/launcher_file.h"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <system_error>

#include "descriptor.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

constexpr int kDirectory = O_PATH | O_DIRECTORY | O_CLOEXEC;

/// openat2(2). Fails with ENOSYS where the kernel or a sandbox lacks it.
int openAt2(int start, const std::string& path, int flags, uint64_t resolve) {
  open_how how{};
  how.flags = static_cast<uint64_t>(flags | O_CLOEXEC);
  how.resolve = resolve;
  const long fd =
      ::syscall(SYS_openat2, start, path.c_str(), &how, sizeof(how));
  if (fd < 0 && errno == EPERM) errno = ENOSYS;
  return static_cast<int>(fd);
}

int openInOurRoot(const std::string& working_directory, const std::string& path,
                  int flags) {
  const bool is_absolute = path.front() == '/';
  const Descriptor start(
      is_absolute ? -1 : ::open(working_directory.c_str(), kDirectory));
  if (!is_absolute && start.number() < 0) return -1;
  const int fd = openAt2(start.number(), path, flags, RESOLVE_NO_MAGICLINKS);
  if (fd >= 0 || errno != ENOSYS) return fd;
  return ::openat(start.number(), path.c_str(), flags | O_CLOEXEC);
}

bool isSameFile(const struct stat& a, const struct stat& b) {
  return a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

/// The path of the launcher's working directory in `root`, which is open as
/// `top`. Empty, with errno, if it is not there.
std::string workingDirectoryIn(int top, const std::string& root,
                               const std::string& working_directory) {
  std::error_code error;
  const std::string above = fs::read_symlink(root, error).string();
  const std::string whole = fs::read_symlink(working_directory, error).string();
  const std::string path = whole.rfind(above, 0) == 0 && above != "/"
                               ? whole.substr(above.size())
                               : whole;
  const Descriptor found(openAt2(top, path + "/", kDirectory, RESOLVE_IN_ROOT));
  if (found.number() < 0) return "";
  struct stat expected {};
  struct stat actual {};
  if (::stat((working_directory + '/').c_str(), &expected) != 0 ||
      ::fstat(found.number(), &actual) != 0) {
    return "";
  }
  errno = ENOENT;
  return isSameFile(expected, actual) ? path + '/' : "";
}

int openInOtherRoot(const std::string& root,
                    const std::string& working_directory,
                    const std::string& path, int flags) {
  const Descriptor top(::open(root.c_str(), kDirectory));
  if (top.number() < 0) return -1;
  std::string start;
  if (path.front() != '/') {
    start = workingDirectoryIn(top.number(), root, working_directory);
    if (start.empty()) return -1;
  }
  return openAt2(top.number(), start + path, flags, RESOLVE_IN_ROOT);
}

}  // namespace

int openAsLauncher(pid_t pid, const std::string& root, const std::string& path,
                   int flags) {
  const std::string working_directory = "/proc/" + std::to_string(pid) + "/cwd";
  return root.empty() ? openInOurRoot(working_directory, path, flags)
                      : openInOtherRoot(root, working_directory, path, flags);
}

}  // namespace vorn::launch
