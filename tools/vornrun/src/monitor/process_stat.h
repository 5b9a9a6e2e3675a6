#pragma once

#include <sys/types.h>

#include <cstdint>

namespace vorn::run {

struct ProcessStat {
  pid_t parent = 0;
  uint64_t startTime = 0;  // clock ticks since the boot
};

/// Parts of /proc/PID/stat; zeros without such a process.
ProcessStat readProcessStat(pid_t pid);

}  // namespace vorn::run
