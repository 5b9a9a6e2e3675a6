#include "vornlib/time.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace vorn {
namespace {

TEST(TimeTest, SecondsBeyondTheir32BitsAreRefused) {
  EXPECT_THROW(normalizeSecNSec(4294967295U, 1'000'000'000U),
               std::runtime_error);
}

}  // namespace
}  // namespace vorn
