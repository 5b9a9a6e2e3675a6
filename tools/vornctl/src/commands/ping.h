#pragma once

#include "context/context.h"

namespace vorn::launch {

/// Prints which launcher answers, and how fast.
ExitStatus ping(Session& session);

}  // namespace vorn::launch
