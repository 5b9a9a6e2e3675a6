#include "live/process_table.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace vorn::launch {
namespace {

using namespace std::string_literals;

/// The line of a stat file.
std::string statLine(const std::string& name, const std::string& flags = "0") {
  return "42 (" + name + ") S 7 42 42 0 -1 " + flags +
         " 1 2 3 4 250 50 9 9 20 0 3 0 8200 123456 25 18446744073709551615 0";
}

Process processOf(pid_t pid, pid_t parent) {
  Process process;
  process.pid = pid;
  process.parent = parent;
  return process;
}

std::vector<pid_t> pidsOf(const std::vector<const Process*>& processes) {
  std::vector<pid_t> pids;
  pids.reserve(processes.size());
  for (const Process* const process : processes) pids.push_back(process->pid);
  return pids;
}

TEST(ParseProcessTest, ReadsTheFieldsOfAStatFile) {
  const auto process = parseProcess(statLine("camera"));
  ASSERT_TRUE(process);
  EXPECT_EQ(process->pid, 42);
  EXPECT_EQ(process->name, "camera");
  EXPECT_EQ(process->state, 'S');
  EXPECT_EQ(process->parent, 7);
  EXPECT_EQ(process->cpuTicks, 300U);
  EXPECT_EQ(process->reapedTicks, 18U);
  EXPECT_EQ(process->threads, 3);
  EXPECT_EQ(process->startTicks, 8200U);
  EXPECT_EQ(process->residentBytes, 25 * ::sysconf(_SC_PAGESIZE));
  EXPECT_FALSE(process->isKernelThread);
}

TEST(ParseProcessTest, ANameCanContainParenthesesAndSpaces) {
  const auto process = parseProcess(statLine("a) R 1 (b"));
  ASSERT_TRUE(process);
  EXPECT_EQ(process->name, "a) R 1 (b");
  EXPECT_EQ(process->parent, 7);
}

TEST(ParseProcessTest, AFlagMarksKernelThreads) {
  const auto process = parseProcess(statLine("kworker/0:1", "69238880"));
  ASSERT_TRUE(process);
  EXPECT_TRUE(process->isKernelThread);
}

TEST(ParseProcessTest, ATruncatedLineIsNotAProcess) {
  const std::string line = statLine("camera");
  EXPECT_FALSE(parseProcess(""));
  EXPECT_FALSE(parseProcess("42 (camera"));
  EXPECT_FALSE(parseProcess(line.substr(0, line.find(" 25 "))));
}

TEST(NodeNameTest, TheVariableOfTheLauncherContainsTheNode) {
  EXPECT_EQ(nodeNameIn("A=1\0__VORN_NODE_NAME__=cam 1(vornlaunch)\0B=2\0"s),
            "cam 1");
}

TEST(NodeNameTest, AnotherVariableOrValueIsNotThatOfANode) {
  EXPECT_FALSE(nodeNameIn("X__VORN_NODE_NAME__=cam(vornlaunch)\0"s));
  EXPECT_FALSE(nodeNameIn("__VORN_NODE_NAME__=cam\0"s));
  EXPECT_FALSE(nodeNameIn(""));
}

TEST(ProcessTableTest, ATreeHasEachProcessAfterItsParent) {
  const ProcessTable table({processOf(9, 5), processOf(5, 2), processOf(2, 1),
                            processOf(7, 2), processOf(3, 1)});
  std::vector<std::pair<pid_t, size_t>> found;
  for (const auto& [process, depth] : table.treeOf(*table.find(2))) {
    found.emplace_back(process->pid, depth);
  }
  const std::vector<std::pair<pid_t, size_t>> expected = {
      {2, 0}, {5, 1}, {9, 2}, {7, 1}};
  EXPECT_EQ(found, expected);
}

TEST(ProcessTableTest, AncestorsEndAtAProcessThatIsNotVisible) {
  const ProcessTable table({processOf(9, 5), processOf(5, 2), processOf(2, 1)});
  EXPECT_EQ(pidsOf(table.ancestorsOf(*table.find(9))),
            (std::vector<pid_t>{5, 2}));
}

TEST(ProcessTableTest, ACircleOfReusedPidsEnds) {
  const ProcessTable table({processOf(2, 3), processOf(3, 2)});
  EXPECT_LE(table.ancestorsOf(*table.find(2)).size(), 2U);
  EXPECT_LE(table.treeOf(*table.find(2)).size(), 2U);
}

TEST(ProcessTableTest, ThisProcessIsInTheTable) {
  const ProcessTable table = ProcessTable::read();
  const Process* const self = table.find(::getpid());
  ASSERT_NE(self, nullptr);
  EXPECT_EQ(self->parent, ::getppid());
  EXPECT_EQ(self->startTicks, readProcess(::getpid())->startTicks);
}

TEST(CpuPercentTest, IsTheShareOfOneProcessor) {
  const auto ticks = static_cast<uint64_t>(::sysconf(_SC_CLK_TCK));
  EXPECT_DOUBLE_EQ(cpuPercent(ticks / 2, 1), 50);
  EXPECT_DOUBLE_EQ(cpuPercent(0, 0), 0);
}

}  // namespace
}  // namespace vorn::launch
