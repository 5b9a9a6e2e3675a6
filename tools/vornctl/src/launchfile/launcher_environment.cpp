#include "launchfile/launcher_environment.h"

#include <cstdlib>
#include <filesystem>

namespace vorn::launch {
namespace {

std::string ownVariable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

}  // namespace

LauncherEnvironment ownEnvironment() {
  std::error_code error;
  const auto executable =
      std::filesystem::read_symlink("/proc/self/exe", error);
  return {ownVariable(kBinPathVariable), ownVariable(kRootVariable),
          executable.parent_path().parent_path().string()};
}

}  // namespace vorn::launch
