// Benchmarks of single functions of the launcher. Their log lines go to
// standard error; redirect it to a file or /dev/null.

#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "control_node.h"
#include "node.h"
#include "node_manager.h"
#include "parser.h"
#include "vornlib/trace.h"

namespace {

using vorn::launch::ControlNode;
using vorn::launch::Node;
using vorn::launch::NodeManager;
using vorn::launch::Parser;

constexpr int kMostNodes = 10'000;

std::string nodeName(int64_t index) {
  const std::string digits = std::to_string(index);
  return "node" + std::string(5 - digits.size(), '0') + digits;
}

/// The registry, with kMostNodes nodes of increasing pids; nothing is started.
NodeManager& filledRegistry() {
  static NodeManager& nodes = [&]() -> NodeManager& {
    NodeManager& registry = NodeManager::getInstance();
    for (int i = 0; i < kMostNodes; ++i) {
      auto node = std::make_unique<Node>(nodeName(i));
      node->pid = i + 1;
      const std::string name = node->name;
      registry.addNode(name, std::move(node));
    }
    return registry;
  }();
  return nodes;
}

/// A launch file of `count` nodes, removed at the end.
class LaunchFile {
 public:
  explicit LaunchFile(int64_t count)
      : path_(std::filesystem::temp_directory_path() /
              ("bench-" + std::to_string(::getpid()) + ".yaml")) {
    std::ofstream file(path_);
    file << "vornnode:\n";
    for (int64_t i = 0; i < count; ++i) {
      file << "  " << nodeName(i) << ":\n    path: /bin/true\n"
           << "    argv: --rate 30\n    disabled: true\n";
    }
  }
  ~LaunchFile() { std::filesystem::remove(path_); }
  LaunchFile(const LaunchFile&) = delete;
  LaunchFile& operator=(const LaunchFile&) = delete;

  std::string path() const { return path_; }

 private:
  std::filesystem::path path_;
};

void logLine(benchmark::State& state) {
  while (state.KeepRunning()) VTRACE(vorn::kInfo, vorn::kEvent, "cmd: %d", 3);
}
BENCHMARK(logLine);

// The nodes stay in the registry; look-ups go to the first ones, which are
// filledRegistry()'s.
void findNodeByName(benchmark::State& state) {
  NodeManager& nodes = filledRegistry();
  const std::string name = nodeName(state.range(0) - 1);
  while (state.KeepRunning()) benchmark::DoNotOptimize(nodes.findNode(name));
}
BENCHMARK(findNodeByName)->Arg(10)->Arg(1000)->Arg(5000);

void findNodeByPid(benchmark::State& state) {
  NodeManager& nodes = filledRegistry();
  const auto pid = static_cast<int>(state.range(0));
  while (state.KeepRunning()) benchmark::DoNotOptimize(nodes.findNode(pid));
}
BENCHMARK(findNodeByPid)->Arg(10)->Arg(1000)->Arg(5000);

void handleStatus(benchmark::State& state) {
  (void)filledRegistry();
  ControlNode& control = ControlNode::getInstance();
  const std::string name = nodeName(state.range(0) - 1);
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(control.nodeStatus(name.c_str()));
  }
}
BENCHMARK(handleStatus)->Arg(10)->Arg(1000)->Arg(5000);

// Of a number of times, since every node that is read stays.
void parseFile(benchmark::State& state) {
  (void)filledRegistry();
  const LaunchFile file(state.range(0));
  while (state.KeepRunning()) {
    benchmark::DoNotOptimize(Parser().Parse(file.path()));
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(parseFile)->Arg(10)->Arg(100)->Arg(1000)->Iterations(5);

}  // namespace

BENCHMARK_MAIN();
