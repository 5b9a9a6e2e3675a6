#include "live/launcher_process.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace vorn::launch {
namespace {

TEST(LauncherProcessTest, IsNamedIfItHasExitedSinceItWasIdentified) {
  const pid_t child = ::fork();
  if (child == 0) ::_exit(0);
  ASSERT_EQ(::waitpid(child, nullptr, 0), child);
  LauncherProcess launcher;
  launcher.pid = child;
  launcher.sharesPids = true;
  launcher.launchFile = "/tmp/launch.yaml";  // as it was before the exit
  launcher.root = "";
  std::string error;
  EXPECT_FALSE(readLaunchFile(launcher, "", error));
  EXPECT_EQ(error.rfind("cannot determine the launch file of process " +
                            std::to_string(child) + "; ",
                        0),
            0)
      << error;
}

}  // namespace
}  // namespace vorn::launch
