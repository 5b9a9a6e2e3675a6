#include "live/log_health.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

using LogKind = LogFacts::Kind;

LogFacts logOf(LogKind kind) {
  LogFacts facts;
  facts.kind = kind;
  facts.target = "/var/log/launch.log";
  return facts;
}

Process reader(char state) {
  Process process;
  process.pid = 99;
  process.state = state;
  process.name = "tee";
  return process;
}

TEST(LogHealthTest, TheVerdictDependsOnTheDestination) {
  EXPECT_EQ(logFinding(logOf(LogKind::FILE)).verdict, Verdict::PASSED);
  EXPECT_EQ(logFinding(logOf(LogKind::JOURNAL)).verdict, Verdict::PASSED);
  EXPECT_EQ(logFinding(logOf(LogKind::CLOSED)).verdict, Verdict::WARNING);
  EXPECT_EQ(logFinding(logOf(LogKind::NULL_DEVICE)).verdict, Verdict::WARNING);
  EXPECT_EQ(logFinding(logOf(LogKind::TERMINAL)).verdict, Verdict::WARNING);
  EXPECT_EQ(logFinding(logOf(LogKind::NO_PERMISSION)).verdict,
            Verdict::UNKNOWN);
}

TEST(LogHealthTest, ADeletedLogIsAWarning) {
  LogFacts facts = logOf(LogKind::FILE);
  facts.isDeleted = true;
  EXPECT_EQ(logFinding(facts).verdict, Verdict::WARNING);
}

TEST(LogHealthTest, AFullDiskIsAnError) {
  LogFacts facts = logOf(LogKind::FILE);
  facts.isDiskFull = true;
  EXPECT_EQ(logFinding(facts).verdict, Verdict::ERROR);
}

TEST(LogHealthTest, APipeWithoutAReaderIsAnErrorIfAllProcessesAreKnown) {
  LogFacts facts = logOf(LogKind::PIPE);
  EXPECT_EQ(logFinding(facts).verdict, Verdict::UNKNOWN);
  facts.areReadersKnown = true;
  EXPECT_EQ(logFinding(facts).verdict, Verdict::ERROR);
  facts.readers = {reader('S')};
  EXPECT_EQ(logFinding(facts).text,
            "process 99 (tee) reads the log from a pipe");
}

TEST(LogHealthTest, ASuspendedReaderIsAnError) {
  for (const LogKind kind : {LogKind::PIPE, LogKind::JOURNAL}) {
    LogFacts facts = logOf(kind);
    facts.readers = {reader('T')};
    EXPECT_EQ(logFinding(facts).verdict, Verdict::ERROR);
    EXPECT_EQ(logFinding(facts).remedy, "kill -CONT 99");
  }
}

TEST(LogHealthTest, LaterFilesOverrideTheLimitOfTheJournal) {
  const JournalLimit limit = parseJournalLimit(
      {"[Journal]\n#RateLimitBurst=1\nRateLimitIntervalSec=10s\n",
       "RateLimitIntervalSec = 1min\nRateLimitBurst=500\n"});
  EXPECT_EQ(limit.interval, "1min");
  EXPECT_EQ(limit.burst, "500");
  EXPECT_FALSE(limit.isOff());
}

TEST(LogHealthTest, AnEmptyValueIsTheDefaultLimitOfTheJournal) {
  const JournalLimit limit =
      parseJournalLimit({"RateLimitBurst=1\n", "RateLimitBurst=\n"});
  EXPECT_EQ(limit.interval, "30s");
  EXPECT_EQ(limit.burst, "10000");
}

TEST(LogHealthTest, ZeroTurnsTheLimitOfTheJournalOff) {
  EXPECT_TRUE(parseJournalLimit({"RateLimitIntervalSec=0\n"}).isOff());
  EXPECT_TRUE(parseJournalLimit({"RateLimitBurst=0\n"}).isOff());
}

TEST(LogHealthTest, SuppressedLinesAreAWarning) {
  const std::string message = "Suppressed 12 messages from vornlaunch.service";
  const Finding finding = journalFinding({}, message);
  EXPECT_EQ(finding.verdict, Verdict::WARNING);
  EXPECT_NE(finding.text.find(message), std::string::npos);
  EXPECT_EQ(journalFinding({}, "").text,
            "the journal accepts 10000 lines per 30s from the launcher and its "
            "nodes together");
}

}  // namespace
}  // namespace vorn::launch
