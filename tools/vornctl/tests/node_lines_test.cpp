#include "live/node_lines.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

TEST(NodeLinesTest, EveryLineThatNamesANodeIsAboutIt) {
  for (const char* const text :
       {"Node start 'cam' ok", "Node 'cam' ready to restarting",
        "'cam' exited with status: 3.", "'cam' receive signal: 11.",
        "kill service 'cam' failed, error: x", "name: cam",
        "name: cam fork failed.", "cam sleep 100ms", "Can't execv /bin/cam",
        "Can't find file: /bin/cam"}) {
    EXPECT_TRUE(isAboutNode(text, "cam", "/bin/cam")) << text;
  }
  for (const char* const text :
       {"", "Node start 'cam1' ok", "name: camera", "camera sleep 100ms", "cam",
        "Can't execv /bin/cam2", "control cmd: 1"}) {
    EXPECT_FALSE(isAboutNode(text, "cam", "/bin/cam")) << text;
  }
  EXPECT_FALSE(isAboutNode("Can't execv ", "cam", ""));
}

TEST(NodeLinesTest, ANodeCannotForgeALineOfTheLauncher) {
  const char* const text = "*INFO  vornlaunch[7] a.cpp:1 f: Node start 'a' ok";
  EXPECT_TRUE(launcherLineIn({0, 0, {}, text}));
  EXPECT_TRUE(launcherLineIn({0, 7, {}, text}));
  EXPECT_FALSE(launcherLineIn({0, 8, {}, text}));
  EXPECT_FALSE(
      launcherLineIn({0, 0, {}, "*INFO  node[7] a.cpp:1 f: Node start"}));
}

class LineWritersTest : public testing::Test {
 protected:
  /// A line of launcher 1 at this second.
  void learn(int64_t second, const std::string& text) {
    const std::string line = "INFO  vornlaunch[1] a.cpp:1 f: " + text;
    writers_.learn({second * 1'000'000, 1, {}, line});
  }

  void learnExit(int64_t second, const std::string& node, int pid) {
    learn(second,
          "si_pid: " + std::to_string(pid) + ", si_code: 1, si_status: 0");
    learn(second, "'" + node + "' exited with status: 0.");
    learn(second, "Node '" + node + "' ready to restarting");
  }

  std::string writerAt(int64_t second, pid_t pid,
                       std::string_view identifier = "vornlaunch") {
    return writers_.nodeOf({second * 1'000'000, pid, identifier, "text"});
  }

  LineWriters writers_{false};
};

TEST_F(LineWritersTest, AnExitNamesTheWriterDuringTheRun) {
  learn(10, "Node start 'a' ok");
  learnExit(20, "a", 42);
  learn(25, "Node start 'a' ok");
  EXPECT_EQ(writerAt(8, 42), "");
  EXPECT_EQ(writerAt(10, 42), "a");
  EXPECT_EQ(writerAt(21, 42), "a");  // the journal stored the line late
  EXPECT_EQ(writerAt(30, 42), "");
  EXPECT_EQ(writerAt(15, 43), "");
  EXPECT_EQ(writerAt(15, 0), "");
}

TEST_F(LineWritersTest, APidCanBelongToSeveralRuns) {
  learn(10, "Node start 'a' ok");
  learnExit(20, "a", 42);
  learn(100, "Node start 'b' ok");
  learnExit(120, "b", 42);
  EXPECT_EQ(writerAt(15, 42), "a");
  EXPECT_EQ(writerAt(110, 42), "b");
}

TEST_F(LineWritersTest, AnIdentifierOtherThanTheLaunchersNamesTheNode) {
  EXPECT_EQ(writerAt(1, 42, "cam\n"), "cam\\n");
}

TEST_F(LineWritersTest, TheLastRunEndsBeforeTheNextStart) {
  EXPECT_EQ(writers_.lastRunOf("a"), nullptr);
  learn(10, "Node start 'a' ok");
  learnExit(20, "a", 42);
  writers_.finishLearning();
  ASSERT_NE(writers_.lastRunOf("a"), nullptr);
  EXPECT_EQ(writers_.lastRunOf("a")->startUs, 10'000'000);
  EXPECT_EQ(writers_.lastRunOf("a")->endUs, 20'000'000);
  EXPECT_EQ(writers_.lastRunOf("a")->reportEndUs, 21'000'000);
  learn(20, "Node start 'a' ok");
  writers_.finishLearning();
  EXPECT_EQ(writers_.lastRunOf("a")->reportEndUs, 20'000'000);
}

}  // namespace
}  // namespace vorn::launch
