#include "live/socket_health.h"

#include <gtest/gtest.h>

#include <cerrno>

namespace vorn::launch {
namespace {

/// A socket as the launcher 42 of root creates it.
SocketFacts usualSocket() {
  SocketFacts facts;
  facts.path = "/tmp/vornlaunch/vornlaunch.sock";
  facts.isSocket = true;
  facts.mode = 0666;
  facts.directoryMode = 0755;
  facts.launcher = 42;
  return facts;
}

/// The verdict and a part of the text.
void expectFinding(const Finding& finding, Verdict verdict,
                   const std::string& part) {
  EXPECT_EQ(finding.verdict, verdict) << finding.text;
  EXPECT_NE(finding.text.find(part), std::string::npos) << finding.text;
  const bool is_problem =
      verdict == Verdict::ERROR || verdict == Verdict::WARNING;
  EXPECT_EQ(is_problem, !finding.remedy.empty()) << finding.text;
}

TEST(SocketHealthTest, TheSocketOfALauncherIsInOrder) {
  expectFinding(socketFinding(usualSocket()), Verdict::PASSED,
                "belongs to root");
}

TEST(SocketHealthTest, AMissingSocketIsAnErrorIfALauncherRuns) {
  SocketFacts facts = usualSocket();
  facts.error = ENOENT;
  expectFinding(socketFinding(facts), Verdict::ERROR, "although launcher 42");
  facts.launcher = 0;
  expectFinding(socketFinding(facts), Verdict::PASSED, "no launcher runs");
}

TEST(SocketHealthTest, AStaleSocketIsAnErrorIfALauncherRuns) {
  SocketFacts facts = usualSocket();
  facts.hasListener = false;
  expectFinding(socketFinding(facts), Verdict::ERROR, "stale");
  facts.launcher = 0;
  expectFinding(socketFinding(facts), Verdict::PASSED,
                "the next one replaces it");
}

TEST(SocketHealthTest, WithoutPermissionTheSocketIsUnknown) {
  SocketFacts facts = usualSocket();
  facts.error = EACCES;
  EXPECT_EQ(socketFinding(facts).verdict, Verdict::UNKNOWN);
}

TEST(SocketHealthTest, AnotherFileInItsPlaceIsAnError) {
  SocketFacts facts = usualSocket();
  facts.isSocket = false;
  expectFinding(socketFinding(facts), Verdict::ERROR, "not a socket");
}

TEST(SocketHealthTest, ASocketOfAnotherUserThanTheLauncherIsAnError) {
  SocketFacts facts = usualSocket();
  facts.owner = 1000;
  expectFinding(socketFinding(facts), Verdict::ERROR, "belongs to user 1000");
}

TEST(SocketHealthTest, AModeThatExcludesUsersIsAWarning) {
  SocketFacts facts = usualSocket();
  facts.mode = 0660;
  expectFinding(socketFinding(facts), Verdict::WARNING, "mode 0660");
}

TEST(SocketHealthTest, ADirectoryInWhichOthersCanReplaceTheSocketIsReported) {
  SocketFacts facts = usualSocket();
  facts.directoryMode = 01777;
  expectFinding(socketFinding(facts), Verdict::WARNING, "any user can replace");
  facts.directoryMode = 0755;
  facts.directoryOwner = 1000;
  expectFinding(socketFinding(facts), Verdict::ERROR, "user 1000");
  // A launcher of that user creates it.
  facts.owner = facts.launcherUid = 1000;
  EXPECT_EQ(socketFinding(facts).verdict, Verdict::PASSED);
}

TEST(SocketHealthTest, ARefusedRequestIsNotAnErrorWithoutALauncher) {
  expectFinding(answerFinding(Outcome::NO_LAUNCHER, "none", false),
                Verdict::UNKNOWN, "no launcher");
  expectFinding(answerFinding(Outcome::NO_LAUNCHER, "stale", true),
                Verdict::ERROR, "stale");
}

TEST(SocketHealthTest, EveryReplyToTheFirstRequestIsAnAnswer) {
  for (const Outcome outcome : {Outcome::DONE, Outcome::NOT_FOUND}) {
    expectFinding(answerFinding(outcome, "", true), Verdict::PASSED, "answers");
  }
  for (const Outcome outcome : {Outcome::UNTRUSTED, Outcome::NOT_SENT,
                                Outcome::UNKNOWN, Outcome::PROTOCOL_ERROR}) {
    expectFinding(answerFinding(outcome, "why", true), Verdict::ERROR, "why");
  }
}

}  // namespace
}  // namespace vorn::launch
