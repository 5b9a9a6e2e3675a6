#include "process/node_name.h"

#include <gtest/gtest.h>
#include <stdlib.h>

namespace vorn::run {
namespace {

RunSettings settingsOf(const std::string& program) {
  RunSettings settings;
  settings.program = {program};
  return settings;
}

TEST(NodeName, TheVariableOfTheLauncherNamesTheNode) {
  ASSERT_EQ(::setenv("__VORN_NODE_NAME__", "camera(vornlaunch)", 1), 0);
  EXPECT_EQ(nodeName(settingsOf("/opt/x")), "camera");
}

TEST(NodeName, WithoutTheVariableTheProgramNamesTheNode) {
  ASSERT_EQ(::unsetenv("__VORN_NODE_NAME__"), 0);
  EXPECT_EQ(nodeName(settingsOf("/opt/x")), "x");
  EXPECT_EQ(nodeName(settingsOf("x")), "x");
  EXPECT_EQ(nodeName(RunSettings()), "?");
}

}  // namespace
}  // namespace vorn::run
