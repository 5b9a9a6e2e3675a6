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

/// The start time of each node, relative to the first start.
void printTimeline(Output& out, const LaunchFile& file);

/// The longest time in seconds from SIGTERM to the exit of the launcher: one
/// number, or the word "never" if a cycle of `required` can block it.
void printStopTimeout(Output& out, const LaunchFile& file);

}  // namespace vorn::launch
