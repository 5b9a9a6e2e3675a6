#include "live/launcher_health.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

ActivityFacts idleLauncher() {
  ActivityFacts facts;
  facts.pid = 42;
  facts.hasAnswered = true;
  return facts;
}

// -- Number.

TEST(LauncherHealthTest, OneLauncherIsInOrder) {
  EXPECT_EQ(launchersFinding({42}, 42).text, "launcher 42 runs");
  // /proc can hide the processes of other users.
  EXPECT_EQ(launchersFinding({}, 42).verdict, Verdict::PASSED);
}

TEST(LauncherHealthTest, NoLauncherIsAnError) {
  EXPECT_EQ(launchersFinding({}, 0).verdict, Verdict::ERROR);
}

TEST(LauncherHealthTest, TheRemedyForSeveralLaunchersKeepsTheOneThatAnswers) {
  const Finding finding = launchersFinding({42, 57, 99}, 57);
  EXPECT_EQ(finding.verdict, Verdict::ERROR);
  EXPECT_EQ(finding.text,
            "launchers 42, 57 and 99 run; only 57 can be controlled");
  EXPECT_EQ(finding.remedy,
            "terminate the other, which stops its nodes, with: kill 42 99");
  EXPECT_EQ(launchersFinding({42, 57}, 0).remedy,
            "terminate all but one with 'kill PID'");
}

// -- Activity.

TEST(LauncherHealthTest, AnIdleLauncherIsInOrder) {
  EXPECT_EQ(activityFinding(idleLauncher()).text,
            "launcher 42 uses 0 % of a processor");
}

TEST(LauncherHealthTest, ASuspendedLauncherIsAnError) {
  ActivityFacts facts = idleLauncher();
  for (const char state : {'T', 't'}) {
    facts.state = state;
    EXPECT_EQ(activityFinding(facts).verdict, Verdict::ERROR);
    EXPECT_EQ(activityFinding(facts).remedy, "kill -CONT 42");
  }
}

TEST(LauncherHealthTest, AZombieIsAnError) {
  ActivityFacts facts = idleLauncher();
  facts.state = 'Z';
  EXPECT_EQ(activityFinding(facts).text, "launcher 42 has exited");
}

TEST(LauncherHealthTest, ALauncherThatNeverSleepsIsAWarning) {
  ActivityFacts facts = idleLauncher();
  facts.cpuPercent = 97.6;
  EXPECT_EQ(activityFinding(facts).verdict, Verdict::PASSED);
  facts.isAlwaysRunning = true;
  const Finding finding = activityFinding(facts);
  EXPECT_EQ(finding.verdict, Verdict::WARNING);
  EXPECT_EQ(finding.text, "launcher 42 never sleeps (98 % of a processor)");
}

TEST(LauncherHealthTest, ABusyProcessOneThatDoesNotAnswerCouldNotAbort) {
  ActivityFacts facts = idleLauncher();
  facts.isAlwaysRunning = true;
  facts.isFirstProcess = true;
  EXPECT_EQ(activityFinding(facts).verdict, Verdict::WARNING);
  facts.hasAnswered = false;
  EXPECT_EQ(activityFinding(facts).verdict, Verdict::ERROR);
}

// -- Programs of a stop.

TEST(LauncherHealthTest, AMissingToolIsAnError) {
  const Finding finding =
      toolsFinding({"/opt/bin", {"ps", "grep", "/bin/sh"}, false});
  EXPECT_EQ(finding.verdict, Verdict::ERROR);
  EXPECT_NE(finding.text.find("cannot find ps, grep and /bin/sh"),
            std::string::npos);
  EXPECT_NE(finding.text.find("'/opt/bin'"), std::string::npos);
}

TEST(LauncherHealthTest, ThePsOfBusyboxIsAnError) {
  EXPECT_EQ(toolsFinding({"/bin", {}, true}).verdict, Verdict::ERROR);
  EXPECT_EQ(toolsFinding({"/bin", {}, false}).verdict, Verdict::PASSED);
}

// -- Pids.

TEST(LauncherHealthTest, PidsWithoutCommonDigitsAreInOrder) {
  EXPECT_EQ(pidsFinding({false, {{70, "a"}, {89, "b"}}, {65}}).verdict,
            Verdict::PASSED);
}

TEST(LauncherHealthTest, APidInThatOfAZombieIsAnError) {
  const Finding finding = pidsFinding({false, {{70, "camera"}}, {1702}});
  EXPECT_EQ(finding.verdict, Verdict::ERROR);
  EXPECT_EQ(finding.text,
            "pid 70 of camera is a part of the pid of the zombie 1702: a stop "
            "kills the node at once");
}

TEST(LauncherHealthTest, APidInThatOfAnotherNodeIsAWarning) {
  const Finding finding =
      pidsFinding({false, {{70, "camera"}, {1702, "lidar"}}, {}});
  EXPECT_EQ(finding.verdict, Verdict::WARNING);
  EXPECT_NE(finding.text.find("pid 70 of camera"), std::string::npos);
}

TEST(LauncherHealthTest, LowPidsInAContainerAreAWarning) {
  EXPECT_EQ(pidsFinding({true, {{9999, "camera"}}, {}}).verdict,
            Verdict::WARNING);
  EXPECT_EQ(pidsFinding({true, {{10000, "camera"}}, {}}).verdict,
            Verdict::PASSED);
  EXPECT_EQ(pidsFinding({false, {{9999, "camera"}}, {}}).verdict,
            Verdict::PASSED);
}

// -- Launch file.

TEST(LauncherHealthTest, AChangedLaunchFileIsAWarning) {
  LauncherProcess launcher;
  launcher.launchFile = "/etc/launch file.yaml";
  EXPECT_EQ(launchFileFinding(launcher, "", true).verdict, Verdict::PASSED);
  launcher.hasChanged = true;
  const Finding finding = launchFileFinding(launcher, "", true);
  EXPECT_EQ(finding.verdict, Verdict::WARNING);
  EXPECT_EQ(finding.remedy,
            "vornctl check '/etc/launch file.yaml', then restart the launcher");
}

TEST(LauncherHealthTest, AnUnreadableLaunchFileIsUnknownWithoutPermission) {
  const std::string error = "cannot read x: why; name it with --launch-file";
  const Finding finding = launchFileFinding({}, error, true);
  EXPECT_EQ(finding.verdict, Verdict::ERROR);
  EXPECT_EQ(finding.text, "cannot read x: why");
  EXPECT_EQ(launchFileFinding({}, error, false).verdict, Verdict::UNKNOWN);
}

}  // namespace
}  // namespace vorn::launch
