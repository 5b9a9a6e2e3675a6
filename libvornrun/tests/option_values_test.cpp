#include "option_values.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>

namespace vorn::run {
namespace {

TEST(OptionValues, ADurationIsANumberAndAUnit) {
  EXPECT_EQ(parseDuration("500ms"), milliseconds(500));
  EXPECT_EQ(parseDuration("5s"), milliseconds(5000));
  EXPECT_EQ(parseDuration("5"), milliseconds(5000));
  EXPECT_EQ(parseDuration("2min"), milliseconds(120000));
  EXPECT_EQ(parseDuration("2m"), milliseconds(120000));
  EXPECT_EQ(parseDuration("1h"), milliseconds(3600000));
  EXPECT_EQ(parseDuration("0s"), milliseconds(0));
}

TEST(OptionValues, OtherTextsAreNotDurations) {
  for (const char* text : {"", "s", "-1s", "1 s", "1x", "1.5s", "1s2", "9999h",
                           "99999999999999999999s", "18446744073709551615"}) {
    EXPECT_FALSE(parseDuration(text)) << text;
  }
}

TEST(OptionValues, ABackoffIsARangeOfDurations) {
  const auto range = parseBackoff("1s..60s");
  ASSERT_TRUE(range);
  EXPECT_EQ(range->first, milliseconds(1000));
  EXPECT_EQ(range->longest, milliseconds(60000));
  EXPECT_EQ(parseBackoff("5s")->longest, milliseconds(5000));
  for (const char* text : {"", "0s..1s", "2s..1s", "1s..", "..1s", "1s...2s"}) {
    EXPECT_FALSE(parseBackoff(text)) << text;
  }
}

TEST(OptionValues, ARateIsACountAndAPeriod) {
  EXPECT_EQ(parseGiveUp("5/60s")->count, 5U);
  EXPECT_EQ(parseGiveUp("5/1min")->period, milliseconds(60000));
  for (const char* text : {"", "5", "0/60s", "5/0s", "/60s", "5/", "5/6/7"}) {
    EXPECT_FALSE(parseGiveUp(text)) << text;
  }
}

TEST(OptionValues, ASizeHasAUnitOfPowersOf1024) {
  EXPECT_EQ(parseSize("4096"), uint64_t{4096});
  EXPECT_EQ(parseSize("10M"), uint64_t{10} << 20);
  EXPECT_EQ(parseSize("2T"), uint64_t{2} << 40);
  EXPECT_EQ(parseSize("18446744073709551615"), UINT64_MAX);
  for (const char* text : {"", "M", "10MB", "-1", "1.5M", "17179869184G",
                           "18446744073709551616", "1m"}) {
    EXPECT_FALSE(parseSize(text)) << text;
  }
  EXPECT_FALSE(parseSize(std::string_view("1\0", 2)));
}

TEST(OptionValues, ASignalHasANameOrANumber) {
  EXPECT_EQ(parseSignal("TERM"), SIGTERM);
  EXPECT_EQ(parseSignal("SIGKILL"), SIGKILL);
  EXPECT_EQ(parseSignal("6"), SIGABRT);
  for (const char* text :
       {"", "SIG", "term", "0", "65", "TERMX", "9223372036854775808"}) {
    EXPECT_FALSE(parseSignal(text)) << text;
  }
}

TEST(OptionValues, ALimitHasANameAndOneOrTwoValues) {
  const auto both = parseLimit("nofile=1024:4096");
  ASSERT_TRUE(both);
  EXPECT_EQ(both->resource, static_cast<int>(RLIMIT_NOFILE));
  EXPECT_EQ(both->soft, rlim_t{1024});
  EXPECT_EQ(both->hard, rlim_t{4096});
  EXPECT_EQ(parseLimit("core=unlimited")->hard, RLIM_INFINITY);
  EXPECT_EQ(parseLimit("core=infinity")->soft, RLIM_INFINITY);
  EXPECT_EQ(parseLimit("memlock=64K")->soft, rlim_t{65536});
  for (const char* text : {"", "nofile", "nofiles=1", "nofile=", "nofile=2:1",
                           "nofile=1:", "nofile=-1", "nofile=1:2:3"}) {
    EXPECT_FALSE(parseLimit(text)) << text;
  }
}

TEST(OptionValues, ALimitHasTheNameThatItWasReadFrom) {
  EXPECT_STREQ(limitName(parseLimit("rttime=1")->resource), "rttime");
  EXPECT_STREQ(limitName(-1), "?");
}

TEST(OptionValues, ASchedulingPolicyHasAPriorityIfItIsRealTime) {
  EXPECT_EQ(parseScheduling("fifo:20")->policy, SCHED_FIFO);
  EXPECT_EQ(parseScheduling("rr:99")->priority, 99);
  EXPECT_EQ(parseScheduling("batch")->policy, SCHED_BATCH);
  EXPECT_EQ(parseScheduling("idle")->policy, SCHED_IDLE);
  EXPECT_EQ(parseScheduling("other")->policy, SCHED_OTHER);
  for (const char* text :
       {"", "fifo", "fifo:0", "fifo:100", "batch:1", "x:1"}) {
    EXPECT_FALSE(parseScheduling(text)) << text;
  }
}

TEST(OptionValues, AProcessorListHasNumbersAndRanges) {
  EXPECT_EQ(parseCpuList("0,2-4"), (std::vector<int>{0, 2, 3, 4}));
  for (const char* text : {"", ",", "1,", "3-2", "a", "1024", "-1", "1-"}) {
    EXPECT_FALSE(parseCpuList(text)) << text;
  }
}

TEST(OptionValues, AnIoPriorityHasAClassAndALevel) {
  EXPECT_EQ(parseIoPriority("realtime:0")->ioClass, 1);
  EXPECT_EQ(parseIoPriority("best-effort")->level, 4);
  EXPECT_EQ(parseIoPriority("idle")->ioClass, 3);
  for (const char* text :
       {"", "idle:1", "best-effort:8", "other", "realtime:"}) {
    EXPECT_FALSE(parseIoPriority(text)) << text;
  }
}

TEST(OptionValues, AConditionHasAKindAndAValue) {
  const auto condition = parseCondition("tcp:localhost:80");
  ASSERT_TRUE(condition);
  EXPECT_EQ(condition->kind, Condition::Kind::TCP);
  EXPECT_EQ(condition->value, "localhost:80");
  EXPECT_EQ(parseCondition("http://h/x")->value, "http://h/x");
  EXPECT_EQ(parseCondition("https://h")->kind, Condition::Kind::HTTP);
  EXPECT_EQ(parseCondition("exec:test -e /x")->value, "test -e /x");
  EXPECT_EQ(parseCondition("notify")->kind, Condition::Kind::NOTIFY);
  EXPECT_EQ(parseCondition("fd:3")->value, "3");
  EXPECT_EQ(parseCondition("path:/x")->kind, Condition::Kind::PATH);
  EXPECT_EQ(parseCondition("unix:/x")->kind, Condition::Kind::UNIX);
  EXPECT_EQ(parseCondition("file:/x")->kind, Condition::Kind::FILE);
  for (const char* text : {"", "path:x", "tcp:", "tcp:80", "tcp:h:0", "tcp::80",
                           "fd:x", "exec:", "unix:", "/x", "notify:1"}) {
    EXPECT_FALSE(parseCondition(text)) << text;
  }
}

TEST(OptionValues, AConditionHasTheTextThatItWasReadFrom) {
  for (const char* text : {"path:/x", "tcp:localhost:80", "unix:/x", "exec:x y",
                           "http://h/x", "file:/x", "notify", "fd:3"}) {
    EXPECT_EQ(conditionText(*parseCondition(text)), text);
  }
}

TEST(OptionValues, TheBracketsAroundAnIpv6AddressAreRemoved) {
  EXPECT_EQ(splitHostPort("[::1]:80"),
            std::make_pair(std::string("::1"), std::string("80")));
  EXPECT_EQ(splitHostPort("[::1:80").first, "[::1");
}

TEST(OptionValues, AVariableHasAValidNameAndAnyValue) {
  EXPECT_EQ(parseVariable("A_1=b=c")->second, "b=c");
  EXPECT_EQ(parseVariable("A=")->second, "");
  for (const char* text : {"", "A", "=b", "1A=b", "A-B=c", "A B=c"}) {
    EXPECT_FALSE(parseVariable(text)) << text;
  }
}

}  // namespace
}  // namespace vorn::run
