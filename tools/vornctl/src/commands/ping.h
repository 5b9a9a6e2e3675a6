#pragma once

#include "context/context.h"

namespace vorn::launch {

/// Prints which launcher answers, and how fast.
ExitStatus ping(Context& context);

}  // namespace vorn::launch
