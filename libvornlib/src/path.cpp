#include "vornlib/path.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "vornlib/install_root.h"
#include "vornlib/trace.h"

namespace vorn::path {
namespace {

/// The parent of the directory that contains the running executable; the root
/// directory if /proc does not show it or the expansion would not end.
std::string executableRoot() {
  std::error_code error;
  const auto executable =
      std::filesystem::read_symlink("/proc/self/exe", error);
  const std::string directory = executable.parent_path().parent_path();
  if (auto usable = rootFromExecutable(directory)) return *std::move(usable);
  vtrace(kWarn, __FILE__, __LINE__, "root", kPlain,
         "The executable's root '%s' contains install:/install:, using /",
         directory.c_str());
  return "";
}

}  // namespace

std::string rootFor(const char* chosen) {
  if (chosen == nullptr || *chosen == '\0') return executableRoot();
  if (auto usable = rootFromVariable(chosen)) return *std::move(usable);
  vtrace(kWarn, __FILE__, __LINE__, "root", kPlain,
         "VORN_ROOT '%s' contains install:, using the executable's root",
         chosen);
  return executableRoot();
}

const std::string& root() {
  static const std::string kRoot = rootFor(::getenv("VORN_ROOT"));
  return kRoot;
}

}  // namespace vorn::path
