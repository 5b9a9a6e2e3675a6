#pragma once

#include <string>

#include "context/context.h"
#include "context/exit_status.h"

namespace vorn::launch {

struct GraphOptions {
  enum class Format { DOT, MERMAID, SVG };

  std::string file;  // "-" for standard input
  Format format = Format::DOT;
};

/// Prints the nodes of a launch file with their policies, and an arrow from
/// each to those it requires; cycles in red. SVG is drawn by the program dot of
/// Graphviz. kUsage if the file cannot be read, or the launcher would not load
/// it; kFailed if there is no dot.
ExitStatus printGraph(const Context& context, const GraphOptions& options);

}  // namespace vorn::launch
