#include "vornlib/trace.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <new>
#include <regex>
#include <string>
#include <utility>
#include <vector>

#include "support/case_name.h"
#include "support/library_calls.h"
#include "support/log_capture.h"
#include "support/standard_error.h"

// The log determines the kind of standard error and the process's name once per
// process; CTest runs each test in its own.

namespace vorn {
namespace {

using test::logLine;
using test::StandardErrorTo;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::SizeIs;
using ::testing::StartsWith;

// The part of a line of write() before the text, without the time stamp.
constexpr const char* kHead = "INFO  ?[";

/// One line with this text and the place "a.cpp:1 f".
void logText(const std::string& text, int level = kInfo) {
  vtrace(level, "a.cpp", 1, "f", kPlain, "%s", text.c_str());
}

/// The text of the only captured line.
std::string onlyText(const test::LogCapture& log) {
  const auto lines = log.lines();
  return lines.size() == 1 ? lines.front().text : "not one line";
}

int64_t nowMicroseconds() {
  timespec now{};
  (void)::clock_gettime(CLOCK_REALTIME, &now);
  return now.tv_sec * int64_t{1'000'000} + now.tv_nsec / 1000;
}

/// A time stamp such as 2026-11-20T12:34:56.789012Z as microseconds since 1970.
int64_t microsecondsOf(const std::string& stamp) {
  tm utc{};
  const char* const rest = ::strptime(stamp.c_str(), "%Y-%m-%dT%H:%M:%S", &utc);
  if (rest == nullptr) return -1;
  return ::timegm(&utc) * int64_t{1'000'000} +
         std::strtol(rest + 1, nullptr, 10);
}

/// Everything that `fd` delivers until its end.
std::string readToEnd(int fd) {
  std::string all;
  std::array<char, 4096> part{};
  for (ssize_t got = 0; (got = ::read(fd, part.data(), part.size())) > 0;) {
    all.append(part.data(), static_cast<size_t>(got));
  }
  return all;
}

// --- The line

TEST(TraceTest, ALineIsTimeLevelNamePidPlaceFunctionAndText) {
  const test::LogCapture log;
  setNodeName("vornlaunch");
  vtrace(kInfo, "src/node.cpp", 88, "startInternal", kPlain,
         "Node start '%s' ok", "planner");
  const std::regex line(
      R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z INFO  vornlaunch\[)" +
      std::to_string(::getpid()) +
      R"(\] node\.cpp:88 startInternal: Node start 'planner' ok\n)");
  EXPECT_TRUE(std::regex_match(log.bytes(), line)) << log.bytes();
}

TEST(TraceTest, TheTimeStampIsUtcInAnyTimeZone) {
  ::setenv("TZ", "America/New_York", 1);
  ::tzset();
  const test::LogCapture log;
  const int64_t before = nowMicroseconds();
  logText("x");
  const int64_t after = nowMicroseconds();
  const std::string line = log.bytes();
  const int64_t stamp = microsecondsOf(line.substr(0, line.find(' ')));
  EXPECT_LE(before, stamp);
  EXPECT_LE(stamp, after);
}

TEST(TraceTest, TheTimeStampHasSixDigitsOfTheSecondCutNotRounded) {
  const test::LogCapture log;
  test::libraryCalls().clock_gettime = [](clockid_t clock, timespec* time) {
    EXPECT_EQ(CLOCK_REALTIME, clock);
    *time = {1'795'178'096, 12'999};
    return 0;
  };
  logText("x");
  test::libraryCalls().clock_gettime = nullptr;
  EXPECT_THAT(log.bytes(), StartsWith("2026-11-20T12:34:56.000012Z INFO  "));
}

TEST(TraceTest, AProcessWithoutANameLogsAsAQuestionMark) {
  const test::LogCapture log;
  logText("x");
  EXPECT_THAT(log.bytes(), HasSubstr(" ?[" + std::to_string(::getpid()) + "]"));
}

TEST(TraceTest, TheFileIsShownWithoutItsDirectories) {
  const test::LogCapture log;
  vtrace(kInfo, "/a/b/deep.cpp", 7, "f", kPlain, "x");
  vtrace(kInfo, "flat.cpp", 8, "f", kPlain, "x");
  EXPECT_THAT(log.bytes(), HasSubstr("] deep.cpp:7 f: x\n"));
  EXPECT_THAT(log.bytes(), HasSubstr("] flat.cpp:8 f: x\n"));
}

void logFromHere() { VTRACE(kWarn, kEvent, "value %d", 5); }
constexpr int kLineOfLogFromHere = __LINE__ - 1;

TEST(TraceTest, TheMacroAddsTheCallersFileLineAndFunction) {
  const test::LogCapture log;
  logFromHere();
  EXPECT_THAT(log.bytes(), HasSubstr(" trace_test.cpp:" +
                                     std::to_string(kLineOfLogFromHere) +
                                     " logFromHere: value 5\n"));
  EXPECT_THAT(log.lines(),
              ElementsAre(logLine("WARN", true, "logFromHere", "value 5")));
}

struct LevelCase {
  const char* name;
  int level;
  const char* shown;     // with its padding
  const char* priority;  // for the journal
};

const LevelCase kLevelCases[] = {
    {"Info", 1, "INFO  ", "<6>"},
    {"Warn", 4, "WARN  ", "<4>"},
    {"Error", 8, "ERROR ", "<3>"},
    {"UnknownShort", 2, "2     ", "<6>"},
    {"UnknownNegative", -1, "-1    ", "<6>"},
    {"UnknownLong", 1234567, "1234567 ", "<6>"},
};

class TraceLevel : public ::testing::TestWithParam<LevelCase> {};

TEST_P(TraceLevel, IsShownAsAWordPaddedToFiveOrAsItsNumber) {
  const test::LogCapture log;
  logText("x", GetParam().level);
  EXPECT_THAT(log.bytes(),
              HasSubstr("Z " + std::string(GetParam().shown) + "?["));
}

INSTANTIATE_TEST_SUITE_P(Trace, TraceLevel, ::testing::ValuesIn(kLevelCases),
                         test::caseName<LevelCase>);

TEST(TraceTest, OnlyAnOperatorsEventHasAStarBeforeItsLevel) {
  const test::LogCapture log;
  vtrace(kWarn, "a.cpp", 1, "f", kEvent, "turn");
  vtrace(kWarn, "a.cpp", 1, "f", kPlain, "rest");
  const std::regex lines(R"(\S+Z \*WARN  \S+ a\.cpp:1 f: turn\n)"
                         R"(\S+Z WARN  \S+ a\.cpp:1 f: rest\n)");
  EXPECT_TRUE(std::regex_match(log.bytes(), lines)) << log.bytes();
}

// --- The text

/// How the log shows a control character.
std::string escaped(int byte) {
  if (byte == '\t') return "\\t";
  if (byte == '\n') return "\\n";
  if (byte == '\r') return "\\r";
  std::array<char, 5> code{};
  (void)std::snprintf(code.data(), code.size(), "\\x%02x", byte);
  return code.data();
}

TEST(TraceTest, ControlCharactersAreShownAsText) {
  const test::LogCapture log;
  for (int byte = 0; byte <= 0x7f; byte = byte == 0x1f ? 0x7f : byte + 1) {
    vtrace(kInfo, "a.cpp", 1, "f", kPlain, "<%c>", byte);
    EXPECT_EQ("<" + escaped(byte) + ">", log.lines().back().text);
  }
  EXPECT_THAT(log.lines(), SizeIs(33));
}

TEST(TraceTest, EveryOtherByteOfATextPassesUntouched) {
  const test::LogCapture log;
  std::string others;
  for (int byte = 0x20; byte <= 0xff; ++byte) {
    if (byte != 0x7f) others += static_cast<char>(byte);
  }
  logText(others);
  EXPECT_THAT(log.bytes(), EndsWith(" f: " + others + "\n"));
}

TEST(TraceTest, ControlCharactersOfTheFormatItselfAreEscapedAsWell) {
  const test::LogCapture log;
  vtrace(kInfo, "a.cpp", 1, "f", kPlain, "one\ntwo\n");
  EXPECT_EQ("one\\ntwo\\n", onlyText(log));
}

TEST(TraceTest, ATextThatCannotBeFormattedIsShownAsItsFormat) {
  const test::LogCapture log;
  const wchar_t not_a_character[] = {static_cast<wchar_t>(0xdc00), 0};
  vtrace(kInfo, "a.cpp", 1, "f", kPlain, "name: %ls", not_a_character);
  EXPECT_EQ("name: %ls", onlyText(log));
}

TEST(TraceTest, ValuesAfterALongOneArrive) {
  const test::LogCapture log;
  const std::string longer(2000, 'x');
  vtrace(kInfo, "a.cpp", 1, "f", kPlain, "%d %s %d %.1f %s", 1, longer.c_str(),
         2, 3.5, "end");
  EXPECT_EQ("1 " + longer + " 2 3.5 end", onlyText(log));
}

class TraceLength : public ::testing::TestWithParam<size_t> {};

TEST_P(TraceLength, OfATextDoesNotMatterItArrivesWholeByOneWrite) {
  const test::LogCapture log;
  int writes = 0;
  test::libraryCalls().write = [&](int fd, const void* bytes, size_t size) {
    ++writes;
    return test::realWrite(fd, bytes, size);
  };
  std::string text(GetParam(), 'x');
  if (!text.empty()) text.back() = 'E';
  logText(text);
  test::libraryCalls().write = nullptr;
  EXPECT_EQ(1, writes);
  // Not by lines(), as the regular expression recurses for each byte.
  const std::string bytes = log.bytes();
  EXPECT_EQ(" f: " + text + "\n", bytes.substr(bytes.find(" f: ")));
}

INSTANTIATE_TEST_SUITE_P(Trace, TraceLength,
                         ::testing::Values(0, 1, 510, 511, 512, 513, 1023, 4096,
                                           65536, 1048576),
                         ::testing::PrintToStringParamName());

// --- errno

TEST(TraceTest, ErrnoIsKept) {
  const test::LogCapture log;
  errno = EXDEV;
  logText("x");
  EXPECT_EQ(EXDEV, errno);
}

TEST(TraceTest, ErrnoIsKeptWhenTheWriteFails) {
  test::libraryCalls().write = [](int, const void*, size_t) -> ssize_t {
    errno = EIO;
    return -1;
  };
  errno = EXDEV;
  logText("x");
  EXPECT_EQ(EXDEV, errno);
}

/// Logs "<text>: <errno's text>", asking for the latter by a %m that is hidden
/// from the compiler, which counts it as no part of the language.
void logWithPercentM(const std::string& text, int error) {
  const std::string format = "%s: %m";
  errno = error;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  vtrace(kError, "a.cpp", 1, "f", kPlain, format.c_str(), text.c_str());
#pragma GCC diagnostic pop
}

TEST(TraceTest, PercentMIsTheCallersErrorEvenInTheFirstLine) {
  const test::LogCapture log;
  logWithPercentM("stat", ENOENT);
  EXPECT_EQ("stat: No such file or directory", onlyText(log));
}

TEST(TraceTest, PercentMIsTheCallersErrorInALongText) {
  const test::LogCapture log;
  const std::string longer(1000, 'x');
  logWithPercentM(longer, ENOENT);
  EXPECT_EQ(longer + ": No such file or directory", onlyText(log));
}

// --- Writes that do not do all

TEST(TraceTest, TheRestOfACutWriteFollows) {
  const test::LogCapture log;
  int writes = 0;
  test::libraryCalls().write = [&](int fd, const void* bytes, size_t size) {
    ++writes;
    return test::realWrite(fd, bytes, size < 16 ? size : 16);
  };
  logText("a text that needs more than one of these small writes");
  test::libraryCalls().write = nullptr;
  EXPECT_GT(writes, 4);
  EXPECT_EQ("a text that needs more than one of these small writes",
            onlyText(log));
}

TEST(TraceTest, AnInterruptedWriteIsRepeated) {
  const test::LogCapture log;
  int interruptions = 3;
  test::libraryCalls().write = [&](int fd, const void* bytes,
                                   size_t size) -> ssize_t {
    if (interruptions == 0) return test::realWrite(fd, bytes, size);
    --interruptions;
    errno = EINTR;
    return -1;
  };
  logText("x");
  test::libraryCalls().write = nullptr;
  EXPECT_EQ(0, interruptions);
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "x")));
}

TEST(TraceTest, ALineThatIsRefusedIsNotTriedAgain) {
  int writes = 0;
  test::libraryCalls().write = [&](int, const void*, size_t) -> ssize_t {
    ++writes;
    errno = EIO;
    return -1;
  };
  logText("x");
  test::libraryCalls().write = nullptr;
  EXPECT_EQ(1, writes);
}

TEST(TraceTest, AWriteOfNoBytesIsNotTriedAgain) {
  int writes = 0;
  test::libraryCalls().write = [&](int, const void*, size_t) -> ssize_t {
    ++writes;
    errno = EIO;
    return writes < 3 ? 0 : -1;
  };
  logText("x");
  test::libraryCalls().write = nullptr;
  EXPECT_EQ(1, writes);
}

// --- Processes

/// Logs "child" in a forked child; returns its pid after it has exited.
pid_t logInAChild() {
  const pid_t child = ::fork();
  if (child == 0) {
    logText("child");
    ::_exit(0);
  }
  int status = -1;
  EXPECT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  return child;
}

TEST(TraceTest, AForkedChildLogsUnderItsOwnPid) {
  const test::LogCapture log;
  logText("parent");
  const pid_t child = logInAChild();
  EXPECT_THAT(log.bytes(), HasSubstr("[" + std::to_string(::getpid()) +
                                     "] a.cpp:1 f: parent\n"));
  EXPECT_THAT(log.bytes(),
              HasSubstr("[" + std::to_string(child) + "] a.cpp:1 f: child\n"));
}

TEST(TraceTest, AForkedChildMayBeTheFirstToLog) {
  const test::LogCapture log;
  setNodeName("vornlaunch");
  const pid_t child = logInAChild();
  EXPECT_THAT(log.bytes(), HasSubstr(" vornlaunch[" + std::to_string(child) +
                                     "] a.cpp:1 f: child\n"));
}

// --- Standard error that takes nothing

/// Standard error closed, until the destruction puts it back.
class StandardErrorClosed {
 public:
  StandardErrorClosed() : kept_(::dup(STDERR_FILENO)) {
    (void)::close(STDERR_FILENO);
  }
  ~StandardErrorClosed() {
    (void)::dup2(kept_, STDERR_FILENO);
    (void)::close(kept_);
  }
  StandardErrorClosed(const StandardErrorClosed&) = delete;
  StandardErrorClosed& operator=(const StandardErrorClosed&) = delete;

 private:
  int kept_;
};

TEST(TraceTest, WithStandardErrorClosedALineIsLostAndTheProcessLives) {
  const StandardErrorClosed closed;
  errno = EXDEV;
  logText("lost");
  EXPECT_EQ(EXDEV, errno);
}

TEST(TraceTest, AReplacementOfClosedStandardErrorGetsNoLines) {
  const StandardErrorClosed closed;
  logText("lost");
  const test::LogCapture log;
  logText("lost as well");
  EXPECT_EQ("", log.bytes());
}

TEST(TraceTest, NamingTheProcessSettlesThatStandardErrorIsClosed) {
  const StandardErrorClosed closed;
  setNodeName("vornlaunch");
  const test::LogCapture log;
  logText("lost");
  EXPECT_EQ("", log.bytes());
}

TEST(TraceTest, AnErrorOtherThanABadDescriptorDoesNotMeanThatItIsClosed) {
  const test::LogCapture log;
  test::libraryCalls().fcntl = [](int fd, int operation) {
    EXPECT_EQ(STDERR_FILENO, fd);
    EXPECT_EQ(F_GETFD, operation);
    errno = EPERM;
    return -1;
  };
  setNodeName("vornlaunch");
  test::libraryCalls().fcntl = nullptr;
  logText("written");
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "written")));
}

TEST(TraceTest, AFullNonBlockingPipeLosesTheRest) {
  std::array<int, 2> ends{};
  ASSERT_EQ(0, ::pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK));
  {
    const StandardErrorTo redirected(ends[1]);
    ::close(ends[1]);
    logText(std::string(2'000'000, 'x'));
  }
  const std::string received = readToEnd(ends[0]);
  ::close(ends[0]);
  EXPECT_THAT(received, HasSubstr(kHead));
  EXPECT_THAT(received, Not(EndsWith("\n")));
}

TEST(TraceTest, ALostLineDoesNotSilenceTheNext) {
  const test::LogCapture log;
  test::libraryCalls().write = [](int, const void*, size_t) -> ssize_t {
    errno = ENOSPC;
    return -1;
  };
  logText("lost");
  test::libraryCalls().write = nullptr;
  logText("next");
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "next")));
}

/// Takes `size` bytes of a line and refuses the rest, as a full pipe does.
test::LibraryCalls takeOnly(size_t size) {
  test::LibraryCalls calls;
  calls.write = [left = size](int fd, const void* bytes,
                              size_t wanted) mutable -> ssize_t {
    if (left == 0) {
      errno = EAGAIN;
      return -1;
    }
    const size_t part = std::min(std::exchange(left, 0), wanted);
    return test::realWrite(fd, bytes, part);
  };
  return calls;
}

TEST(TraceTest, ATornLineIsCompletedByTheNextOne) {
  const test::LogCapture log;
  test::libraryCalls() = takeOnly(5);
  logText("cut");
  test::libraryCalls() = takeOnly(0);
  logText("lost");
  test::libraryCalls() = {};
  logText("next");
  logText("last");
  const std::regex lines(
      R"(\d{4}-\n\d{4}-\S+Z INFO .* f: next\n\S+Z INFO .* f: last\n)");
  EXPECT_TRUE(std::regex_match(log.bytes(), lines)) << log.bytes();
}

TEST(TraceTest, ATornLineIsCompletedOnceThoughTheNextIsTornAfterItsEnd) {
  const test::LogCapture log;
  test::libraryCalls() = takeOnly(5);
  logText("cut");
  test::libraryCalls() = takeOnly(1);
  logText("lost but for the line end before it");
  test::libraryCalls() = {};
  logText("next");
  const std::regex lines(R"(\d{4}-\n\d{4}-\S+Z INFO .* f: next\n)");
  EXPECT_TRUE(std::regex_match(log.bytes(), lines)) << log.bytes();
}

/// Logs into a file that may take 10 bytes, SIGXFSZ being deadly. Returns an
/// exit status: 0 if neither mask nor pending signals have changed.
int logBeyondTheSizeLimit() {
  const rlimit ten_bytes{10, RLIM_INFINITY};
  sigset_t signals;
  if (::signal(SIGXFSZ, SIG_DFL) == SIG_ERR ||
      ::setrlimit(RLIMIT_FSIZE, &ten_bytes) != 0) {
    return 2;
  }
  logText("first");
  logText("second");
  (void)::sigpending(&signals);
  if (::sigismember(&signals, SIGXFSZ) != 0) return 3;
  (void)::sigprocmask(SIG_BLOCK, nullptr, &signals);
  return ::sigismember(&signals, SIGXFSZ) == 0 ? 0 : 4;
}

TEST(TraceTest, AFilesSizeLimitDoesNotEndTheProcess) {
  const test::LogCapture log;
  const pid_t child = ::fork();
  ASSERT_NE(-1, child);
  if (child == 0) ::_exit(logBeyondTheSizeLimit());
  int status = -1;
  ASSERT_EQ(child, ::waitpid(child, &status, 0));
  EXPECT_EQ(0, status);
  EXPECT_THAT(log.bytes(), SizeIs(10));
}

TEST(TraceTest, AnUnreadableSizeLimitIsIgnored) {
  test::libraryCalls().getrlimit = [](int, rlimit*) { return -1; };
  int is_blocked = -1;
  test::libraryCalls().write = [&](int, const void*, size_t size) {
    sigset_t signals;
    (void)::sigprocmask(SIG_BLOCK, nullptr, &signals);
    is_blocked = ::sigismember(&signals, SIGXFSZ);
    return static_cast<ssize_t>(size);
  };
  logText("x");
  test::libraryCalls() = {};
  EXPECT_EQ(0, is_blocked);
}

// --- Out of memory

TEST(TraceTest, ALineForWhichMemoryIsShortIsLostAndTheProcessLives) {
  const test::LogCapture log;
  test::libraryCalls().write = [](int, const void*, size_t) -> ssize_t {
    throw std::bad_alloc();
  };
  errno = EXDEV;
  logText("lost");
  EXPECT_EQ(EXDEV, errno);
  test::libraryCalls() = {};
  logText("next");
  EXPECT_EQ("next", onlyText(log));
}

// --- The journal

/// "device:inode" of standard error, as JOURNAL_STREAM has it.
std::string standardErrorsStream(ino_t inode_offset = 0) {
  struct stat status {};
  (void)::fstat(STDERR_FILENO, &status);
  return std::to_string(status.st_dev) + ":" +
         std::to_string(status.st_ino + inode_offset);
}

class TraceJournal : public ::testing::TestWithParam<LevelCase> {};

TEST_P(TraceJournal, GetsThePriorityInPlaceOfTheTime) {
  const test::LogCapture log;
  ::setenv("JOURNAL_STREAM", standardErrorsStream().c_str(), 1);
  logText("x", GetParam().level);
  EXPECT_EQ(std::string(GetParam().priority) + GetParam().shown + "?[" +
                std::to_string(::getpid()) + "] a.cpp:1 f: x\n",
            log.bytes());
}

INSTANTIATE_TEST_SUITE_P(Trace, TraceJournal, ::testing::ValuesIn(kLevelCases),
                         test::caseName<LevelCase>);

TEST(TraceJournalTest, TheStarIsBetweenPriorityAndLevel) {
  const test::LogCapture log;
  ::setenv("JOURNAL_STREAM", standardErrorsStream().c_str(), 1);
  vtrace(kWarn, "a.cpp", 1, "f", kEvent, "x");
  EXPECT_THAT(log.bytes(), StartsWith("<4>*WARN  ?["));
}

TEST(TraceJournalTest, AnotherStreamsInodeIsNotTheJournal) {
  const test::LogCapture log;
  ::setenv("JOURNAL_STREAM", standardErrorsStream(1).c_str(), 1);
  logText("x");
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "x")));
}

TEST(TraceJournalTest, AnotherStreamsDeviceIsNotTheJournal) {
  const test::LogCapture log;
  ::setenv("JOURNAL_STREAM", ("9" + standardErrorsStream()).c_str(), 1);
  logText("x");
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "x")));
}

TEST(TraceJournalTest, AnUnreadableStandardErrorIsNotTheJournal) {
  const test::LogCapture log;
  test::libraryCalls().fstat = [](int, struct stat*) { return -1; };
  ::setenv("JOURNAL_STREAM", "0:0", 1);
  logText("x");
  test::libraryCalls() = {};
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "x")));
}

struct StreamCase {
  const char* name;
  const char* before;  // around "device:inode" of standard error
  const char* after;
};

class TraceMalformedStream : public ::testing::TestWithParam<StreamCase> {};

TEST_P(TraceMalformedStream, IsNotTheJournal) {
  const test::LogCapture log;
  const std::string stream =
      GetParam().before + standardErrorsStream() + GetParam().after;
  ::setenv("JOURNAL_STREAM", stream.c_str(), 1);
  logText("x");
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "x")));
}

INSTANTIATE_TEST_SUITE_P(Trace, TraceMalformedStream,
                         ::testing::Values(StreamCase{"LettersBefore", "x", ""},
                                           StreamCase{"LettersAfter", "", "x"},
                                           StreamCase{"AThirdNumber", "",
                                                      ":1"}),
                         test::caseName<StreamCase>);

struct TextCase {
  const char* name;
  const char* text;
};

class TraceStreamText : public ::testing::TestWithParam<TextCase> {};

TEST_P(TraceStreamText, ThatNamesNoStreamIsNotTheJournal) {
  const test::LogCapture log;
  ::setenv("JOURNAL_STREAM", GetParam().text, 1);
  logText("x");
  EXPECT_THAT(log.lines(), ElementsAre(logLine("INFO", false, "f", "x")));
}

INSTANTIATE_TEST_SUITE_P(
    Trace, TraceStreamText,
    ::testing::Values(TextCase{"Empty", ""}, TextCase{"ColonOnly", ":"},
                      TextCase{"DeviceOnly", "12"}, TextCase{"NoInode", "12:"},
                      TextCase{"NoDevice", ":12"}, TextCase{"Words", "a:b"}),
    test::caseName<TextCase>);

// --- The terminal

/// A terminal as standard error, for one line.
std::string lineOnATerminal(int level, bool flag = kPlain) {
  int master = -1;
  int slave = -1;
  if (::openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return "";
  termios raw{};
  (void)::tcgetattr(slave, &raw);
  ::cfmakeraw(&raw);
  (void)::tcsetattr(slave, TCSANOW, &raw);
  {
    const StandardErrorTo redirected(slave);
    vtrace(level, "a.cpp", 1, "f", flag, "x");
  }
  std::array<char, 4096> bytes{};
  const ssize_t size = ::read(master, bytes.data(), bytes.size());
  ::close(slave);
  ::close(master);
  return {bytes.data(), size > 0 ? static_cast<size_t>(size) : 0};
}

struct ColourCase {
  const char* name;
  int level;
  bool flag;
  const char* shown;  // a regular expression
};

class TraceTerminal : public ::testing::TestWithParam<ColourCase> {};

TEST_P(TraceTerminal, ShowsTheLevelWordAndNothingElseInColour) {
  ::unsetenv("NO_COLOR");
  const std::string line = lineOnATerminal(GetParam().level, GetParam().flag);
  const std::regex expected(R"([0-9T:.-]+Z )" + std::string(GetParam().shown) +
                            R"(\?\[\d+\] a\.cpp:1 f: x\n)");
  EXPECT_TRUE(std::regex_match(line, expected)) << line;
}

INSTANTIATE_TEST_SUITE_P(
    Trace, TraceTerminal,
    ::testing::Values(
        ColourCase{"Info", kInfo, kPlain, "\x1b\\[32mINFO\x1b\\[0m  "},
        ColourCase{"Warn", kWarn, kPlain, "\x1b\\[33mWARN\x1b\\[0m  "},
        ColourCase{"Error", kError, kPlain, "\x1b\\[31mERROR\x1b\\[0m "},
        ColourCase{"Event", kError, kEvent, "\\*\x1b\\[31mERROR\x1b\\[0m "},
        ColourCase{"UnknownLevel", 2, kPlain, "2     "}),
    test::caseName<ColourCase>);

TEST(TraceTerminalTest, GetsNoColourIfTheVariableIsSetEvenToNothing) {
  ::setenv("NO_COLOR", "", 1);
  const std::string line = lineOnATerminal(kError);
  EXPECT_THAT(line, HasSubstr("Z ERROR ?["));
  EXPECT_THAT(line, Not(HasSubstr("\x1b")));
}

}  // namespace
}  // namespace vorn
