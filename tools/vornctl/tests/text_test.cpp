#include "output/text.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

TEST(UpperCaseTest, ChangesAsciiLettersOnly) {
  EXPECT_EQ(upperCase("az-09é"), "AZ-09é");
}

TEST(ShellArgumentTest, LeavesPlainNamesUnchanged) {
  EXPECT_EQ(shellArgument("camera-1.left_B/x:y@z"), "camera-1.left_B/x:y@z");
}

TEST(ShellArgumentTest, QuotesTextThatAShellWouldChange) {
  EXPECT_EQ(shellArgument(""), "''");
  EXPECT_EQ(shellArgument("a b"), "'a b'");
  EXPECT_EQ(shellArgument("$(touch x)"), "'$(touch x)'");
  EXPECT_EQ(shellArgument("~"), "'~'");
  EXPECT_EQ(shellArgument("it's"), "'it'\\''s'");
}

TEST(ShellArgumentTest, EndsTheOptionsBeforeALeadingDash) {
  EXPECT_EQ(shellArgument("--all"), "-- --all");
  EXPECT_EQ(shellArgument("-x y"), "-- '-x y'");
}

}  // namespace
}  // namespace vorn::launch
