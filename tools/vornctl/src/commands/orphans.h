#pragma once

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct OrphansOptions {
  bool isKill = false;
  bool isConfirmed = false;
  bool isJson = false;
};

/// Lists the processes of earlier launchers and of earlier runs of nodes, and
/// the running launchers; with `isKill`, terminates the processes. kFailed if
/// such processes exist afterwards.
ExitStatus showOrphans(const Context& context, const OrphansOptions& options);

}  // namespace vorn::launch
