#pragma once

#include "check/diagnostic.h"
#include "launchfile/launch_file.h"
#include "launchfile/source_text.h"

// The checks of a launch file, one function for each source file *_rules.cpp.
// The names of the diagnostics are in diagnostic.cpp.

namespace vorn::launch {

/// Errors that terminate the launcher, and parts of the file that it ignores.
void checkDocument(const LaunchFile& file, Diagnostics& diagnostics);

/// Names, paths, arguments and flags of the nodes.
void checkNodes(const LaunchFile& file, Diagnostics& diagnostics);

/// Programs that do not stay in the foreground.
void checkDaemons(const LaunchFile& file, Diagnostics& diagnostics);

/// The options of vornrun, without the files that they name.
void checkVornrun(const LaunchFile& file, Diagnostics& diagnostics);

/// The files and users in the options of vornrun.
void checkVornrunHost(const LaunchFile& file, Diagnostics& diagnostics);

/// Variables, and install:// in all texts.
void checkEnvironment(const LaunchFile& file, Diagnostics& diagnostics);

/// The nodes that are named in `required`.
void checkRequired(const LaunchFile& file, Diagnostics& diagnostics);

/// An apply of this file that was interrupted.
void checkApply(const SourceText& document, Diagnostics& diagnostics);

/// The programs on this machine, as a launcher that is started here finds them.
void checkHost(const SourceText& document, const LaunchFile& file,
               Diagnostics& diagnostics);

}  // namespace vorn::launch
