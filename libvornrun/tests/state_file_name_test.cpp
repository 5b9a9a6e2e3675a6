#include "state_file_name.h"

#include <gtest/gtest.h>

namespace vorn::run {
namespace {

TEST(StateFileNameTest, ANameDoesNotLeaveItsDirectory) {
  EXPECT_EQ(fileNameOf("a.B_c-9"), "a.B_c-9");
  EXPECT_EQ(fileNameOf("[{"), "%5B%7B");
  EXPECT_EQ(fileNameOf("../x"), "%2E.%2Fx");
  EXPECT_EQ(fileNameOf("a b%\xc3"), "a%20b%25%C3");
}

}  // namespace
}  // namespace vorn::run
