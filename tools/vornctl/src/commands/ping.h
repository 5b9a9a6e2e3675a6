#pragma once

#include "context/context.h"

namespace vorn::launch {

/// Prints the launcher that answers, and the time that it took.
ExitStatus ping(Context& context);

}  // namespace vorn::launch
