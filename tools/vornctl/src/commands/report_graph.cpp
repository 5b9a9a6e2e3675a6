#include "commands/report_graph.h"

#include <algorithm>
#include <optional>
#include <set>
#include <utility>

namespace vorn::launch {
namespace {

// In pixels.
constexpr size_t kBoxWidth = 170;
constexpr size_t kBoxHeight = 30;
constexpr size_t kColumnWidth = 240;
constexpr size_t kRowDistance = 44;
constexpr size_t kMargin = 8;
constexpr size_t kNameLength = 20;  // characters

using Arrow = std::pair<size_t, size_t>;

struct GraphBox {
  size_t x = 0;
  size_t y = 0;
};

std::set<Arrow> cyclicArrows(const RequiredGraph& graph) {
  std::set<Arrow> arrows;
  for (const auto& cycle : graph.cycles()) {
    for (const auto& [from, edge] : cycle) arrows.insert({from, edge.to});
  }
  return arrows;
}

/// Column 0 for the nodes that require others or are required.
std::vector<std::optional<size_t>> connectedNodes(const LaunchFile& file,
                                                  const RequiredGraph& graph) {
  std::vector<std::optional<size_t>> layers(file.nodes.size());
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    for (const auto& edge : graph.edgesFrom(i)) layers[i] = layers[edge.to] = 0;
  }
  return layers;
}

/// Places the nodes of each layer below each other, in file order.
std::vector<GraphBox> placeNodes(
    const std::vector<std::optional<size_t>>& layers, size_t& width,
    size_t& height) {
  std::vector<GraphBox> boxes(layers.size());
  std::vector<size_t> used(layers.size() + 1, 0);
  for (size_t i = 0; i < layers.size(); ++i) {
    if (!layers[i]) continue;
    boxes[i] = {kMargin + *layers[i] * kColumnWidth,
                kMargin + used[*layers[i]]++ * kRowDistance};
    width = std::max(width, boxes[i].x + kBoxWidth + kMargin);
    height = std::max(height, boxes[i].y + kBoxHeight + kMargin);
  }
  return boxes;
}

void printArrow(Output& out, const GraphBox& from, const GraphBox& to,
                bool is_cyclic) {
  const bool is_backward = to.x <= from.x;
  const size_t x1 = from.x + kBoxWidth;
  const size_t y1 = from.y + kBoxHeight / 2;
  const size_t x2 = is_backward ? to.x + kBoxWidth : to.x;
  const size_t y2 = to.y + kBoxHeight / 2 + (is_backward ? 6 : 0);
  const size_t bend = (kColumnWidth - kBoxWidth) / 2;
  out << "<path class=\"arrow " << htmlText(is_cyclic ? "cyclic" : "")
      << "\" marker-end=\"url(#" << htmlText(is_cyclic ? "cyclic-head" : "head")
      << ")\" d=\"M" << x1 << " " << y1 << "C" << x1 + bend << " " << y1 << " "
      << (is_backward ? x2 + bend : x2 - bend) << " " << y2 << " " << x2 << " "
      << y2 << "\"/>\n";
}

void printBox(Output& out, const LaunchFile::Node& node, const GraphBox& box) {
  const OutputText name = terminalText(node.name.value);
  const bool waits = node.disabled.value || !node.autostart.value;
  out << "<g class=\"box " << htmlText(waits ? "waits" : "") << "\"><rect x=\""
      << box.x << "\" y=\"" << box.y << "\" width=\"" << kBoxWidth
      << "\" height=\"" << kBoxHeight << "\" rx=\"4\"/><text x=\""
      << box.x + kBoxWidth / 2 << "\" y=\"" << box.y + kBoxHeight / 2 + 4
      << "\">" << htmlText(truncated(name, kNameLength).str())
      << "</text><title>" << htmlText(node.name.value) << "</title></g>\n";
}

void printArrowHead(Output& out, const OutputText& id) {
  out << "<marker id=\"" << id
      << "\" viewBox=\"0 0 8 8\" refX=\"7\" refY=\"4\" markerWidth=\"8\" "
         "markerHeight=\"8\" orient=\"auto\"><path class=\""
      << id << "\" d=\"M0 0L8 4L0 8Z\"/></marker>\n";
}

void printGraphSvg(Output& out, const LaunchFile& file,
                   const RequiredGraph& graph,
                   const std::vector<std::optional<size_t>>& layers) {
  size_t width = 0;
  size_t height = 0;
  const std::vector<GraphBox> boxes = placeNodes(layers, width, height);
  const std::set<Arrow> cyclic = cyclicArrows(graph);
  out << "<div class=\"scroll\" role=\"region\" tabindex=\"0\" "
         "aria-label=\"Drawing of the required nodes\">\n<svg id=\"graph\" "
         "role=\"img\" aria-labelledby=\"required\" width=\""
      << width << "\" height=\"" << height << "\" viewBox=\"0 0 " << width
      << " " << height << "\">\n";
  printArrowHead(out, "head");
  printArrowHead(out, "cyclic-head");
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    for (const auto& edge : graph.edgesFrom(i)) {
      printArrow(out, boxes[i], boxes[edge.to], cyclic.count({i, edge.to}) > 0);
    }
  }
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    if (layers[i]) printBox(out, file.nodes[i], boxes[i]);
  }
  out << "</svg></div>\n";
}

void printGraphText(Output& out, const LaunchFile& file,
                    const RequiredGraph& graph) {
  const std::set<Arrow> cyclic = cyclicArrows(graph);
  out << "<ul>\n";
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    OutputText names;
    for (const auto& edge : graph.edgesFrom(i)) {
      if (!names.empty()) names += ", ";
      names += "<bdi class=\"node\">" +
               htmlText(file.nodes[edge.to].name.value) + "</bdi>";
      if (cyclic.count({i, edge.to}) > 0) {
        names += " <strong class=\"bad\">(cycle)</strong>";
      }
    }
    if (names.empty()) continue;
    out << "<li><bdi class=\"node\">" << htmlText(file.nodes[i].name.value)
        << "</bdi> requires " << names << "</li>\n";
  }
  out << "</ul>\n";
}

}  // namespace

std::vector<std::optional<size_t>> layersOf(const LaunchFile& file,
                                            const RequiredGraph& graph) {
  const size_t count = file.nodes.size();
  const std::set<Arrow> cyclic = cyclicArrows(graph);
  std::vector<std::optional<size_t>> layers = connectedNodes(file, graph);
  // Without the arrows of cycles, a path has fewer arrows than there are nodes.
  bool has_changed = true;
  for (size_t pass = 0; has_changed && pass < count; ++pass) {
    has_changed = false;
    for (size_t i = 0; i < count; ++i) {
      for (const auto& edge : graph.edgesFrom(i)) {
        if (cyclic.count({i, edge.to}) > 0) continue;
        if (*layers[edge.to] > *layers[i]) continue;
        layers[edge.to] = *layers[i] + 1;
        has_changed = true;
      }
    }
  }
  return layers;
}

void printRequiredGraph(Output& out, const LaunchFile& file) {
  const RequiredGraph graph(file);
  const auto connected = connectedNodes(file, graph);
  const auto drawn = static_cast<size_t>(
      std::count_if(connected.begin(), connected.end(),
                    [](const auto& layer) { return layer.has_value(); }));
  if (drawn == 0) {
    out << "<p>No node requires another.</p>\n";
    return;
  }
  if (drawn <= kMostDrawnNodes) {
    printGraphSvg(out, file, graph, layersOf(file, graph));
  }
  printGraphText(out, file, graph);
}

}  // namespace vorn::launch
