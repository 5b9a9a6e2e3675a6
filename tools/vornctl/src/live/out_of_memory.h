#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>

// Processes that the kernel has killed for lack of memory.

namespace vorn::launch {

/// Whether the text of a kernel log says that it killed this process for lack
/// of memory.
bool namesMemoryKill(const std::string& kernel_log, pid_t pid);

/// The kernel log, as far as the kernel keeps it; nothing without the
/// permission.
std::optional<std::string> readKernelLog();

/// The control group of version 2 in the text of /proc/PID/cgroup, such as
/// "/system.slice/vornlaunch.service"; nothing if the text contains none.
std::optional<std::string> controlGroupIn(const std::string& groups);

/// The number of such kills in the text of a file memory.events; nothing if
/// the text does not contain it.
std::optional<int64_t> memoryKillsIn(const std::string& memory_events);

/// The number of such kills that the control group of a process counts; nothing
/// if it cannot be read.
std::optional<int64_t> memoryKillsInGroupOf(pid_t pid);

}  // namespace vorn::launch
