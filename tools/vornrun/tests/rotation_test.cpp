#include "monitor/rotation.h"

#include <gtest/gtest.h>

#include <string>

namespace vorn::run {
namespace {

TEST(RotatedNameTest, IsANumberAndAUtcTime) {
  EXPECT_EQ(rotatedName(12, 1795345130), "00000012-20261122T105850Z.log");
  EXPECT_EQ(rotatedName(1234567890, 0), "1234567890-19700101T000000Z.log");
}

TEST(RotatedNameTest, IsParsed) {
  const auto plain = parseRotatedName(rotatedName(12, 1795345130));
  ASSERT_TRUE(plain);
  EXPECT_EQ(plain->number, 12U);
  EXPECT_FALSE(plain->isCompressed);
  const auto compressed = parseRotatedName("00000013-20261122T105850Z.log.gz");
  ASSERT_TRUE(compressed);
  EXPECT_EQ(compressed->number, 13U);
  EXPECT_TRUE(compressed->isCompressed);
}

TEST(RotatedNameTest, OtherFilesAreNotOurs) {
  for (const char* name :
       {"current", "00000012.log", "12-20261122T105850Z.log",
        "00000012-20261122T105850Z", "0000001x-20261122T105850Z.log",
        "00000012-20261122T10585xZ.log", "00000012-20261122T105850Z.log.xz",
        "00000012-20261122T105850Z.log.gz.gz",
        "0000000000000000012-20261122T105850Z.log", "", ".log"})
    EXPECT_FALSE(parseRotatedName(name)) << name;
}

TEST(RotationTest, TextThatFitsIsWrittenWhole) {
  EXPECT_EQ(bytesBeforeRotation("one\ntwo", 7, true), 7U);
  EXPECT_EQ(bytesBeforeRotation("", 0, true), 0U);
}

TEST(RotationTest, AFileEndsWithTheLastLineThatFits) {
  EXPECT_EQ(bytesBeforeRotation("one\ntwo\n", 7, false), 4U);
  EXPECT_EQ(bytesBeforeRotation("one\ntwo\n", 4, true), 4U);
}

TEST(RotationTest, ALineThatDoesNotFitIsTheFirstOfTheNextFile) {
  EXPECT_EQ(bytesBeforeRotation("one\ntwo\n", 3, true), 0U);
  EXPECT_EQ(bytesBeforeRotation("one", 0, true), 0U);
}

TEST(RotationTest, ALineLargerThanAFileIsCut) {
  EXPECT_EQ(bytesBeforeRotation("longer than a file", 6, false), 6U);
}

}  // namespace
}  // namespace vorn::run
