#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

// Reading files below /proc.

namespace vorn::launch {

/// "/proc/42/stat".
std::string procFile(pid_t pid, const std::string& file);

/// The content of a file below /proc; nothing if it cannot be read.
std::optional<std::string> readProcFile(const std::string& path);

/// The strings of a file such as cmdline, each of which ends with a NUL.
std::vector<std::string> splitAtNuls(const std::string& text);

/// The target of a link below /proc; nothing without the permission.
std::optional<std::string> readProcLink(const std::string& path);

/// The state of a process in the letter of its stat file, such as 'T' for
/// stopped; nothing if that cannot be read.
std::optional<char> processState(pid_t pid);

}  // namespace vorn::launch
