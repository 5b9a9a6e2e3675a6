#include "check/foreign_keys.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

using ::testing::HasSubstr;
using ::testing::IsNull;

TEST(ForeignKeysTest, AKeyIsTheSameInEveryStyleOfWriting) {
  EXPECT_EQ(normalizedKey("WorkingDirectory"), "workingdirectory");
  EXPECT_EQ(normalizedKey("working_directory"), "workingdirectory");
  EXPECT_EQ(normalizedKey("working-directory"), "workingdirectory");
}

TEST(ForeignKeysTest, AKeyHasTheAdviceForItsPurpose) {
  EXPECT_THAT(adviceForNodeKey("exec"), HasSubstr("'path'"));
  EXPECT_THAT(adviceForNodeKey("user"), HasSubstr("--user"));
  EXPECT_THAT(adviceForNodeKey("stoptimeout"), HasSubstr("SIGKILL"));
  EXPECT_THAT(adviceForRootKey("services"), HasSubstr("'vornnode'"));
}

TEST(ForeignKeysTest, OtherKeysHaveNoAdvice) {
  EXPECT_THAT(adviceForNodeKey(""), IsNull());
  EXPECT_THAT(adviceForNodeKey("exe"), IsNull());
  EXPECT_THAT(adviceForNodeKey("command cmd"), IsNull());
  EXPECT_THAT(adviceForNodeKey("path"), IsNull());
  EXPECT_THAT(adviceForRootKey("vornnode"), IsNull());
}

}  // namespace
}  // namespace vorn::launch
