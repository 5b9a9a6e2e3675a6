#include "vornlib/path.h"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "vornlib/trace.h"

namespace vorn::path {
namespace {

// Between two slashes this would be the prefix anew, so a root with less than
// the whole prefix in it is refused.
constexpr std::string_view kRefused = "install:";
static_assert(kInstallPrefix.substr(0, kRefused.size()) == kRefused);
// The executable's root has no two slashes together. It needs this to complete
// prefixes, and then their number doubles with each slash behind one.
constexpr std::string_view kRefusedTwice = "install:/install:";

std::string withoutTrailingSlashes(std::string path) {
  while (!path.empty() && path.back() == '/') path.pop_back();
  return path;
}

/// The parent of the directory that holds the running executable; the root
/// directory where /proc cannot tell or the expansion would not come to an end.
std::string executableRoot() {
  std::error_code error;
  const auto executable =
      std::filesystem::read_symlink("/proc/self/exe", error);
  std::string folder =
      withoutTrailingSlashes(executable.parent_path().parent_path());
  if (folder.find(kRefusedTwice) == std::string::npos) return folder;
  vtrace(kWarn, __FILE__, __LINE__, "root", kPlain,
         "The executable's root '%s' contains install:/install:, using /",
         folder.c_str());
  return "";
}

}  // namespace

std::string rootFor(const char* chosen) {
  if (chosen == nullptr || *chosen == '\0') return executableRoot();
  if (std::string_view(chosen).find(kRefused) == std::string_view::npos) {
    return withoutTrailingSlashes(chosen);
  }
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
