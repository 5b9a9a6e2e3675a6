#include "live/out_of_memory.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <sstream>
#include <string_view>

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

std::optional<std::string> controlGroupIn(const std::string& groups) {
  std::istringstream lines(groups);
  for (std::string line; std::getline(lines, line);) {
    constexpr std::string_view kVersion2 = "0::";
    if (line.rfind(kVersion2, 0) == 0) return line.substr(kVersion2.size());
  }
  return std::nullopt;
}

std::optional<int64_t> memoryKillsIn(const std::string& memory_events) {
  std::istringstream events(memory_events);
  std::string name;
  int64_t count = 0;
  while (events >> name >> count) {
    if (name == "oom_kill") return count;
  }
  return std::nullopt;
}

std::optional<int64_t> memoryKillsInGroupOf(pid_t pid) {
  const auto group =
      controlGroupIn(readProcFile(procFile(pid, "cgroup")).value_or(""));
  if (!group) return std::nullopt;
  const std::string file = "/sys/fs/cgroup" + *group + "/memory.events";
  return memoryKillsIn(readProcFile(file).value_or(""));
}

}  // namespace vorn::launch
