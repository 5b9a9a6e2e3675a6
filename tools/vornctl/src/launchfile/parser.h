#pragma once

#include <optional>
#include <stdexcept>
#include <string>

#include "launchfile/launch_file.h"

// Reads a launch file as the launcher does. An error that terminates the
// launcher is a LoadError here, and the parser continues after it, so that one
// run finds all of them.

namespace vorn::launch {

/// The variables and the directory on which the meaning of a file depends.
struct LauncherEnvironment {
  std::string binPath;  // VORN_BIN_PATH when the launcher starts, or empty
  std::string root;     // VORN_ROOT at that time, or empty
  // The parent of the directory that holds the launcher's executable, which
  // replaces "install:/" without VORN_ROOT; no slash at its end.
  std::string executableRoot;
};

/// The environment of a launcher that is started like this process, with this
/// environment and from the directory of our own executable.
LauncherEnvironment ownEnvironment();

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
