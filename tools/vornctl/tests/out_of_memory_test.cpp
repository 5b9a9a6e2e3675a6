#include "live/out_of_memory.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

TEST(OutOfMemoryTest, TheKernelNamesTheProcess) {
  const std::string log =
      "6,1,2,-;usb 1-1: new device\n"
      "3,9,9,-;Out of memory: Killed process 42 (planner) total-vm:1kB\n"
      "3,9,9,-;Memory cgroup out of memory: Killed process 43 (camera) x\n";
  EXPECT_TRUE(namesMemoryKill(log, 42));
  EXPECT_TRUE(namesMemoryKill(log, 43));
  EXPECT_FALSE(namesMemoryKill(log, 4));
  EXPECT_FALSE(namesMemoryKill("Killed process 42 ", 42));
}

TEST(OutOfMemoryTest, TheControlGroupIsThatOfVersion2) {
  EXPECT_EQ(controlGroupIn("4:memory:/a\n10::/b\n0::/system.slice/c\n"),
            "/system.slice/c");
  EXPECT_EQ(controlGroupIn("4:memory:/a\n"), std::nullopt);
}

TEST(OutOfMemoryTest, TheKillsOfAControlGroupAreCounted) {
  EXPECT_EQ(memoryKillsIn("low 0\noom 5\noom_kill 3\noom_group_kill 4\n"), 3);
  EXPECT_EQ(memoryKillsIn("low 0\n"), std::nullopt);
}

}  // namespace
}  // namespace vorn::launch
