#include "live/run_state.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "live/node_status.h"
#include "live/process_table.h"

namespace vorn::launch {
namespace {

std::string stateOf(pid_t pid, uint64_t start_time, const std::string& phase) {
  return R"({"schema":1,"node":"a","pid":)" + std::to_string(pid) +
         R"(,"startTime":)" + std::to_string(start_time) + R"(,"phase":")" +
         phase +
         R"(","status":"warm","phaseSince":100,"ready":false,"restarts":2,)"
         R"("delayedUntil":null,"droppedBytes":5,"watchdog":null,)"
         R"("lastProbe":{"ok":false,"message":"refused","time":99}})";
}

TEST(RunStateTest, AStateFileIsRead) {
  const auto state = parseRunState(stateOf(42, 7, "starting"), {42, 7});
  ASSERT_TRUE(state);
  EXPECT_EQ(state->phase, "starting");
  EXPECT_EQ(state->status, "warm");
  EXPECT_EQ(state->phaseSince, 100);
  EXPECT_EQ(state->isReady, false);
  EXPECT_EQ(state->restarts, 2);
  EXPECT_FALSE(state->delayedUntil);
  EXPECT_EQ(state->droppedBytes, 5);
  ASSERT_TRUE(state->lastProbe);
  EXPECT_FALSE(state->lastProbe->isOk);
  EXPECT_EQ(state->lastProbe->message, "refused");
}

TEST(RunStateTest, TheStateOfAnotherProcessIsIgnored) {
  const std::string text = stateOf(42, 7, "ready");
  EXPECT_TRUE(parseRunState(text, {42, std::nullopt}));
  EXPECT_FALSE(parseRunState(text, {43, 7}));
  EXPECT_FALSE(parseRunState(text, {42, 8}));
}

TEST(RunStateTest, OnlyAFileOfTheLastRunSaysThatItGaveUp) {
  const std::string text = stateOf(42, 7, "gave up");  // at 100
  EXPECT_TRUE(parseRunState(text, {0, std::nullopt, 100}));
  EXPECT_FALSE(parseRunState(text, {0, std::nullopt, 101}));
  EXPECT_FALSE(parseRunState(stateOf(42, 7, "ready"), {0, std::nullopt, 100}));
}

TEST(RunStateTest, AnInvalidFileIsIgnored) {
  for (const std::string text :
       {"", "{", "[]", "{}", R"({"pid":42,"phase":1})",
        R"({"pid":"42","phase":"ready"})", R"({"pid":42})"}) {
    EXPECT_FALSE(parseRunState(text, {42, std::nullopt})) << text;
  }
}

/// A directory of state files, and this process as a launcher and its node.
class NodeRunTest : public ::testing::Test {
 protected:
  NodeRunTest() {
    std::string name = ::testing::TempDir() + "run_state.XXXXXX";
    directory_ = ::mkdtemp(name.data());
    launcher_.pid = ::getpid();
    launcher_.sharesPids = true;
    launcher_.root = "";
  }
  ~NodeRunTest() override { std::filesystem::remove_all(directory_); }

  void write(const std::string& phase) {
    const auto self = readProcess(::getpid());
    ASSERT_TRUE(self);
    std::ofstream(directory_ + "/a.json")
        << stateOf(::getpid(), self->startTicks, phase);
    ASSERT_EQ(::chmod((directory_ + "/a.json").c_str(), 0644), 0);
  }

  /// The view of a node of vornrun with these options.
  NodeView view(const std::vector<std::string>& options = {},
                NodeState state = NodeState::RUNNING) {
    LaunchFile::Node node;
    node.name.value = "a";
    node.executable = "/usr/bin/vornrun";
    std::vector<std::string> arguments = {"--state-dir", directory_};
    arguments.insert(arguments.end(), options.begin(), options.end());
    arguments.insert(arguments.end(), {"--", "/bin/x"});
    for (const std::string& argument : arguments) {
      node.arguments.push_back({argument, {}});
    }
    launcher_.file.nodes = {};
    launcher_.file.nodes.add(node);
    StatusReply status;
    status.outcome = Outcome::DONE;
    status.state = state;
    status.pid = state == NodeState::RUNNING ? ::getpid() : 0;
    status.startSeconds = 100;
    return viewOf(launcher_, "a", status, 142);
  }

  LauncherProcess launcher_;
  std::string directory_;
};

TEST_F(NodeRunTest, ANodeIsReadyAccordingToItsStateFile) {
  write("starting");
  EXPECT_FALSE(isReady(view()));
  write("ready");
  EXPECT_TRUE(isReady(view()));
  EXPECT_FALSE(isFailing(view()));
}

TEST_F(NodeRunTest, AnUnhealthyNodeFails) {
  write("unhealthy");
  EXPECT_FALSE(isReady(view()));
  EXPECT_TRUE(isFailing(view()));
}

TEST_F(NodeRunTest, ADisabledNodeThatGaveUpFails) {
  write("gave up");
  EXPECT_TRUE(isFailing(view({}, NodeState::DISABLED)));
  EXPECT_FALSE(isFailing(view({}, NodeState::STOPPED)));
}

TEST_F(NodeRunTest, ANodeWithoutAStateFileIsReadyUnlessVornrunWillWriteOne) {
  EXPECT_TRUE(isReady(view()));
  EXPECT_FALSE(isReady(view({"--ready", "notify"})));
}

TEST_F(NodeRunTest, AFileThatAnyUserCanChangeIsIgnored) {
  write("unhealthy");
  ASSERT_EQ(::chmod((directory_ + "/a.json").c_str(), 0646), 0);
  EXPECT_FALSE(view().run.state);
}

TEST_F(NodeRunTest, ASymbolicLinkIsIgnored) {
  write("unhealthy");
  const std::filesystem::path file(directory_ + "/a.json");
  std::filesystem::rename(file, directory_ + "/b.json");
  std::filesystem::create_symlink("b.json", file);
  EXPECT_FALSE(view().run.state);
}

}  // namespace
}  // namespace vorn::launch
