#include "context/node_patterns.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

LaunchFile fileOf(const std::vector<std::string>& names) {
  LaunchFile file;
  for (const std::string& name : names) {
    LaunchFile::Node node;
    node.name.value = name;
    file.nodes.add(node);
  }
  return file;
}

std::vector<std::string> select(const std::vector<std::string>& arguments,
                                std::string* error = nullptr) {
  std::string text;
  auto names = selectNodes(fileOf({"camera", "cam_left", "planner", "odd[1]"}),
                           arguments, text);
  if (error != nullptr) *error = text;
  return names;
}

TEST(SelectionTest, NoArgumentsAreAllNodes) {
  EXPECT_THAT(select({}),
              ElementsAre("camera", "cam_left", "planner", "odd[1]"));
}

TEST(SelectionTest, NamesComeInFileOrderEachOnce) {
  EXPECT_THAT(select({"planner", "camera", "planner"}),
              ElementsAre("camera", "planner"));
}

TEST(SelectionTest, APatternIsEveryNodeThatMatches) {
  EXPECT_THAT(select({"cam*"}), ElementsAre("camera", "cam_left"));
  EXPECT_THAT(select({"?amera", "cam_[a-l]eft"}),
              ElementsAre("camera", "cam_left"));
}

TEST(SelectionTest, APatternThatIsANameSelectsOnlyThatNode) {
  EXPECT_THAT(select({"odd[1]"}), ElementsAre("odd[1]"));
}

TEST(SelectionTest, AnUnknownNameStaysForTheLauncherAtTheEnd) {
  EXPECT_THAT(select({"ghost", "planner", "ghost"}),
              ElementsAre("planner", "ghost"));
}

TEST(SelectionTest, APatternThatMatchesNothingIsAnError) {
  std::string error;
  EXPECT_THAT(select({"camera", "zz*"}, &error), IsEmpty());
  EXPECT_EQ(error,
            "no node matches 'zz*'; quote patterns so that the shell does not "
            "expand them");
}

TEST(SelectionTest, AStarMatchesDotsAndSlashesInNames) {
  std::string error;
  EXPECT_THAT(selectNodes(fileOf({".a/b"}), {"*"}, error), ElementsAre(".a/b"));
}

TEST(NearestNameTest, IsOneThatIsATypingErrorAway) {
  const LaunchFile file = fileOf({"camera", "planner"});
  EXPECT_EQ(nearestName(file, "camara"), "camera");
  EXPECT_EQ(nearestName(file, "planer"), "planner");
  EXPECT_EQ(nearestName(file, "plannner"), "planner");
  EXPECT_EQ(nearestName(file, "Camera"), "camera");
}

TEST(NearestNameTest, IsTheNearestOfSeveral) {
  EXPECT_EQ(nearestName(fileOf({"camera1", "camera2x", "camera"}), "camera2"),
            "camera1");
}

TEST(NearestNameTest, IsNoneForAWordOfOneOrTwoLetters) {
  EXPECT_EQ(nearestName(fileOf({"a", "cd", "b1"}), "b"), "");
  EXPECT_EQ(nearestName(fileOf({"a", "cd", "b1"}), "b2"), "");
}

TEST(NearestNameTest, IsNoneWhenAllAreFar) {
  const LaunchFile file = fileOf({"camera", "planner"});
  EXPECT_EQ(nearestName(file, "odometry"), "");
  EXPECT_EQ(nearestName(file, "x"), "");
  EXPECT_EQ(nearestName(fileOf({}), "camera"), "");
}

}  // namespace
}  // namespace vorn::launch
