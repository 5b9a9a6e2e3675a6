#pragma once

#include <vector>

#include "launchfile/launch_file.h"
#include "output/output.h"

namespace vorn::launch {

/// The arguments, the environment and the flags with which each node is
/// started, and the source of each.
void printResolved(Output& out, const LaunchFile& file);

/// The same for programs: one JSON document; docs/checks.md describes its
/// members.
void printResolvedAsJson(Output& out, const std::vector<LaunchFile>& files);

/// When each node is started, counted from the first.
void printTimeline(Output& out, const LaunchFile& file);

/// The seconds that SIGTERM may take to end the launcher: one number. The word
/// "never" if a cycle of `required` may hang it.
void printStopTimeout(Output& out, const LaunchFile& file);

}  // namespace vorn::launch
