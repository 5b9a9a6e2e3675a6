#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "launchfile/launch_file.h"
#include "launchfile/launcher_environment.h"

// Reads a launch file as the launcher does. An error that terminates the
// launcher is a LoadError here, and the parser continues after it, so that one
// run finds all of them.

namespace vorn::launch {

/// The launch file expands to more than its limits, by aliases or "install://".
class TooLarge : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// The limits of the number of keys, names, arguments and other values, and of
// their bytes. Each use of an alias counts.
constexpr size_t kMostValues = 1'000'000;
constexpr size_t kMostValueBytes = size_t{64} << 20U;

/// Reads a launch file as a launcher in this environment does. Throws
/// TooLarge, or std::bad_alloc.
LaunchFile parseLaunchFile(const SourceText& document,
                           const LauncherEnvironment& environment);

/// As parseLaunchFile(), but without repeated nodes. Nothing if the launcher
/// would not load the file; `error` is then one sentence with the reason.
/// Throws std::bad_alloc.
std::optional<LaunchFile> loadLaunchFile(const SourceText& document,
                                         const LauncherEnvironment& environment,
                                         std::string& error);

}  // namespace vorn::launch
