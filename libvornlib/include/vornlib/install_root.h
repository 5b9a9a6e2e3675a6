#pragma once

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>

// The rules of the installation root and of "install://", without their
// environment: for the launcher, and for programs that read its launch file.

namespace vorn::path {

/// Replaced in the values of variables in a launch file: all but its last slash
/// by the installation root.
constexpr std::string_view kInstallPrefix = "install://";

/// The installation root that a VORN_ROOT of this value selects, without a
/// trailing slash, so that the root directory "/" is the empty text. Nothing if
/// the executable decides: the value is empty, or contains "install:", which
/// could complete the prefix again and again.
std::optional<std::string> rootFromVariable(std::string_view value);

/// The same for an executable in a directory below `directory`. Nothing if the
/// root directory "/" must replace it: it contains "install:/install:", with
/// which the number of prefixes doubles with each slash after one.
std::optional<std::string> rootFromExecutable(std::string_view directory);

/// `value` with each prefix expanded, from the left and until none is left.
/// `root` returns the installation root; it is called for each prefix.
template <typename Root>
std::string expandInstallPrefix(std::string value, Root root) {
  // KEEP: nine of the prefix's ten characters are replaced; its last slash
  // stays and separates the root, which ends without one, from the rest.
  // Test: InstallRoot.ReplacesThePrefixUpToItsLastSlash
  constexpr size_t kReplaced = kInstallPrefix.size() - 1;
  size_t found = value.find(kInstallPrefix);
  while (found != std::string::npos) {
    value.replace(found, kReplaced, root());
    // A prefix that the replacement completes starts at most this far before.
    found = value.find(kInstallPrefix, found - std::min(found, kReplaced));
  }
  return value;
}

}  // namespace vorn::path
