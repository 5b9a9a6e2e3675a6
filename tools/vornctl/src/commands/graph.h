#pragma once

#include <string>

#include "context/context.h"
#include "context/exit_status.h"
#include "launchfile/launch_file.h"
#include "output/output.h"

namespace vorn::launch {

struct GraphOptions {
  enum class Format { DOT, MERMAID, SVG };

  std::string file;  // "-" for standard input
  Format format = Format::DOT;
};

/// The graph in the language of Graphviz, and in that of Mermaid. The launcher
/// must be able to load the file.
void printDot(Output& out, const LaunchFile& file);
void printMermaid(Output& out, const LaunchFile& file);

/// Prints a graph of the nodes of a launch file with their policies, and an
/// arrow from each node to the nodes that it requires; cycles are red. The
/// program dot of Graphviz draws SVG. kUsage if the file cannot be read, or the
/// launcher would not load it; kFailed without dot.
ExitStatus printGraph(const Context& context, const GraphOptions& options);

}  // namespace vorn::launch
