#pragma once

#include <string>
#include <vector>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct ImportOptions {
  std::string format;  // of the files, one of importFormats()
  std::vector<std::string> files;
};

/// The names of the formats.
std::vector<std::string> importFormats();

/// Prints the launch file for the configuration of another supervisor, with a
/// comment for each setting without a counterpart. kUsage if a file cannot be
/// read, or is not in this format.
ExitStatus importFiles(const Context& context, const ImportOptions& options);

}  // namespace vorn::launch
