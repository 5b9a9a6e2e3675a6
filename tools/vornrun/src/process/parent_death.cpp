#include "process/parent_death.h"

#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "file_text.h"
#include "vorn/launch_rules.h"

namespace vorn::run {

std::optional<RunError> setParentDeathSignal(int signal, pid_t parent) {
  if (::prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(signal)) != 0) {
    return RunError{"--pdeathsig", std::string("cannot set the signal: ") +
                                       std::strerror(errno)};
  }
  // The kernel sends no signal for a parent that has exited before the call.
  if (::getppid() == parent) return std::nullopt;
  return RunError{"--pdeathsig", "the launcher has exited"};
}

bool lostLauncher(pid_t parent, const Environment& inherited) {
  if (parent != 1 || !inherited.find(launch::kNodeNameVariable)) return false;
  // In a container, the launcher itself can be process 1.
  return readFileText("/proc/1/comm").text != "vornlaunch\n";
}

}  // namespace vorn::run
