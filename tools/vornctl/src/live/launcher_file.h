#pragma once

#include <sys/types.h>

#include <string>

namespace vorn::launch {

/// Opens the file that the launcher `pid` means by `path`, which is absolute or
/// relative to the launcher's working directory. `root` is the launcher's root
/// directory as LauncherProcess has it. A symbolic link can lead neither out of
/// a root other than ours, nor to a descriptor of ours, as /dev/stdin would.
/// Returns a descriptor that the caller closes, or -1 and errno: ELOOP or EXDEV
/// for a link to a descriptor, ENOSYS if the system cannot open a file in
/// another root safely.
int openAsLauncher(pid_t pid, const std::string& root, const std::string& path,
                   int flags);

}  // namespace vorn::launch
