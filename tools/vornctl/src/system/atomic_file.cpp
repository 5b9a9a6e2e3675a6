#include "system/atomic_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "descriptor.h"
#include "vornlib/retry_on_eintr.h"

namespace vorn::launch {
namespace {

constexpr char kExists[] =
    "the file exists; name another one, or replace it with -o";

bool writeAll(int fd, std::string_view text) {
  while (!text.empty()) {
    const ssize_t count =
        retryOnEintr([&] { return ::write(fd, text.data(), text.size()); });
    if (count < 0) return false;
    text.remove_prefix(static_cast<size_t>(count));
  }
  return true;
}

/// Why the file at `path` cannot be replaced; empty if it can, or does not
/// exist.
std::string obstacleAt(const std::string& path, bool may_replace) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) return "";
  if (!may_replace) return kExists;
  if (S_ISREG(status.st_mode)) return "";
  return "it is not a regular file; -o - writes to standard output";
}

/// Gives the temporary file its name.
bool renameTo(const std::string& temporary, const std::string& path,
              bool may_replace) {
  if (!may_replace) {
    const int result = ::renameat2(AT_FDCWD, temporary.c_str(), AT_FDCWD,
                                   path.c_str(), RENAME_NOREPLACE);
    // Some file systems do not support the flag.
    if (result == 0 || (errno != EINVAL && errno != ENOSYS)) return result == 0;
  }
  return ::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

bool writeFile(const std::string& path, const std::string& text,
               bool may_replace, std::string& error, mode_t mode) {
  const std::string failure = "cannot write " + path + ": ";
  const std::string obstacle = obstacleAt(path, may_replace);
  if (!obstacle.empty()) {
    error = failure + obstacle;
    return false;
  }
  std::string temporary = path + ".XXXXXX";
  const Descriptor file(::mkostemp(temporary.data(), O_CLOEXEC));
  if (file.number() < 0) {
    error = failure + std::strerror(errno);
    return false;
  }
  if (::fchmod(file.number(), mode) == 0 && writeAll(file.number(), text) &&
      retryOnEintr([&] { return ::fsync(file.number()); }) == 0 &&
      renameTo(temporary, path, may_replace)) {
    return true;
  }
  error = failure + (errno == EEXIST ? kExists : std::strerror(errno));
  (void)::unlink(temporary.c_str());
  return false;
}

bool syncDirectoryOf(const std::string& path, std::string& error) {
  const size_t slash = path.rfind('/');
  const std::string name =
      slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const Descriptor directory(
      ::open(name.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (directory.number() >= 0 &&
      retryOnEintr([&] { return ::fsync(directory.number()); }) == 0) {
    return true;
  }
  error = "cannot write " + name + ": " + std::strerror(errno);
  return false;
}

}  // namespace vorn::launch
