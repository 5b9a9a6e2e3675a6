#include "monitor/process_stat.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace vorn::run {

ProcessStat readProcessStat(pid_t pid) {
  constexpr int kParentField = 4;
  constexpr int kStartTimeField = 22;
  ProcessStat stat;
  const std::string path = "/proc/" + std::to_string(pid) + "/stat";
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return stat;
  char text[1024];
  const ssize_t size = ::read(fd, text, sizeof(text) - 1);
  (void)::close(fd);
  if (size <= 0) return stat;
  text[size] = '\0';
  // The name of the program, which is in brackets, may contain anything.
  const char* next = std::strrchr(text, ')');
  for (int field = 3; next != nullptr && field <= kStartTimeField; ++field) {
    next = std::strchr(next + 1, ' ');
    if (next == nullptr) break;
    if (field == kParentField)
      stat.parent = static_cast<pid_t>(std::strtol(next, nullptr, 10));
    if (field == kStartTimeField)
      stat.startTime = std::strtoull(next, nullptr, 10);
  }
  return stat;
}

}  // namespace vorn::run
