#include "live/node_usage.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

constexpr double kStart = 1000;

struct stat fileOf(ino_t inode, time_t changed, nlink_t links = 1) {
  struct stat file {};
  file.st_dev = 1;
  file.st_ino = inode;
  file.st_nlink = links;
  file.st_ctim.tv_sec = changed;
  return file;
}

TEST(IsReplacedTest, TheSameFileIsNotAReplacement) {
  // Its links or permissions can have changed.
  const struct stat file = fileOf(7, 2000);
  EXPECT_FALSE(isReplaced(file, &file, kStart));
}

TEST(IsReplacedTest, ARemovedFileIsReplaced) {
  const struct stat file = fileOf(7, 900);
  EXPECT_TRUE(isReplaced(file, nullptr, kStart));
}

TEST(IsReplacedTest, AProgramWithoutALinkWasReplacedWhateverThePathNames) {
  const struct stat executed = fileOf(7, 900, 0);
  const struct stat named = fileOf(8, 900);
  EXPECT_TRUE(isReplaced(executed, &named, kStart));
}

TEST(IsReplacedTest, AnotherFileIsAReplacementIfItIsYoungerThanTheProcess) {
  const struct stat executed = fileOf(7, 900);
  const struct stat younger = fileOf(8, 1001);
  const struct stat older = fileOf(8, 999);  // a script
  EXPECT_TRUE(isReplaced(executed, &younger, kStart));
  EXPECT_FALSE(isReplaced(executed, &older, kStart));
}

TEST(IsReplacedTest, TheSameNumberOnAnotherFileSystemIsAnotherFile) {
  const struct stat executed = fileOf(7, 900);
  struct stat named = fileOf(7, 1001);
  named.st_dev = 2;
  EXPECT_TRUE(isReplaced(executed, &named, kStart));
}

}  // namespace
}  // namespace vorn::launch
