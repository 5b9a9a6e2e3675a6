#pragma once

#include <string>
#include <utility>
#include <vector>

#include "vornlib/time.h"

namespace vorn::launch {

/// Environment variables as (name, value) pairs, applied in order with
/// overwriting, so that a later pair wins.
using Environment = std::vector<std::pair<std::string, std::string>>;

/// The launch file's global settings. Filled by the parser, then only read: by
/// every child between fork and exec. One per process, main thread only.
class Config {
 public:
  /// The single instance, created empty on the first call, never destroyed.
  static Config& getInstance();

  Config(const Config&) = delete;
  Config& operator=(const Config&) = delete;

  /// The global variables in launch-file order, values already expanded; a name
  /// that the file repeats stands here repeatedly.
  Environment environment;

 private:
  Config() = default;
};

}  // namespace vorn::launch
