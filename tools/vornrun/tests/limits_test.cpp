#include "process/limits.h"

#include <gtest/gtest.h>
#include <sched.h>

namespace vorn::run {
namespace {

std::string failureOf(const RunSettings& settings) {
  const auto error = applyLimits(settings);
  return error ? error->option + ": " + error->reason : "";
}

// Values that the kernel refuses for every user.

TEST(LimitsTest, ARefusedValueIsAnError) {
  RunSettings settings;
  EXPECT_EQ(failureOf(settings), "");
  settings.limits = {{RLIMIT_CORE, 2, 1}, {RLIMIT_NOFILE, 2, 1}};
  EXPECT_EQ(failureOf(settings), "--limit: cannot set core: Invalid argument");
  settings.cpus = {CPU_SETSIZE - 1};
  EXPECT_EQ(failureOf(settings),
            "--cpu-list: this machine has none of these processors");
  settings.scheduling = Scheduling{99, 0};
  EXPECT_EQ(failureOf(settings),
            "--sched: cannot set the policy: Invalid argument");
  settings.ioPriority = IoPriority{7, 0};
  EXPECT_EQ(failureOf(settings),
            "--ionice: cannot set the I/O priority: Invalid argument");
  settings.oomScoreAdjust = 5000;
  EXPECT_EQ(failureOf(settings),
            "--oom-score-adj: cannot set 5000: Invalid argument");
}

}  // namespace
}  // namespace vorn::run
