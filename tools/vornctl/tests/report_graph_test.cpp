#include "commands/report_graph.h"

#include <gtest/gtest.h>

#include <sstream>

namespace vorn::launch {
namespace {

/// A launch file with these nodes and their `required`.
LaunchFile graphFile(
    const std::vector<std::pair<std::string, std::vector<std::string>>>&
        nodes) {
  LaunchFile file;
  for (const auto& [name, required] : nodes) {
    LaunchFile::Node node;
    node.name.value = name;
    for (const std::string& other : required) {
      node.required.push_back({other, {}});
    }
    file.nodes.add(std::move(node));
  }
  return file;
}

std::vector<std::optional<size_t>> layers(const LaunchFile& file) {
  return layersOf(file, RequiredGraph(file));
}

TEST(LayersTest, ANodeIsRightOfAllThatRequireIt) {
  EXPECT_EQ(layers(graphFile({{"c", {}}, {"b", {"c"}}, {"a", {"b", "c"}}})),
            (std::vector<std::optional<size_t>>{2, 1, 0}));
}

TEST(LayersTest, ANodeWithoutRequiredIsInNoLayer) {
  EXPECT_EQ(layers(graphFile({{"a", {}}})),
            (std::vector<std::optional<size_t>>{std::nullopt}));
}

TEST(LayersTest, TheArrowsOfACycleHaveNoEffect) {
  EXPECT_EQ(layers(graphFile({{"a", {"b"}}, {"b", {"a", "c"}}, {"c", {}}})),
            (std::vector<std::optional<size_t>>{0, 0, 1}));
}

TEST(PrintRequiredGraphTest, TheNodesOfALargeGraphAreOnlyListed) {
  std::vector<std::pair<std::string, std::vector<std::string>>> nodes = {
      {"last", {}}};
  for (size_t i = 0; i < kMostDrawnNodes; ++i) {
    nodes.push_back({"n" + std::to_string(i), {"last"}});
  }
  std::ostringstream stream;
  Output out(stream);
  printRequiredGraph(out, graphFile(nodes));
  EXPECT_EQ(stream.str().find("<svg"), std::string::npos);
  EXPECT_NE(stream.str().find("n0</bdi> requires <bdi class=\"node\">last"),
            std::string::npos);
}

}  // namespace
}  // namespace vorn::launch
