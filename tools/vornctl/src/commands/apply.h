#pragma once

#include <chrono>
#include <string>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct ApplyOptions {
  std::string file;
  std::string unit = "vornlaunch.service";
  std::string hook;  // a command of sh(1); empty: none
  std::chrono::milliseconds runFor{30'000};
};

/// Makes `file` the launch file of the unit: checks it, replaces the file that
/// the unit reads, restarts the unit, and puts the old file back unless all
/// nodes run for `runFor`. kTryLater if another apply runs or the hook refuses.
ExitStatus applyFile(const Context& context, const ApplyOptions& options);

}  // namespace vorn::launch
