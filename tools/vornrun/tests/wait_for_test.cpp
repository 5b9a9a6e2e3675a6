#include "start/wait_for.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>

#include "start/wait_command.h"

namespace vorn::run {
namespace {

using Kind = Condition::Kind;

constexpr milliseconds kPatience{60'000};

class WaitForTest : public ::testing::Test {
 protected:
  /// The reason why the wait for this condition has failed; empty after it.
  std::string waitFor(Kind kind, const std::string& value) {
    settings_.waitFor = {{kind, value}};
    numbers_.clear();
    const auto error = waitForConditions(
        settings_, nullptr, environment_,
        [this](size_t number) { numbers_.push_back(number); });
    return error ? error->option + ": " + error->reason : "";
  }

  bool succeeds(const std::string& command, milliseconds limit = kPatience) {
    return commandSucceeds({"/bin/sh", "-c", command}, nullptr, environment_,
                           limit);
  }

  Environment environment_ = Environment::inherited();
  RunSettings settings_;
  std::vector<size_t> numbers_;
};

TEST_F(WaitForTest, AConditionThatHoldsEndsTheWait) {
  EXPECT_EQ(waitFor(Kind::PATH, "/proc"), "");
  EXPECT_EQ(waitFor(Kind::EXEC, "true"), "");
  EXPECT_EQ(numbers_, std::vector<size_t>{0});
}

TEST_F(WaitForTest, EachConditionIsCheckedAgainUntilItHolds) {
  std::string directory = ::testing::TempDir() + "wait_for.XXXXXX";
  ASSERT_NE(::mkdtemp(directory.data()), nullptr);
  EXPECT_EQ(waitFor(Kind::EXEC, "rmdir " + directory +
                                    "/x 2>/dev/null || "
                                    "{ mkdir " +
                                    directory + "/x; false; }"),
            "");
  ASSERT_EQ(::rmdir(directory.c_str()), 0);
}

TEST_F(WaitForTest, AConditionThatDoesNotHoldInTimeIsAnError) {
  settings_.waitTimeout = milliseconds(1);
  EXPECT_EQ(waitFor(Kind::PATH, "/proc/none"),
            "--wait-timeout: path:/proc/none does not hold in time");
  EXPECT_EQ(waitFor(Kind::UNIX, "/proc/none"),
            "--wait-timeout: unix:/proc/none does not hold in time");
  // curl(1) may be missing.
  EXPECT_NE(waitFor(Kind::HTTP, "http://127.0.0.1:1/"), "");
}

TEST_F(WaitForTest, AnAddressThatCannotExistIsAnError) {
  EXPECT_EQ(waitFor(Kind::TCP, "no.such.host:80"),
            "--wait-for: tcp:no.such.host:80: the host is neither an address "
            "nor in /etc/hosts");
  const std::string path(200, 'a');
  EXPECT_EQ(waitFor(Kind::UNIX, path),
            "--wait-for: unix:" + path + ": the path is too long for a socket");
}

TEST_F(WaitForTest, ACommandSucceedsIfItExitsWith0InTime) {
  EXPECT_TRUE(succeeds("true"));
  EXPECT_FALSE(succeeds("exit 3"));
  EXPECT_FALSE(succeeds("kill -9 $$"));
  EXPECT_FALSE(succeeds("sleep 1000", milliseconds(1)));
}

}  // namespace
}  // namespace vorn::run
