#include "monitor/condition_check.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <unistd.h>

#include <cstring>

#include "monitor/clock.h"

namespace vorn::run {
namespace {

constexpr int64_t kPatienceMs = 30000;

class ConditionCheckTest : public ::testing::Test {
 protected:
  CheckResult check(Condition::Kind kind, const std::string& value,
                    int64_t timeout_ms = kPatienceMs) {
    const Condition condition = {kind, value};
    ConditionCheck check(condition, node_, directory_);
    CheckResult result = attempt(check, timeout_ms);
    check.stop();
    return result;
  }

  static CheckResult attempt(ConditionCheck& check, int64_t timeout_ms) {
    check.begin(monotonicMs(), timeout_ms);
    for (;;) {
      const int64_t now = monotonicMs();
      PollSet polls;
      check.addPolls(polls);
      if (check.deadline() > now)
        polls.wait(static_cast<int>(check.deadline() - now));
      if (auto result = check.proceed(polls, monotonicMs())) return *result;
    }
  }

  Environment environment_ = Environment::inherited();
  MonitoredNode node_ = {"lamp", nullptr, environment_};
  std::string directory_;
};

TEST_F(ConditionCheckTest, APathExistsOrNot) {
  EXPECT_TRUE(check(Condition::Kind::PATH, "/proc").isOk);
  const CheckResult missing = check(Condition::Kind::PATH, "/proc/none");
  EXPECT_FALSE(missing.isOk);
  EXPECT_EQ(missing.message, "No such file or directory");
}

TEST_F(ConditionCheckTest, TheExitStatusOfACommandDecides) {
  EXPECT_TRUE(check(Condition::Kind::EXEC, "true").isOk);
  EXPECT_EQ(check(Condition::Kind::EXEC, "exit 3").message, "exit status 3");
  EXPECT_EQ(
      check(Condition::Kind::EXEC, "echo too hot; echo more; exit 1").message,
      "too hot");
  EXPECT_EQ(check(Condition::Kind::EXEC, "kill -9 $$").message, "signal 9");
}

TEST_F(ConditionCheckTest, ACommandHasTheEnvironmentAndDirectoryOfTheNode) {
  environment_.set("COLOUR", "red");
  directory_ = "/proc";
  EXPECT_EQ(check(Condition::Kind::EXEC, "echo $COLOUR $PWD; exit 1").message,
            "red /proc");
}

TEST_F(ConditionCheckTest, ACommandThatCannotBeStartedFails) {
  directory_ = "/proc/none";
  EXPECT_EQ(check(Condition::Kind::EXEC, "true").message, "exit status 125");
}

TEST_F(ConditionCheckTest, ARequestFailsWithoutAServer) {
  EXPECT_FALSE(check(Condition::Kind::HTTP, "http://127.0.0.1:1/").isOk);
}

TEST_F(ConditionCheckTest, AConditionThatCannotHoldHasAReason) {
  EXPECT_EQ(check(Condition::Kind::UNIX, "/proc/none").message,
            "No such file or directory");
  EXPECT_EQ(check(Condition::Kind::UNIX, std::string(200, 'a')).message,
            "Cannot assign requested address");
  EXPECT_EQ(check(Condition::Kind::NOTIFY, "").message, "cannot be checked");
}

TEST_F(ConditionCheckTest, MuchOutputDoesNotStopACommand) {
  EXPECT_TRUE(check(Condition::Kind::EXEC, "head -c 1000000 /dev/zero").isOk);
}

TEST_F(ConditionCheckTest, TheMessageHasAtMost200BytesOfTheOutput) {
  const CheckResult result = check(
      Condition::Kind::EXEC, "head -c 9000 /dev/zero | tr '\\0' x; exit 1");
  EXPECT_EQ(result.message, std::string(200, 'x'));
}

TEST_F(ConditionCheckTest, ASlowCommandIsKilled) {
  EXPECT_EQ(check(Condition::Kind::EXEC, "sleep 1000", 10).message,
            "no result within 10ms");
}

TEST_F(ConditionCheckTest, AFileMustChangeBetweenTwoChecks) {
  EXPECT_EQ(check(Condition::Kind::FILE, "/proc/none").message,
            "No such file or directory");
  std::string name = ::testing::TempDir() + "condition_check.XXXXXX";
  const int fd = ::mkstemp(name.data());
  const Condition condition = {Condition::Kind::FILE, name};
  ConditionCheck check(condition, node_, directory_);
  EXPECT_TRUE(attempt(check, kPatienceMs).isOk);
  EXPECT_FALSE(attempt(check, kPatienceMs).isOk);
  const timespec times[2] = {{1, 0}, {1, 0}};
  ASSERT_EQ(::futimens(fd, times), 0);
  EXPECT_TRUE(attempt(check, kPatienceMs).isOk);
  (void)::close(fd);
  (void)::unlink(name.c_str());
}

TEST_F(ConditionCheckTest, AConnectionIsAcceptedOrNot) {
  const int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  ASSERT_EQ(::bind(listener, generic, size), 0);
  ASSERT_EQ(::getsockname(listener, generic, &size), 0);
  const std::string name =
      "localhost:" + std::to_string(ntohs(address.sin_port));
  EXPECT_EQ(check(Condition::Kind::TCP, name).message, "Connection refused");
  ASSERT_EQ(::listen(listener, 1), 0);
  EXPECT_TRUE(check(Condition::Kind::TCP, name).isOk);
  (void)::close(listener);
}

}  // namespace
}  // namespace vorn::run
