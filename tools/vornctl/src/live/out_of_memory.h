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

/// The number of such kills that the control group of a process counts; nothing
/// if it cannot be read.
std::optional<int64_t> memoryKillsInGroupOf(pid_t pid);

}  // namespace vorn::launch
