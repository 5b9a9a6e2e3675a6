#include "commands/top_list.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace vorn::launch {
namespace {

NodeView running(const std::string& name) {
  NodeView view;
  view.name = name;
  view.condition = Condition::RUNNING;
  return view;
}

NodeView failing(const std::string& name) {
  NodeView view = running(name);
  view.condition = Condition::RESTARTING;
  return view;
}

std::string namesIn(const TopList& list) {
  std::string names;
  for (const NodeView* const view : list.shown()) names += view->name + ' ';
  return names;
}

std::string selectedIn(const TopList& list) {
  return list.selected() == nullptr ? "" : list.selected()->name;
}

TEST(TopListTest, FailingNodesAreFirstAndTheOthersInFileOrder) {
  TopList list;
  list.update({running("c"), failing("d"), running("a"), failing("b")});
  EXPECT_EQ(namesIn(list), "d b c a ");
}

TEST(TopListTest, AKeySortsAndTheSameKeyRestoresTheDefault) {
  TopList list;
  list.update({running("c"), failing("b"), running("a")});
  EXPECT_TRUE(list.toggleSort('N'));
  EXPECT_EQ(namesIn(list), "a b c ");
  EXPECT_TRUE(list.toggleSort('N'));
  EXPECT_EQ(namesIn(list), "b c a ");
  EXPECT_FALSE(list.toggleSort('x'));
  EXPECT_FALSE(list.toggleSort(0));
}

TEST(TopListTest, LargeUsageIsFirstAndUnknownUsageLast) {
  TopList list;
  NodeView small = running("small");
  small.cpuPercent = 1;
  small.memoryBytes = 10;
  NodeView large = running("large");
  large.cpuPercent = 2;
  large.memoryBytes = 20;
  list.update({running("unknown"), small, large});
  for (const char key : {'C', 'M'}) {
    EXPECT_TRUE(list.toggleSort(key));
    EXPECT_EQ(namesIn(list), "large small unknown ") << key;
  }
}

TEST(TopListTest, TheSelectionFollowsItsNode) {
  TopList list;
  list.update({running("a"), running("b"), running("c")});
  list.select(1);
  list.update({running("a"), failing("b"), running("c")});
  EXPECT_EQ(selectedIn(list), "b");
  EXPECT_EQ(list.selectedIndex(), 0U);
}

TEST(TopListTest, TheSelectionMovesWithinTheShownNodes) {
  TopList list;
  list.update({running("ab"), running("c"), running("b")});
  list.setFilter("b");
  list.select(5);
  EXPECT_EQ(selectedIn(list), "b");
  list.select(-5);
  EXPECT_EQ(selectedIn(list), "ab");
  list.setFilter("x");
  list.select(1);
  EXPECT_EQ(selectedIn(list), "");
  list.setFilter("");
  EXPECT_EQ(list.shown().size(), 3U);
}

TEST(TopListTest, AHiddenSelectionMovesToANeighbour) {
  TopList list;
  list.update({failing("a"), failing("b"), running("c")});
  list.select(2);
  list.toggleFailing();
  EXPECT_EQ(namesIn(list), "a b ");
  EXPECT_EQ(selectedIn(list), "b");
}

TEST(TopListTest, ThePositionIsShownForAPartOfTheList) {
  TopList list;
  list.update({running("a"), running("b"), failing("c")});
  EXPECT_EQ(list.position(0, 3), "");
  EXPECT_EQ(list.position(1, 2), "2-3 of 3");
  list.toggleFailing();
  EXPECT_EQ(list.position(0, 3), "1-1 of 1, failing");
  list.setFilter("x");
  EXPECT_EQ(list.position(0, 3), "0 of 0, filter 'x', failing");
  list.setFilter("");
  list.toggleFailing();
  EXPECT_TRUE(list.toggleSort('C'));
  EXPECT_EQ(list.position(0, 3), "by cpu");
}

}  // namespace
}  // namespace vorn::launch
