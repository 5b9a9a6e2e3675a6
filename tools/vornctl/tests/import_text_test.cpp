#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "import/launch_file_text.h"
#include "launchfile/parser.h"
#include "run_arguments.h"

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

Imported withNode(ImportedNode node) {
  Imported imported;
  imported.nodes.push_back(std::move(node));
  return imported;
}

ImportedNode cameraNode() {
  ImportedNode node;
  node.name = "camera";
  node.program = "/bin/camera";
  return node;
}

std::string textFor(ImportedNode node) {
  return launchFileText(withNode(std::move(node)), "From x").str();
}

/// The nodes as the launcher reads the text.
LaunchFile launchFileFor(ImportedNode node) {
  return parseLaunchFile(SourceText("x.yaml", textFor(std::move(node))),
                         LauncherEnvironment{});
}

/// The lines of the file in the comments, which start with two more blanks.
std::string fileInComments(const std::string& text) {
  std::string file;
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("  #   ", 0) == 0) file += line.substr(6) + "\n";
  }
  return file;
}

TEST(LaunchFileTextTest, ANodeWithoutOptionsNeedsNoVornrun) {
  ImportedNode node = cameraNode();
  node.arguments = {"--map", "city"};
  node.environment = {{"A", "x: y"}};
  node.isStarted = false;
  node.isOneshot = true;
  node.required = {"planner"};
  EXPECT_EQ(textFor(node),
            "# From x\nvornnode:\n  camera:\n    path: /bin/camera\n"
            "    argv: --map city\n    environment:\n      A: \"x: y\"\n"
            "    autostart: false\n    oneshot: true\n"
            "    required: [planner]\n");
}

TEST(LaunchFileTextTest, OptionsAreThoseOfVornrun) {
  ImportedNode node = cameraNode();
  node.options = {{"user", "robot"}, {"no-new-privs", ""}};
  EXPECT_THAT(
      textFor(node),
      HasSubstr("    path: /usr/bin/vornrun\n"
                "    argv: --user robot --no-new-privs -- /bin/camera"));
}

TEST(LaunchFileTextTest, AnArgumentWithABlankNeedsAConfigurationFile) {
  ImportedNode node = cameraNode();
  node.name = "a/b";
  node.options = {{"user", "robot"}, {"expand", ""}};
  node.arguments = {"x y", "", "a\"b\\", "'", "plain"};
  const std::string text = textFor(node);
  EXPECT_THAT(text, HasSubstr("# Create /etc/vornlaunch/a%2Fb.conf, "));
  EXPECT_THAT(text, HasSubstr("argv: --config /etc/vornlaunch/a%2Fb.conf"));
  run::RunSettings settings;
  EXPECT_THAT(run::parseRunConfig(fileInComments(text), "x.conf", settings),
              IsEmpty());
  EXPECT_EQ(settings.user, "robot");
  EXPECT_TRUE(settings.expandsVariables);
  EXPECT_THAT(settings.program,
              ElementsAre("/bin/camera", "x y", "", "a\"b\\", "'", "plain"));
}

TEST(LaunchFileTextTest, AnArgumentWithALineEndNeedsAScript) {
  ImportedNode node = cameraNode();
  node.arguments = {"-c", "it's\n\n  two"};
  const std::string text = textFor(node);
  EXPECT_THAT(text, HasSubstr("    path: /etc/vornlaunch/camera.sh\n"));
  EXPECT_EQ(fileInComments(text),
            "#!/bin/sh\nexec /bin/camera '-c' 'it'\\''s\n\n  two'\n");
}

TEST(LaunchFileTextTest, TextsOfEveryKindSurvive) {
  for (const std::string text : {"null",
                                 "~",
                                 "yes",
                                 "-",
                                 "- x",
                                 "a: b",
                                 "a #b",
                                 "\"q\"",
                                 "\\n",
                                 "tab\tend",
                                 " blank ",
                                 "{x}",
                                 "[y]",
                                 "&a",
                                 "*b",
                                 "!c",
                                 "%d",
                                 "@e",
                                 "`f",
                                 "::g",
                                 "##[h",
                                 "日本",
                                 "日\u3000\u00a0",
                                 "a\x01z",
                                 "#",
                                 "'"}) {
    ImportedNode node = cameraNode();
    node.name = text;
    node.environment = {{"A", text}};
    const LaunchFile file = launchFileFor(node);
    ASSERT_THAT(file.loadErrors, IsEmpty()) << text;
    ASSERT_EQ(file.nodes.size(), 1U) << text;
    EXPECT_EQ(file.nodes[0].name.value, text);
    EXPECT_EQ(file.nodes[0].environment.at(0).value.value, text);
  }
}

TEST(LaunchFileTextTest, SettingsWithTheSameReasonAreAList) {
  ImportedNode node = cameraNode();
  node.omitted = {{"A=1", "not here"},
                  {"B=2", "other"},
                  {"C=\n3", "not here"},
                  {"", "A remark"}};
  EXPECT_THAT(textFor(node), HasSubstr("  # not here:\n  #   A=1\n"
                                       "  #   C=\\n3\n  # B=2: other\n"
                                       "  # A remark\n  camera:\n"));
}

TEST(LaunchFileTextTest, WithoutNodesTheFileIsValid) {
  const std::string text = launchFileText(Imported{}, "From x").str();
  EXPECT_EQ(text, "# From x\nvornnode: {}\n");
}

TEST(ImportedTest, AnInvalidOptionIsAComment) {
  ImportedNode node = cameraNode();
  node.options = {{"limit", "nofile=many"}, {"nice", "5"}};
  Imported imported = withNode(node);
  rejectInvalidOptions(imported);
  EXPECT_THAT(imported.nodes[0].options,
              ElementsAre(::testing::Pair("nice", "5")));
  EXPECT_EQ(imported.nodes[0].omitted.at(0).setting, "--limit nofile=many");
}

TEST(ImportedTest, AProgramIsSearchedInPath) {
  ImportedNode node = cameraNode();
  node.program = "sh";
  Imported imported = withNode(node);
  node.program = "no-such-program";
  imported.nodes.push_back(node);
  findPrograms(imported, "/nonexistent:/bin");
  EXPECT_EQ(imported.nodes[0].program, "/bin/sh");
  EXPECT_THAT(imported.nodes[1].omitted.at(0).reason, HasSubstr("not in PATH"));
}

}  // namespace
}  // namespace vorn::launch
