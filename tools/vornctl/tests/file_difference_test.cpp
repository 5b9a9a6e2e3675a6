#include "launchfile/file_difference.h"

#include <gtest/gtest.h>

#include "launchfile/parser.h"
#include "live/running_nodes.h"

namespace vorn::launch {
namespace {

using DifferenceKind = NodeDifference::Kind;

LaunchFile launchFileWith(const std::string& nodes,
                          const std::string& rest = "") {
  std::string error;
  const auto file = loadLaunchFile(
      SourceText("launch.yaml", rest + "vornnode: {" + nodes + "}\n"), {},
      error);
  EXPECT_TRUE(file) << error;
  return file.value_or(LaunchFile());
}

/// "argv: a -> b; order: ..." of the only node that differs.
std::string partsBetween(const std::string& before, const std::string& after) {
  const auto difference =
      differenceBetween(launchFileWith(before), launchFileWith(after));
  EXPECT_EQ(difference.nodes.size(), 1U);
  std::string text;
  for (const NodeDifference& node : difference.nodes) {
    for (const PartDifference& part : node.parts) {
      text += (text.empty() ? "" : "; ") + part.part + ": " +
              part.before.value_or("-") + " -> " + part.after.value_or("-");
    }
  }
  return text;
}

TEST(FileDifferenceTest, EqualNodesDoNotDiffer) {
  const auto difference = differenceBetween(
      launchFileWith("a: {path: /a}, b: {path: /b, argv: x   y}"),
      launchFileWith("a: {path: /a}, b: {argv: x y, path: /b}"));
  EXPECT_TRUE(difference.isEmpty());
  EXPECT_EQ(difference.unchanged, 2U);
}

TEST(FileDifferenceTest, NamesThePartsThatDiffer) {
  EXPECT_EQ(partsBetween("a: {path: /a, argv: -x}", "a: {path: /b, argv: -x}"),
            "argv: /a -x -> /b -x");
  EXPECT_EQ(partsBetween("a: {path: /a, environment: {A: 1, B: 2}}",
                         "a: {path: /a, environment: {B: 3, C: 4}}"),
            "environment B: 2 -> 3; environment C: - -> 4; "
            "environment A: 1 -> -");
  EXPECT_EQ(partsBetween("a: {path: /a}",
                         "a: {path: /a, disabled: true, oneshot: true, "
                         "autostart: false, sleep: 5, required: [b]}"),
            "disabled: false -> true; oneshot: false -> true; autostart: true "
            "-> false; sleep: 0 -> 5; required:  -> b");
}

TEST(FileDifferenceTest, OnlyTheNodeThatHasMovedDiffersInTheOrder) {
  EXPECT_EQ(partsBetween("a: {path: /a}, b: {path: /b}, c: {path: /c}",
                         "c: {path: /c}, a: {path: /a}, b: {path: /b}"),
            "order: after b -> first");
}

TEST(FileDifferenceTest, SaysWhatARestartDoesToEachNode) {
  const auto difference = differenceBetween(
      launchFileWith(
          "gone: {path: /a}, a: {path: /a}, once: {path: /a, oneshot: "
          "true}, off: {path: /a}, same: {path: /a}"),
      launchFileWith(
          "a: {path: /b}, once: {path: /b, oneshot: true}, off: {path: "
          "/a, disabled: true}, same: {path: /a}, new: {path: /a}, "
          "manual: {path: /a, autostart: false}"));
  std::vector<std::pair<std::string, std::string>> effects;
  for (const auto& node : difference.nodes) {
    effects.emplace_back(node.node, node.effect);
  }
  EXPECT_EQ(effects, (std::vector<std::pair<std::string, std::string>>{
                         {"a", "restarts"},
                         {"once", "runs again"},
                         {"off", "stops: disabled"},
                         {"new", "starts"},
                         {"manual", "is not started: autostart is false"},
                         {"gone", "stops"}}));
  EXPECT_EQ(difference.nodes.back().kind, DifferenceKind::REMOVED);
  EXPECT_EQ(difference.unchanged, 1U);
}

TEST(FileDifferenceTest, TheVariablesOfConfigureDifferForAllNodes) {
  const auto difference = differenceBetween(
      launchFileWith("a: {path: /a}", "configure: {environment: {LEVEL: 1}}\n"),
      launchFileWith("a: {path: /a}",
                     "configure: {environment: {LEVEL: 2}}\n"));
  ASSERT_EQ(difference.configure.size(), 1U);
  EXPECT_EQ(difference.configure.front().part, "environment LEVEL");
  EXPECT_FALSE(difference.isEmpty());
}

TEST(FileDifferenceTest, WordsWithSpacesAreQuoted) {
  EXPECT_EQ(wordsText({"a", "", "b c", "it's"}), "a '' 'b c' 'it'\\''s'");
}

/// The difference of these running processes from a file.
FileDifference differenceOf(const std::vector<RunningNode>& running,
                            const LaunchFile& file) {
  const LaunchFile after = withAllVariables(file);
  return differenceBetween(asRunning(after, running, {"PATH=/bin", "HOME=/"}),
                           after);
}

TEST(RunningNodesTest, AProcessOfTheFileDoesNotDiffer) {
  const auto file = launchFileWith(
      "camera: {path: /a, argv: -x, environment: {A: 1}}, once: "
      "{path: /b, oneshot: true}, off: {path: /c, disabled: true}",
      "configure: {environment: {LEVEL: 2, A: 0}}\n");
  const std::vector<std::string> environment = {
      "PATH=/bin", "LEVEL=2", "A=1", "__VORN_NODE_NAME__=camera", "PWD=/"};
  const std::vector<std::vector<std::string>> all = {
      {"/a", "-x"}, {"/bin/sh", "/a", "-x"}, {"-x"}};
  for (const std::vector<std::string>& argv : all) {
    EXPECT_TRUE(differenceOf({{"camera", argv, environment}}, file).isEmpty())
        << wordsText(argv);
  }
}

TEST(RunningNodesTest, AProcessWithOtherArgumentsOrVariablesDiffers) {
  const auto file =
      launchFileWith("camera: {path: /a, argv: -x, environment: {A: 1, B: 2}}");
  const auto difference = differenceOf(
      {{"camera", {"/a", "-y"}, {"A=0", "OLD=1", "HOME=/"}}}, file);
  ASSERT_EQ(difference.nodes.size(), 1U);
  std::string parts;
  for (const PartDifference& part : difference.nodes.front().parts) {
    parts += part.part + ": " + part.before.value_or("-") + " -> " +
             part.after.value_or("-") + "; ";
  }
  EXPECT_EQ(parts,
            "argv: /a -y -> /a -x; environment A: 0 -> 1; environment B: - -> "
            "2; environment OLD: 1 -> -; ");
}

TEST(RunningNodesTest, MissingAndFurtherProcessesDiffer) {
  const auto file = launchFileWith("camera: {path: /a}");
  const auto difference = differenceOf({{"old", {"/b"}, {}}}, file);
  ASSERT_EQ(difference.nodes.size(), 2U);
  EXPECT_EQ(difference.nodes.front().kind, DifferenceKind::ADDED);
  EXPECT_EQ(difference.nodes.back().node, "old");
  EXPECT_EQ(difference.nodes.back().kind, DifferenceKind::REMOVED);
}

}  // namespace
}  // namespace vorn::launch
