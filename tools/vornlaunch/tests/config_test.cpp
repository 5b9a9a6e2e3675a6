#include "config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::Pair;

static_assert(!std::is_copy_constructible_v<Config>);
static_assert(!std::is_default_constructible_v<Config>);

TEST(ConfigTest, TheInstanceIsCreatedWithoutVariables) {
  EXPECT_THAT(Config::getInstance().environment, IsEmpty());
}

TEST(ConfigTest, EveryCallReturnsTheSameInstance) {
  EXPECT_EQ(&Config::getInstance(), &Config::getInstance());
}

TEST(ConfigTest, KeepsVariablesInOrderWithRepeatedNamesAsRepeatedPairs) {
  Config::getInstance().environment.emplace_back("A", "1");
  Config::getInstance().environment.emplace_back("B", "2");
  Config::getInstance().environment.emplace_back("A", "3");
  EXPECT_THAT(Config::getInstance().environment,
              ElementsAre(Pair("A", "1"), Pair("B", "2"), Pair("A", "3")));
}

}  // namespace
}  // namespace vorn::launch
