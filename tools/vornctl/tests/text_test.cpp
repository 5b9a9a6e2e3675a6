#include "output/text.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

TEST(UpperCaseTest, ChangesAsciiLettersOnly) {
  EXPECT_EQ(upperCase("az-09é"), "AZ-09é");
}

}  // namespace
}  // namespace vorn::launch
