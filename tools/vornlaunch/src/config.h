#pragma once

#include <string>
#include <utility>
#include <vector>

#include "vornlib/time.h"

namespace vorn::launch {

/// Environment variables as (name, value) pairs, set in order, so that a later
/// pair overrides an earlier one.
using Environment = std::vector<std::pair<std::string, std::string>>;

/// The launch file's global settings. Filled by the parser, then only read: by
/// every child between fork and exec. One per process, main thread only.
class Config {
 public:
  /// The single instance, created empty on the first call, never destroyed.
  static Config& getInstance();

  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;

  /// The global variables in launch-file order, with expanded values; a
  /// repeated name is in the list repeatedly.
  Environment environment;

 private:
  Config() = default;
};

}  // namespace vorn::launch
