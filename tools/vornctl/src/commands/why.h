#pragma once

#include <string>

#include "context/context.h"
#include "context/exit_status.h"
#include "live/node_verdict.h"

namespace vorn::launch {

struct WhyOptions {
  std::string node;
};

/// Adds to `facts`, which has the view of a node of `launcher` and the time,
/// what the log, the records of actions, the launch file and /proc say about
/// it.
void collectFacts(const Settings& settings, const LauncherProcess& launcher,
                  NodeFacts& facts);

/// Prints why a node is in its state, and what to do. kDone if it is as it
/// should be, otherwise kFailed.
ExitStatus explainNode(Context& context, const WhyOptions& options);

/// The text that explainNode() prints for a node, as lines without colours and
/// already escaped. Sends no request.
std::string explanationOf(const Settings& settings,
                          const LauncherProcess& launcher,
                          const NodeView& node);

}  // namespace vorn::launch
