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

}  // namespace
}  // namespace vorn::launch
