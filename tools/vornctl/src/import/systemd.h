#pragma once

#include <vector>

#include "import/imported.h"

namespace vorn::launch {

/// The services in units of systemd. A unit after another one in `After=` or
/// `Before=` is after it in the launch file. Throws ImportError.
Imported importSystemd(const std::vector<SourceText>& files);

}  // namespace vorn::launch
