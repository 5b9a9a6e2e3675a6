#include "file_text.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace vorn::run {

FileText readFileText(const std::string& path) {
  FileText file;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) {
    file.isMissing = errno == ENOENT;
    file.error = std::strerror(errno);
    return file;
  }
  char buffer[4096];
  ssize_t count = 0;
  while ((count = ::read(fd, buffer, sizeof(buffer))) != 0) {
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) file.error = std::strerror(errno);
    if (count < 0 || file.text.size() > kLongestFile) break;
    file.text.append(buffer, static_cast<size_t>(count));
  }
  if (file.text.size() > kLongestFile) file.error = "the file is too long";
  (void)::close(fd);
  return file;
}

}  // namespace vorn::run
