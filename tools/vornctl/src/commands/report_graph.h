#pragma once

#include <cstddef>
#include <optional>
#include <vector>

#include "launchfile/launch_file.h"
#include "launchfile/required_graph.h"
#include "output/output.h"

// The drawing of the `required` lists in a report.

namespace vorn::launch {

/// More nodes with `required` are listed, but not drawn.
constexpr size_t kMostDrawnNodes = 60;

/// The column of each node in a drawing from left to right: each node is right
/// of those that require it, except in cycles. Nothing for nodes that neither
/// require others nor are required. Takes quadratic time.
std::vector<std::optional<size_t>> layersOf(const LaunchFile& file,
                                            const RequiredGraph& graph);

/// Writes the nodes with `required`, and an arrow to each required node, as SVG
/// if there are at most kMostDrawnNodes, and as a list of sentences.
void printRequiredGraph(Output& out, const LaunchFile& file);

}  // namespace vorn::launch
