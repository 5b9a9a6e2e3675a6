#pragma once

#include <string>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct WhyOptions {
  std::string node;
};

/// Prints why a node is in its state, and what to do. kDone if it is as it
/// should be, otherwise kFailed.
ExitStatus explainNode(Context& context, const WhyOptions& options);

}  // namespace vorn::launch
