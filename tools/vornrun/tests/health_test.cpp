#include "monitor/health.h"

#include <gtest/gtest.h>

#include "monitor/clock.h"

namespace vorn::run {
namespace {

class HealthTest : public ::testing::Test {
 protected:
  Health health() { return {settings_, node_, state_}; }

  /// Lets the checks proceed, none of which waits for a descriptor.
  static void proceed(Health& health, int64_t now_ms) {
    PollSet polls;
    health.addPolls(polls);
    polls.wait(0);
    health.proceed(polls, now_ms);
  }

  static NotifyMessage message(std::string_view text) {
    return parseNotifyMessage(text);
  }

  RunSettings settings_;
  Environment environment_;
  MonitoredNode node_ = {"lamp", nullptr, environment_};
  NodeState state_;
};

TEST_F(HealthTest, ANodeRunsWhenItIsExecuted) {
  Health health = this->health();
  health.noteReady(1);  // is not expected
  EXPECT_FALSE(state_.isReady);
  health.noteExecuted(2);
  EXPECT_EQ(state_.phase, Phase::RUNNING);
  EXPECT_EQ(health.deadline(), kNever);
  EXPECT_FALSE(health.takeFailure());
}

TEST_F(HealthTest, ANodeIsReadyWhenItSaysSo) {
  settings_.ready = Condition{Condition::Kind::NOTIFY, ""};
  Health health = this->health();
  health.noteExecuted(1);
  EXPECT_EQ(state_.phase, Phase::STARTING);
  health.noteMessage(message("STATUS=loading"), 2);
  EXPECT_FALSE(state_.isReady);
  EXPECT_STREQ(state_.status, "loading");
  health.noteMessage(message("READY=1"), 3);
  health.noteMessage(message("READY=1"), 4);
  EXPECT_EQ(state_.phase, Phase::READY);
  EXPECT_EQ(state_.readyMs, 3);
  health.noteMessage(message("STOPPING=1"), 5);
  health.noteReady(6);
  EXPECT_FALSE(state_.isReady);
}

TEST_F(HealthTest, AMessageIsNotTheReadinessOfAnotherKind) {
  settings_.ready = Condition{Condition::Kind::FD, "3"};
  Health health = this->health();
  health.noteMessage(message("READY=1"), 1);
  EXPECT_FALSE(state_.isReady);
  // A fast program is ready before the monitor knows that it is executed.
  health.noteReady(2);
  health.noteExecuted(3);
  EXPECT_EQ(state_.phase, Phase::READY);
}

TEST_F(HealthTest, ASilentNodeFailsOnceAtTheEndOfThePeriod) {
  settings_.watchdog = milliseconds(100);
  Health health = this->health();
  EXPECT_EQ(health.deadline(), kNever);
  health.noteExecuted(1000);
  EXPECT_EQ(health.deadline(), 1100);
  health.noteMessage(message("WATCHDOG=1"), 1050);
  EXPECT_EQ(health.deadline(), 1150);
  proceed(health, 1149);
  EXPECT_FALSE(health.takeFailure());
  proceed(health, 1150);
  EXPECT_EQ(state_.phase, Phase::UNHEALTHY);
  EXPECT_EQ(health.takeFailure(), "--watchdog: no WATCHDOG=1 within 100ms");
  EXPECT_FALSE(health.takeFailure());
  EXPECT_EQ(health.deadline(), kNever);
}

TEST_F(HealthTest, TheWatchdogBeginsWithTheReadiness) {
  settings_.watchdog = milliseconds(100);
  settings_.ready = Condition{Condition::Kind::FD, "3"};
  Health health = this->health();
  health.noteExecuted(1000);
  EXPECT_EQ(health.deadline(), kNever);
  health.noteReady(2000);
  EXPECT_EQ(health.deadline(), 2100);
}

TEST_F(HealthTest, ANodeCanAskForItsEnd) {
  settings_.watchdog = milliseconds(100);
  Health health = this->health();
  health.noteMessage(message("WATCHDOG=trigger"), 1);
  EXPECT_FALSE(health.takeFailure());  // not executed yet
  health.noteExecuted(2);
  health.noteMessage(message("WATCHDOG=trigger"), 3);
  EXPECT_EQ(health.takeFailure(), "--watchdog: WATCHDOG=trigger");
  // After a failure, readiness does not make the node healthy.
  health.noteReady(4);
  EXPECT_EQ(state_.phase, Phase::UNHEALTHY);
}

TEST_F(HealthTest, WithoutAWatchdogNoMessageIsAFailure) {
  Health health = this->health();
  health.noteExecuted(1);
  health.noteMessage(message("WATCHDOG=trigger"), 2);
  EXPECT_FALSE(health.takeFailure());
}

TEST_F(HealthTest, AConditionIsCheckedUntilTheNodeIsReady) {
  settings_.ready = Condition{Condition::Kind::PATH, "/proc/none"};
  Health health = this->health();
  proceed(health, 1000);
  EXPECT_EQ(health.deadline(), kNever);
  health.noteExecuted(1000);
  proceed(health, 1000);
  EXPECT_EQ(health.deadline(), 0);  // there is a result
  proceed(health, 1000);
  EXPECT_FALSE(state_.isReady);
  EXPECT_EQ(health.deadline(), 1200);
  settings_.ready->value = "/proc";
  proceed(health, 1200);
  proceed(health, 1200);
  EXPECT_TRUE(state_.isReady);
  EXPECT_EQ(health.deadline(), kNever);
  health.stop();
}

TEST_F(HealthTest, FailedProbesInARowAreAFailure) {
  settings_.probe = Condition{Condition::Kind::PATH, "/proc/none"};
  settings_.probeDelay = milliseconds(50);
  settings_.probePeriod = milliseconds(10);
  settings_.probeFailures = 2;
  Health health = this->health();
  proceed(health, 1000);
  EXPECT_EQ(health.deadline(), kNever);
  health.noteExecuted(1000);
  proceed(health, 1000);
  EXPECT_EQ(health.deadline(), 1050);
  proceed(health, 1050);
  proceed(health, 1055);
  EXPECT_TRUE(state_.hasProbeResult);
  EXPECT_FALSE(state_.isProbeOk);
  EXPECT_EQ(health.deadline(), 1060);
  settings_.probe->value = "/proc";
  proceed(health, 1060);
  proceed(health, 1065);
  EXPECT_TRUE(state_.isProbeOk);
  settings_.probe->value = "/proc/none";
  for (const int64_t now : {1070, 1080, 1090}) proceed(health, now);
  EXPECT_EQ(health.takeFailure(),
            "--probe: 2 failures in a row: No such file or directory");
  EXPECT_EQ(state_.phase, Phase::UNHEALTHY);
  proceed(health, 1100);
  EXPECT_EQ(health.deadline(), kNever);
  health.stop();
}

TEST_F(HealthTest, AnImpatientProbeFailsAtOnce) {
  settings_.probe = Condition{Condition::Kind::PATH, "/proc/none"};
  settings_.probeFailures = 1;
  Health health = this->health();
  health.noteExecuted(1);
  proceed(health, 1);
  proceed(health, 2);
  EXPECT_EQ(health.takeFailure(),
            "--probe: 1 failure: No such file or directory");
}

}  // namespace
}  // namespace vorn::run
