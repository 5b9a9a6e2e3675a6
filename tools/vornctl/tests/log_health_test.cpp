#include "live/log_health.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>

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

TEST(LogHealthTest, AReaderUnderADebuggerIsSuspended) {
  LogFacts facts = logOf(LogKind::PIPE);
  facts.readers = {reader('S'), reader('t')};
  EXPECT_EQ(logFinding(facts).verdict, Verdict::ERROR);
}

TEST(LogHealthTest, AnotherDestinationHasNoKnownRisk) {
  EXPECT_EQ(logFinding(logOf(LogKind::SOCKET)).text,
            "the launcher writes its log to a socket");
  EXPECT_EQ(logFinding(logOf(LogKind::OTHER)).text,
            "the launcher writes its log to /var/log/launch.log");
  EXPECT_EQ(logFinding(logOf(LogKind::OTHER)).verdict, Verdict::PASSED);
}

/// Replaces the standard error of this process, which is examined like that of
/// a launcher.
class ExaminedLogTest : public ::testing::Test {
 public:
  ExaminedLogTest(const ExaminedLogTest&) = delete;
  ExaminedLogTest& operator=(const ExaminedLogTest&) = delete;

 protected:
  ExaminedLogTest() : own_(::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3)) {}
  ~ExaminedLogTest() override {
    (void)::dup2(own_, STDERR_FILENO);
    (void)::close(own_);
  }

  /// What is found if the standard error is `fd`, which is closed.
  static LogFacts factsOf(int fd) {
    (void)::dup2(fd, STDERR_FILENO);
    (void)::close(fd);
    return examineLog(::getpid(), ProcessTable::read());
  }

 private:
  const int own_;
};

TEST_F(ExaminedLogTest, AClosedStandardErrorIsNoLog) {
  (void)::close(STDERR_FILENO);
  EXPECT_EQ(examineLog(::getpid(), ProcessTable::read()).kind, LogKind::CLOSED);
}

TEST_F(ExaminedLogTest, ANumberThatAnotherDescriptorHasTakenIsNoLog) {
  EXPECT_EQ(factsOf(::epoll_create1(0)).kind, LogKind::CLOSED);
}

TEST_F(ExaminedLogTest, AFileMayBeDeleted) {
  std::string path = ::testing::TempDir() + "log_health.XXXXXX";
  const int file = ::mkstemp(path.data());
  (void)::unlink(path.c_str());
  const LogFacts facts = factsOf(file);
  EXPECT_EQ(facts.kind, LogKind::FILE);
  EXPECT_TRUE(facts.isDeleted);
  EXPECT_EQ(facts.target, path + " (deleted)");
}

TEST_F(ExaminedLogTest, ASocketThatNoVariableNamesIsNotTheJournal) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
  EXPECT_EQ(factsOf(ends[0]).kind, LogKind::SOCKET);
  (void)::close(ends[1]);
}

TEST_F(ExaminedLogTest, AnotherDeviceIsATerminal) {
  EXPECT_EQ(factsOf(::open("/dev/null", O_WRONLY)).kind, LogKind::NULL_DEVICE);
  EXPECT_EQ(factsOf(::open("/dev/zero", O_WRONLY)).kind, LogKind::TERMINAL);
}

TEST_F(ExaminedLogTest, ADirectoryIsNotAKnownKind) {
  EXPECT_EQ(factsOf(::open("/", O_PATH)).kind, LogKind::OTHER);
}

TEST_F(ExaminedLogTest, TheWriterOfAPipeIsNotItsReader) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const LogFacts facts = factsOf(ends[1]);
  EXPECT_EQ(facts.kind, LogKind::PIPE);
  EXPECT_TRUE(facts.readers.empty());  // the examined process does not count
  (void)::close(ends[0]);
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
  EXPECT_FALSE(parseJournalLimit({"RateLimitIntervalSec=0.5s\n"}).isOff());
  EXPECT_EQ(journalFinding(parseJournalLimit({"RateLimitBurst=0\n"}), "").text,
            "the journal accepts all lines");
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
