#include "node_memory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

const std::string kLongText(300, 'x');

/// A list that keeps room for more than it holds.
template <typename T>
T withRoom(T content) {
  content.reserve(content.size() + 100);
  return content;
}

std::vector<std::unique_ptr<Node>> someNodes() {
  std::vector<std::unique_ptr<Node>> nodes;
  nodes.push_back(std::make_unique<Node>(withRoom(std::string("camera"))));
  nodes.back()->argv = withRoom(
      std::vector<std::string>{"/bin/camera", withRoom(kLongText), ""});
  nodes.back()->required = withRoom(std::vector<std::string>{"lens", "camera"});
  nodes.back()->environment =
      withRoom(Environment{{"A", "1"}, {"A", kLongText}, {"", ""}});
  nodes.push_back(std::make_unique<Node>(std::string("a\0b", 3)));
  nodes.push_back(std::make_unique<Node>(""));
  nodes.back()->argv = {kLongText};
  return nodes;
}

TEST(PackNodesTest, TextsAndListsStayAsTheyAre) {
  const auto nodes = someNodes();
  packNodes(nodes);
  EXPECT_EQ("camera", nodes[0]->name);
  EXPECT_THAT(nodes[0]->argv, ElementsAre("/bin/camera", kLongText, ""));
  EXPECT_THAT(nodes[0]->required, ElementsAre("lens", "camera"));
  EXPECT_THAT(nodes[0]->environment,
              ElementsAre(Pair("A", "1"), Pair("A", kLongText), Pair("", "")));
  EXPECT_EQ(std::string("a\0b", 3), nodes[1]->name);
  EXPECT_THAT(nodes[1]->argv, IsEmpty());
  EXPECT_THAT(nodes[1]->required, IsEmpty());
  EXPECT_THAT(nodes[1]->environment, IsEmpty());
  EXPECT_EQ("", nodes[2]->name);
  EXPECT_THAT(nodes[2]->argv, ElementsAre(kLongText));
}

TEST(PackNodesTest, EveryTextAndListIsAsLargeAsItMustBe) {
  const auto nodes = someNodes();
  packNodes(nodes);
  EXPECT_EQ(std::string().capacity(), nodes[0]->name.capacity());
  EXPECT_EQ(nodes[0]->argv.size(), nodes[0]->argv.capacity());
  EXPECT_EQ(kLongText.size(), nodes[0]->argv[1].capacity());
  EXPECT_EQ(nodes[0]->required.size(), nodes[0]->required.capacity());
  EXPECT_EQ(nodes[0]->environment.size(), nodes[0]->environment.capacity());
}

TEST(NodeMemoryTest, NodesLieSideBySide) {
  std::vector<std::unique_ptr<Node>> nodes;
  int gaps = 0;
  for (int i = 0; i < 1000; ++i) {
    nodes.push_back(std::make_unique<Node>("node"));
    if (i > 0 && nodes[nodes.size() - 2].get() + 1 != nodes.back().get()) {
      ++gaps;
    }
  }
  EXPECT_LE(gaps, 4);
}

TEST(NodeMemoryTest, TheMemoryOfADestroyedNodeIsReused) {
  auto node = std::make_unique<Node>("dropped");
  const void* const place = node.get();
  node.reset();
  const auto next = std::make_unique<Node>("next");
  EXPECT_EQ(place, next.get());
  const auto other = std::make_unique<Node>("other");
  EXPECT_NE(place, other.get());
}

}  // namespace
}  // namespace vorn::launch
