#include "vornlib/install_root.h"

namespace vorn::path {
namespace {

// Between two slashes this is the prefix again, so less than the whole prefix
// is refused.
constexpr std::string_view kRefused = "install:";
static_assert(kInstallPrefix.substr(0, kRefused.size()) == kRefused);
// The root of an executable has no adjacent slashes, so that it needs this to
// complete prefixes.
constexpr std::string_view kRefusedTwice = "install:/install:";

std::string withoutTrailingSlashes(std::string_view path) {
  return std::string(path.substr(0, path.find_last_not_of('/') + 1));
}

}  // namespace

std::optional<std::string> rootFromVariable(std::string_view value) {
  if (value.empty() || value.find(kRefused) != std::string_view::npos) {
    return std::nullopt;
  }
  return withoutTrailingSlashes(value);
}

std::optional<std::string> rootFromExecutable(std::string_view directory) {
  if (directory.find(kRefusedTwice) != std::string_view::npos) {
    return std::nullopt;
  }
  return withoutTrailingSlashes(directory);
}

}  // namespace vorn::path
