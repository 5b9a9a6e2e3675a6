#include "process/apply_settings.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "process/control_group.h"
#include "process/credentials.h"
#include "process/descriptors.h"
#include "process/limits.h"
#include "process/parent_death.h"

namespace vorn::run {
namespace {

std::optional<RunError> enterDirectory(const std::string& directory) {
  if (::chdir(directory.c_str()) == 0) return std::nullopt;
  return RunError{"--directory", directory + ": " + std::strerror(errno)};
}

std::optional<RunError> refuseNewPrivileges() {
  if (::prctl(PR_SET_NO_NEW_PRIVS, 1UL, 0UL, 0UL, 0UL) == 0)
    return std::nullopt;
  return RunError{"--no-new-privs", std::strerror(errno)};
}

}  // namespace

std::optional<RunError> applySettings(const RunSettings& settings,
                                      const std::string& node,
                                      const Account* account, pid_t parent) {
  std::optional<RunError> error;
  if (settings.usesControlGroup) error = enterControlGroup(node);
  if (!error) error = applyLimits(settings);
  if (settings.umask) (void)::umask(*settings.umask);
  if (!error && settings.closesDescriptors) error = closeDescriptorsOnExec();
  if (!error && account != nullptr) error = applyAccount(*account);
  if (!error && !settings.directory.empty()) {
    error = enterDirectory(settings.directory);
  }
  if (!error && settings.parentDeathSignal != 0) {
    error = setParentDeathSignal(settings.parentDeathSignal, parent);
  }
  if (!error && settings.noNewPrivileges) error = refuseNewPrivileges();
  return error;
}

}  // namespace vorn::run
