#pragma once

#include "context/context.h"

namespace vorn::launch {

/// Prints the names in the launch file, each followed by `separator`.
ExitStatus showNames(Context& context, char separator);

}  // namespace vorn::launch
