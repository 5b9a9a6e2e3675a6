#pragma once

namespace vorn::launch {

/// Runs vornctl with the arguments of main(). `cancel_fd` is readable once a
/// stop signal has arrived. Returns the exit status.
int runCommandLine(int argc, char** argv, int cancel_fd);

}  // namespace vorn::launch
