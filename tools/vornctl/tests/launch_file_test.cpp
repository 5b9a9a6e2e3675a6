#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "launchfile/parser.h"

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

class ReadLaunchFileTest : public ::testing::Test {
 protected:
  ReadLaunchFileTest() {
    char name[] = "/tmp/launch-file-XXXXXX";
    const int fd = ::mkstemp(name);
    EXPECT_GE(fd, 0);
    (void)::close(fd);
    path_ = name;
  }
  ~ReadLaunchFileTest() override { (void)::unlink(path_.c_str()); }

  LaunchFile read(const std::string& text) {
    std::ofstream(path_) << text;
    auto file = readFile();
    EXPECT_TRUE(file) << error_;
    return file.value_or(LaunchFile{});
  }

  std::vector<std::string> namesIn(const std::string& text) {
    std::vector<std::string> names;
    for (const LaunchFile::Node& node : read(text).nodes)
      names.push_back(node.name.value);
    return names;
  }

  std::string errorOf(const std::string& text) {
    std::ofstream(path_) << text;
    EXPECT_FALSE(readFile());
    return error_;
  }

  std::optional<LaunchFile> readFile() {
    const auto document = readSourceText(path_, error_);
    EXPECT_TRUE(document) << error_;
    return loadLaunchFile(*document, environment_, error_);
  }

  std::string path_;
  LauncherEnvironment environment_;
  std::string error_;
};

TEST_F(ReadLaunchFileTest, KeepsTheNodesInFileOrder) {
  EXPECT_THAT(
      namesIn("vornnode: {b: {path: /b}, a: {path: /a}, c: {path: /c}}"),
      ElementsAre("b", "a", "c"));
}

TEST_F(ReadLaunchFileTest, LeavesOutANodeWithoutAPathAsTheLauncherDoes) {
  EXPECT_THAT(namesIn("vornnode: {a: {argv: x}, b: , c: {path: /c}}"),
              ElementsAre("c"));
}

TEST_F(ReadLaunchFileTest, KeepsTheFirstOfTwoNodesOfOneName) {
  const LaunchFile file =
      read("vornnode: {a: {path: /first}, a: {path: /second}}");
  ASSERT_EQ(file.nodes.size(), 1U);
  EXPECT_EQ(file.nodes[0].executable, "/first");
}

TEST_F(ReadLaunchFileTest, HasNoNodesWithoutTheKey) {
  EXPECT_THAT(namesIn("configure: {}"), IsEmpty());
  EXPECT_THAT(namesIn(""), IsEmpty());
}

TEST_F(ReadLaunchFileTest, ReadsThePoliciesOfANode) {
  const LaunchFile file = read(
      "vornnode: {a: {path: /a, oneshot: yes, autostart: no, disabled: on, "
      "sleep: 0x10, required: [b, c]}}");
  const LaunchFile::Node& node = file.nodes[0];
  EXPECT_TRUE(node.oneshot.value);
  EXPECT_FALSE(node.autostart.value);
  EXPECT_TRUE(node.disabled.value);
  EXPECT_EQ(node.sleepMs.value, 16U);
  EXPECT_THAT(valuesOf(node.required), ElementsAre("b", "c"));
}

TEST_F(ReadLaunchFileTest, GivesAPlainNodeTheUsualPolicies) {
  const LaunchFile file = read("vornnode: {a: {path: /a}}");
  const LaunchFile::Node& node = file.nodes[0];
  EXPECT_FALSE(node.oneshot.value);
  EXPECT_TRUE(node.autostart.value);
  EXPECT_FALSE(node.disabled.value);
  EXPECT_EQ(node.sleepMs.value, 0U);
  EXPECT_THAT(node.required, IsEmpty());
}

TEST_F(ReadLaunchFileTest, TakesTheLastValueOfARepeatedKey) {
  const LaunchFile file = read("vornnode: {a: {path: /a, sleep: 1, sleep: 2}}");
  EXPECT_EQ(file.nodes[0].sleepMs.value, 2U);
}

TEST_F(ReadLaunchFileTest, FindsANodeByName) {
  const LaunchFile file = read("vornnode: {a: {path: /a}, b: {path: /b}}");
  ASSERT_NE(file.find("b"), nullptr);
  EXPECT_EQ(file.find("b")->executable, "/b");
  EXPECT_EQ(file.find("c"), nullptr);
}

TEST_F(ReadLaunchFileTest, JoinsARelativePathToTheLaunchersBinPath) {
  environment_.binPath = "/opt/b";
  const LaunchFile file = read("vornnode: {a: {path: x}, b: {path: /x}}");
  EXPECT_EQ(file.nodes[0].executable, "/opt/b/x");
  EXPECT_EQ(file.nodes[1].executable, "/x");
}

TEST_F(ReadLaunchFileTest, LeavesARelativePathWithoutABinPath) {
  EXPECT_EQ(read("vornnode: {a: {path: x}}").nodes[0].executable, "x");
}

TEST_F(ReadLaunchFileTest, PrefersTheBinPathThatTheFileSetsLast) {
  environment_.binPath = "/opt/b";
  const LaunchFile file = read(
      "vornnode: {a: {path: x}}\n"
      "configure: {environment: {VORN_BIN_PATH: /first, VORN_BIN_PATH: /c}}");
  EXPECT_EQ(file.nodes[0].executable, "/c/x");
}

TEST_F(ReadLaunchFileTest, ExpandsTheInstallRootInTheBinPath) {
  environment_.root = "/opt/v";
  const LaunchFile file = read(
      "vornnode: {a: {path: x}}\n"
      "configure: {environment: {VORN_BIN_PATH: 'install://bin'}}");
  EXPECT_EQ(file.nodes[0].executable, "/opt/v/bin/x");
}

TEST_F(ReadLaunchFileTest, WithInvalidSyntaxIsAnErrorWithTheLocation) {
  EXPECT_THAT(errorOf("vornnode: {a: {path: /a}"), HasSubstr("line 1"));
}

TEST_F(ReadLaunchFileTest, WithAValueOfTheWrongKindIsAnError) {
  EXPECT_THAT(errorOf("vornnode: {a: {path: /a, sleep: long}}"),
              HasSubstr("bad conversion"));
}

}  // namespace
}  // namespace vorn::launch
