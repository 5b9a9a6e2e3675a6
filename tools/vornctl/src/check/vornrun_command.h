#pragma once

#include <string>
#include <vector>

#include "launchfile/launch_file.h"
#include "run_arguments.h"

namespace vorn::launch {

/// Whether the program of the node is vornrun, according to its name.
bool runsVornrun(const LaunchFile::Node& node);

/// The command line of vornrun in a node.
struct VornrunCommand {
  run::RunArguments parsed;
  bool isComplete = true;  // false: settings in a file were not read
};

/// Parses the arguments of the node. The file of --config is only read if
/// `reads_files`.
VornrunCommand parseVornrun(const LaunchFile::Node& node, bool reads_files);

/// The location of the argument that contains `text`, otherwise that of the
/// path.
SourceLocation argumentWith(const LaunchFile::Node& node,
                            const std::string& text);

/// The node with the program that vornrun executes and its arguments in place
/// of vornrun; the node itself if its program is not vornrun, or the program is
/// in a file that was not read.
LaunchFile::Node wrappedNode(const LaunchFile::Node& node);

}  // namespace vorn::launch
