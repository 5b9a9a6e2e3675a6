#include "account.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vorn::run {
namespace {

using testing::ElementsAre;

constexpr char kPasswd[] =
    "root:x:0:0:root:/root:/bin/bash\n"
    "broken:x:5\n"
    "robot:x:1000:1000:Robot,,,:/home/robot:/bin/sh\n"
    "bad:x:-1:1:::\n";
constexpr char kGroups[] =
    "root:x:0:\n"
    "robot:x:1000:robot\n"
    "dialout:x:20:other,robot\n"
    "video:x:44:robots,robot\n"
    "audio:x:29:robots\n"
    "wrong:x:many:robot\n";

std::optional<Account> accountOf(const std::string& user,
                                 const std::string& group) {
  std::string error;
  return findAccount(user, group, kPasswd, kGroups, error);
}

std::string errorFor(const std::string& user, const std::string& group) {
  std::string error;
  EXPECT_FALSE(findAccount(user, group, kPasswd, kGroups, error));
  return error;
}

TEST(Account, AUserHasItsGroups) {
  const auto robot = accountOf("robot", "");
  ASSERT_TRUE(robot);
  EXPECT_EQ(robot->user, 1000U);
  EXPECT_EQ(robot->group, 1000U);
  EXPECT_THAT(robot->groups, ElementsAre(1000, 20, 44));
  EXPECT_EQ(robot->home, "/home/robot");
  EXPECT_EQ(robot->shell, "/bin/sh");
}

TEST(Account, AGivenGroupReplacesTheMainGroup) {
  EXPECT_THAT(accountOf("robot", "audio")->groups,
              ElementsAre(29, 1000, 20, 44));
  EXPECT_EQ(accountOf("robot", "7")->group, 7U);
}

TEST(Account, ANumberWithAnEntryIsThatUser) {
  EXPECT_EQ(accountOf("1000", "")->name, "robot");
}

TEST(Account, ANumberWithoutAnEntryNeedsAGroup) {
  EXPECT_EQ(errorFor("1234", ""),
            "/etc/passwd has no user 1234; add a group: 1234:GROUP");
  EXPECT_THAT(accountOf("1234", "video")->groups, ElementsAre(44));
}

TEST(Account, AnUnknownNameIsAnError) {
  EXPECT_EQ(errorFor("nobot", ""), "/etc/passwd has no user 'nobot'");
  EXPECT_EQ(errorFor("robot", "none"), "/etc/group has no group 'none'");
  EXPECT_EQ(errorFor("bad", ""), "/etc/passwd has no user 'bad'");
  EXPECT_EQ(errorFor("4294967295", "0"),
            "/etc/passwd has no user '4294967295'");
}

}  // namespace
}  // namespace vorn::run
