#include "context/context.h"

#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

namespace vorn::launch {
namespace {

TEST(ContextTest, MessagesHaveTheirLevelInTheJournal) {
  testing::internal::CaptureStderr();
  struct stat status {};
  ASSERT_EQ(::fstat(STDERR_FILENO, &status), 0);
  const std::string stream =
      std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino);
  ASSERT_EQ(::setenv("JOURNAL_STREAM", stream.c_str(), 1), 0);
  const Context context{Settings()};
  context.printError("camera: no such node");
  context.printWarning("the launch file was changed");
  ASSERT_EQ(::unsetenv("JOURNAL_STREAM"), 0);
  EXPECT_EQ(testing::internal::GetCapturedStderr(),
            "<3>vornctl: camera: no such node\n"
            "<4>vornctl: the launch file was changed\n");
}

}  // namespace
}  // namespace vorn::launch
