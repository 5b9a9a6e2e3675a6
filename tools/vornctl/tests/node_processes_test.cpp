#include "live/node_processes.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace vorn::launch {
namespace {

using Origin = DetachedTree::Origin;
using Trees = std::vector<std::pair<pid_t, Origin>>;

constexpr pid_t kInit = 1;
constexpr pid_t kSelf = 9999;

/// A machine with process 1 and vornctl, to which each test adds processes.
class DetachedTreesTest : public testing::Test {
 protected:
  DetachedTreesTest() {
    add(kInit, 0, 0);
    add(kSelf, kInit, 9999);
  }

  void add(pid_t pid, pid_t parent, uint64_t start,
           const std::string& node = "") {
    Process process;
    process.pid = pid;
    process.parent = parent;
    process.startTicks = start;
    process.state = 'S';
    process.name = "program";
    processes_.push_back(process);
    if (!node.empty()) members_[pid].node = node;
  }

  void addLauncher(pid_t pid, uint64_t start) {
    add(pid, kInit, start);
    processes_.back().name = "vornlaunch";
  }

  Trees detached() const {
    const ProcessTable table(processes_);
    Trees found;
    for (const DetachedTree& tree :
         detachedTrees(table, launchersIn(table, 0), members_, kSelf)) {
      found.emplace_back(tree.root->pid, tree.origin);
    }
    return found;
  }

  std::vector<Process> processes_;
  NodeMembers members_;
};

TEST_F(DetachedTreesTest, ChildrenOfALauncherAreNotDetached) {
  addLauncher(10, 100);
  add(11, 10, 110, "camera");
  add(12, 11, 120, "camera");
  EXPECT_EQ(detached(), Trees());
}

TEST_F(DetachedTreesTest, WithoutALauncherEveryNodeIsAnOrphan) {
  add(11, kInit, 110, "camera");
  add(12, 11, 120, "camera");
  EXPECT_EQ(detached(), (Trees{{11, Origin::NO_LAUNCHER}}));
}

TEST_F(DetachedTreesTest, NodesThatAreOlderThanAllLaunchersHaveNone) {
  addLauncher(10, 100);
  add(11, 10, 110, "camera");
  add(5, kInit, 50, "camera");
  add(6, kInit, 60, "lidar");
  EXPECT_EQ(detached(),
            (Trees{{5, Origin::NO_LAUNCHER}, {6, Origin::NO_LAUNCHER}}));
}

TEST_F(DetachedTreesTest, AProcessOlderThanTheNodeIsOfAnEarlierRun) {
  addLauncher(10, 100);
  add(11, 10, 130, "camera");
  add(12, kInit, 120, "camera");
  EXPECT_EQ(detached(), (Trees{{12, Origin::EARLIER_RUN}}));
}

TEST_F(DetachedTreesTest, AProcessOfANodeThatDoesNotRunIsOfAnEarlierRun) {
  addLauncher(10, 100);
  add(12, kInit, 120, "camera");
  EXPECT_EQ(detached(), (Trees{{12, Origin::EARLIER_RUN}}));
}

TEST_F(DetachedTreesTest, AProcessYoungerThanTheNodeIsInTheBackground) {
  addLauncher(10, 100);
  add(11, 10, 110, "camera");
  add(12, kInit, 120, "camera");
  add(13, kInit, 110, "camera");  // within the same tick
  EXPECT_EQ(detached(),
            (Trees{{12, Origin::CURRENT_RUN}, {13, Origin::CURRENT_RUN}}));
}

TEST_F(DetachedTreesTest, YoungChildrenOfAnOrphanAreOrphans) {
  addLauncher(10, 100);
  add(11, 10, 110, "camera");
  add(5, kInit, 50, "camera");
  add(12, 5, 120, "camera");
  EXPECT_EQ(detached(), (Trees{{5, Origin::NO_LAUNCHER}}));
}

TEST_F(DetachedTreesTest, ARunInAnotherPidNamespaceDoesNotCount) {
  addLauncher(10, 100);
  add(11, 10, 110, "camera");
  members_[11].sharesPidNamespace = false;
  add(12, kInit, 120, "camera");
  EXPECT_EQ(detached(), (Trees{{12, Origin::EARLIER_RUN}}));
}

TEST_F(DetachedTreesTest, AProcessInAnotherPidNamespaceIsIgnored) {
  add(12, kInit, 120, "camera");
  members_[12].sharesPidNamespace = false;
  add(15, kInit, 150, "camera");
  EXPECT_EQ(detached(), (Trees{{15, Origin::NO_LAUNCHER}}));
}

TEST_F(DetachedTreesTest, AProcessThatEnteredThePidNamespaceIsIgnored) {
  add(12, 0, 120, "camera");  // its parent is outside
  add(13, 12, 130, "camera");
  add(15, kInit, 150, "camera");
  EXPECT_EQ(detached(), (Trees{{15, Origin::NO_LAUNCHER}}));
}

TEST_F(DetachedTreesTest, AProcessWithAnInvisibleAncestorIsIgnored) {
  add(12, 8, 120, "camera");
  EXPECT_EQ(detached(), Trees());
}

TEST_F(DetachedTreesTest, TheProcessesOfThePidNamespaceOfANodeAreIgnored) {
  members_[kInit].node = "container";
  add(12, kInit, 120, "container");
  EXPECT_EQ(detached(), Trees());
}

TEST_F(DetachedTreesTest, ATreeWithVornctlItselfIsIgnored) {
  add(12, kInit, 120, "terminal");
  add(13, 12, 130, "terminal");
  processes_[1].parent = 13;
  add(15, kInit, 150, "camera");
  EXPECT_EQ(detached(), (Trees{{15, Origin::NO_LAUNCHER}}));
}

TEST_F(DetachedTreesTest, ATreeWithALauncherIsIgnored) {
  add(12, kInit, 120, "terminal");
  addLauncher(13, 130);
  processes_.back().parent = 12;
  add(14, 13, 140, "camera");
  EXPECT_EQ(detached(), Trees());
}

TEST_F(DetachedTreesTest, AZombieIsNotALauncher) {
  addLauncher(10, 100);
  processes_.back().state = 'Z';
  add(11, kInit, 110, "camera");
  EXPECT_EQ(detached(), (Trees{{11, Origin::NO_LAUNCHER}}));
}

}  // namespace
}  // namespace vorn::launch
