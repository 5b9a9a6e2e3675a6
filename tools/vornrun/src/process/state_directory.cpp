#include "process/state_directory.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace vorn::run {
namespace {

/// Writes a new file. Returns whether all of the text was written.
bool writeNewFile(const std::string& path, const std::string& text) {
  constexpr mode_t kMode = 0644;
  (void)::unlink(path.c_str());  // of a run that was killed
  const int fd =
      ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, kMode);
  if (fd < 0) return false;
  errno = ENOSPC;  // the reason of a short write
  const bool is_written = ::write(fd, text.data(), text.size()) ==
                          static_cast<ssize_t>(text.size());
  const int error = errno;
  (void)::fchmod(fd, kMode);  // whatever the mask is
  (void)::close(fd);
  errno = error;
  return is_written;
}

}  // namespace

std::string createStateDirectory(const std::string& directory) {
  constexpr mode_t kMode = 0755;
  if (::mkdir(directory.c_str(), kMode) == 0) {
    (void)::chmod(directory.c_str(), kMode);  // whatever the mask is
    return "";
  }
  if (errno == EEXIST) return "";
  return "cannot create " + directory + ": " + std::strerror(errno);
}

std::string writeStateFile(const std::string& path, const std::string& text) {
  const std::string temporary = path + ".new";
  if (writeNewFile(temporary, text) &&
      ::rename(temporary.c_str(), path.c_str()) == 0) {
    return "";
  }
  std::string reason = "cannot write " + path + ": " + std::strerror(errno);
  (void)::unlink(temporary.c_str());
  return reason;
}

}  // namespace vorn::run
