#pragma once

#include <string>
#include <vector>

#include "launchfile/parser.h"
#include "output/output.h"

namespace vorn::launch {

/// A file and how the launcher reads it.
struct ResolvedFile {
  std::string name;
  ParsedLaunchFile parsed;
};

/// What each node is started with, and where every part of it comes from.
void printResolved(Output& out, const ResolvedFile& file);

/// The same for programs: one JSON document; docs/checks.md tells its members.
void printResolvedAsJson(Output& out, const std::vector<ResolvedFile>& files);

/// When each node is started, counted from the first.
void printTimeline(Output& out, const ResolvedFile& file);

/// The seconds that SIGTERM may take to end the launcher: one number. The word
/// "never" if a cycle of `required` may hang it.
void printStopTimeout(Output& out, const ResolvedFile& file);

}  // namespace vorn::launch
