#include "commands/graph.h"

#include <cstdio>
#include <cstdlib>
#include <new>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "launchfile/parser.h"
#include "launchfile/required_graph.h"
#include "output/output.h"
#include "system/stop_signals.h"

namespace vorn::launch {
namespace {

constexpr char kNoDot[] =
    "cannot draw SVG without Graphviz; install it (Debian: graphviz) or use "
    "--format mermaid or dot";

/// The policies of a node in a few words, one per line.
std::vector<OutputText> policiesOf(const LaunchFile::Node& node) {
  std::vector<OutputText> policies;
  if (node.disabled.value) policies.emplace_back("disabled");
  if (!node.autostart.value) policies.emplace_back("not started automatically");
  if (node.oneshot.value) policies.emplace_back("oneshot");
  if (node.sleepMs.value != 0) {
    policies.push_back(
        "sleep " + OutputText(effectiveSleepMs(node.sleepMs.value)) + " ms");
  }
  return policies;
}

/// The edges of all cycles, as pairs of nodes.
std::set<std::pair<size_t, size_t>> arrowsInCycles(const RequiredGraph& graph) {
  std::set<std::pair<size_t, size_t>> arrows;
  for (const auto& cycle : graph.cycles()) {
    for (const auto& [from, edge] : cycle) arrows.insert({from, edge.to});
  }
  return arrows;
}

/// Lets Graphviz write the drawing to standard output.
ExitStatus drawSvg(const Context& context, const LaunchFile& file) {
  if (std::system("command -v dot >/dev/null 2>&1") != 0) {
    context.printError(kNoDot);
    return kFailed;
  }
  std::ostringstream stream;
  Output out(stream);
  printDot(out, file);
  if (!stream) throw std::bad_alloc();  // the stream does not report it
  const std::string text = stream.str();
  standardOutput().flush();
  FILE* const dot = ::popen("dot -Tsvg", "w");
  if (dot == nullptr) {
    context.printError(kNoDot);
    return kFailed;
  }
  const bool is_written =
      std::fwrite(text.data(), 1, text.size(), dot) == text.size();
  const int status = ::pclose(dot);
  if (is_written && status == 0) return kDone;
  context.printError("Graphviz could not draw the graph");
  return kFailed;
}

ExitStatus printGraphOf(const Context& context, const GraphOptions& options) {
  std::string error;
  const auto document = readSourceText(options.file, error);
  if (!document) {
    context.printError(error);
    return kUsage;
  }
  const LaunchFile file = parseLaunchFile(*document, ownEnvironment());
  if (!file.loadErrors.empty()) {
    context.printError("the launcher would not load " + options.file + ": " +
                       file.loadErrors[0].exception +
                       "; 'vornctl check' reports all errors");
    return kUsage;
  }
  Output out = standardOutput();
  switch (options.format) {
    case GraphOptions::Format::MERMAID:
      printMermaid(out, file);
      return kDone;
    case GraphOptions::Format::SVG:
      return drawSvg(context, file);
    case GraphOptions::Format::DOT:
      break;
  }
  printDot(out, file);
  return kDone;
}

}  // namespace

void printDot(Output& out, const LaunchFile& file) {
  const RequiredGraph graph(file);
  const auto red = arrowsInCycles(graph);
  out << "digraph launch {\n  rankdir=LR;\n  node [shape=box];\n";
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    const LaunchFile::Node& node = file.nodes[i];
    out << "  n" << i << " [label=\"" << quotedText(node.name.value);
    for (const OutputText& policy : policiesOf(node)) out << "\\n" << policy;
    out << "\"";
    if (node.disabled.value || !node.autostart.value) out << ", style=dashed";
    out << "];\n";
  }
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    for (const auto& edge : graph.edgesFrom(i)) {
      out << "  n" << i << " -> n" << edge.to;
      if (red.count({i, edge.to}) > 0) out << " [color=red]";
      out << ";\n";
    }
  }
  out << "}\n";
}

void printMermaid(Output& out, const LaunchFile& file) {
  const RequiredGraph graph(file);
  const auto red = arrowsInCycles(graph);
  std::vector<size_t> red_links;
  out << "flowchart LR\n";
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    const LaunchFile::Node& node = file.nodes[i];
    out << "  n" << i << "[\"" << mermaidText(node.name.value);
    for (const OutputText& policy : policiesOf(node)) {
      out << "<br>" << policy;
    }
    out << "\"]\n";
  }
  size_t link = 0;
  for (size_t i = 0; i < file.nodes.size(); ++i) {
    for (const auto& edge : graph.edgesFrom(i)) {
      out << "  n" << i << " --> n" << edge.to << "\n";
      if (red.count({i, edge.to}) > 0) red_links.push_back(link);
      ++link;
    }
  }
  for (const size_t each : red_links) {
    out << "  linkStyle " << each << " stroke:red\n";
  }
}

ExitStatus printGraph(const Context& context, const GraphOptions& options) {
  dieByStopSignals(context.settings().cancelFd);
  try {
    return printGraphOf(context, options);
  } catch (const TooLarge& failure) {
    context.printError("cannot draw " + options.file + ": " + failure.what());
    return kUsage;
  } catch (const std::bad_alloc&) {
    context.printError("not enough memory to draw " + options.file);
    return kUsage;
  }
}

}  // namespace vorn::launch
