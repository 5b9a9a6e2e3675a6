#include "live/out_of_memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>

#include "descriptor.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

// The kernel's buffer is at most a few MiB; a file in its place can be larger.
constexpr size_t kMaxKernelLog = 16U << 20U;

}  // namespace

bool namesMemoryKill(const std::string& kernel_log, pid_t pid) {
  // "Out of memory: Killed process 42 (name) ..." and "Memory cgroup out of
  // memory: Killed process 42 (name) ...".
  return kernel_log.find("ut of memory: Killed process " + std::to_string(pid) +
                         ' ') != std::string::npos;
}

std::optional<std::string> readKernelLog() {
  // Each read returns one record, or EPIPE if older ones were overwritten.
  const Descriptor file(
      ::open("/dev/kmsg", O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
  if (file.number() < 0) return std::nullopt;
  std::string text;
  std::array<char, 8192> record{};
  while (text.size() < kMaxKernelLog) {
    const ssize_t size = ::read(file.number(), record.data(), record.size());
    if (size > 0) {
      text.append(record.data(), static_cast<size_t>(size));
    } else if (size == 0 || (errno != EPIPE && errno != EINTR)) {
      break;
    }
  }
  return text;
}

std::optional<int64_t> memoryKillsInGroupOf(pid_t pid) {
  // "0::/system.slice/vornlaunch.service", with control groups of version 2.
  std::istringstream groups(readProcFile(procFile(pid, "cgroup")).value_or(""));
  for (std::string line; std::getline(groups, line);) {
    if (line.rfind("0::", 0) != 0) continue;
    std::istringstream events(
        readProcFile("/sys/fs/cgroup" + line.substr(3) + "/memory.events")
            .value_or(""));
    std::string name;
    int64_t count = 0;
    while (events >> name >> count) {
      if (name == "oom_kill") return count;
    }
  }
  return std::nullopt;
}

}  // namespace vorn::launch
