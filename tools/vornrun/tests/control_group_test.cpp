#include "process/control_group.h"

#include <gtest/gtest.h>

namespace vorn::run {
namespace {

TEST(ControlGroup, TheLastMountOfVersion2IsFound) {
  EXPECT_EQ(controlGroupMount("24 1 0:22 / /sys/fs/cgroup ro - tmpfs tmpfs ro\n"
                              "25 24 0:23 / /hidden rw - cgroup2 cgroup2 rw\n"
                              "26 24 0:23 / /sys/fs/cgroup/unified rw,nosuid "
                              "shared:4 - cgroup2 cgroup2 rw\n"
                              "27 24 0:24 / /tmp rw - tmpfs tmpfs rw\n"),
            "/sys/fs/cgroup/unified");
  EXPECT_EQ(controlGroupMount("25 24 0:23 / /c rw - cgroup2 cgroup2 rw\n"),
            "/c");
  EXPECT_EQ(controlGroupMount("24 1 0:22 / /sys rw - cgroup cgroup rw\n"), "");
}

TEST(ControlGroup, ThePathOfVersion2IsFound) {
  EXPECT_EQ(controlGroupPath("5:cpu:/x\n0::/system.slice/v.service\n"),
            "/system.slice/v.service");
  EXPECT_EQ(controlGroupPath("0::/\n"), "/");
  EXPECT_EQ(controlGroupPath("10::/x\n"), "");
}

}  // namespace
}  // namespace vorn::run
