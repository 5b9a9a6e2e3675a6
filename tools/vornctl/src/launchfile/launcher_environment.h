#pragma once

#include <string>

namespace vorn::launch {

constexpr char kBinPathVariable[] = "VORN_BIN_PATH";
constexpr char kRootVariable[] = "VORN_ROOT";

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

}  // namespace vorn::launch
