#include "process/parent_death.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "vorn/launch_rules.h"

namespace vorn::run {
namespace {

TEST(ParentDeathTest, TheSignalIsSetForTheParentAtTheStart) {
  EXPECT_FALSE(setParentDeathSignal(SIGUSR2, ::getppid()));
  int signal = 0;
  ASSERT_EQ(::prctl(PR_GET_PDEATHSIG, &signal), 0);
  EXPECT_EQ(signal, SIGUSR2);
  EXPECT_EQ(setParentDeathSignal(SIGUSR2, ::getpid())->reason,
            "the launcher has exited");
  EXPECT_EQ(setParentDeathSignal(1000, ::getppid())->reason,
            "cannot set the signal: Invalid argument");
  ASSERT_EQ(::prctl(PR_SET_PDEATHSIG, 0), 0);
}

TEST(ParentDeathTest, OnlyANodeThatProcess1HasAdoptedHasLostItsLauncher) {
  Environment environment;
  EXPECT_FALSE(lostLauncher(1, environment));
  environment.set(launch::kNodeNameVariable, "camera");
  EXPECT_FALSE(lostLauncher(2, environment));
  // Process 1 of the machine of the test is not a launcher.
  EXPECT_TRUE(lostLauncher(1, environment));
}

}  // namespace
}  // namespace vorn::run
