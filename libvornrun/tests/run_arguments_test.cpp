#include "run_arguments.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "run_options.h"

namespace vorn::run {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/// The errors as texts.
std::vector<std::string> errorsOf(const std::vector<RunError>& errors) {
  std::vector<std::string> texts;
  texts.reserve(errors.size());
  for (const RunError& error : errors) {
    texts.push_back(error.option + ": " + error.reason);
  }
  return texts;
}

RunSettings parsed(const std::vector<std::string>& arguments) {
  const RunArguments result = parseRunArguments(arguments);
  EXPECT_THAT(errorsOf(result.errors), IsEmpty());
  return result.settings;
}

std::vector<std::string> errorsIn(const std::vector<std::string>& arguments) {
  return errorsOf(parseRunArguments(arguments).errors);
}

RunSettings parsedConfig(const std::string& text) {
  RunSettings settings;
  EXPECT_THAT(errorsOf(parseRunConfig(text, "f", settings)), IsEmpty());
  return settings;
}

std::vector<std::string> configErrors(const std::string& text) {
  RunSettings settings;
  return errorsOf(parseRunConfig(text, "f", settings));
}

TEST(RunArguments, TheProgramFollowsTwoDashesOrTheOptions) {
  EXPECT_THAT(parsed({"--nice", "5", "--", "-x", "--nice"}).program,
              ElementsAre("-x", "--nice"));
  EXPECT_THAT(parsed({"--nice=5", "/bin/x", "--nice"}).program,
              ElementsAre("/bin/x", "--nice"));
}

TEST(RunArguments, AValueFollowsAnEqualsSignOrABlank) {
  EXPECT_EQ(parsed({"--nice", "-5", "x"}).nice, -5);
  EXPECT_EQ(parsed({"--env=A=b", "x"}).environment[0].second, "b");
}

TEST(RunArguments, RepeatableOptionsAdd) {
  EXPECT_EQ(
      parsed({"--limit", "core=0", "--limit", "nofile=9", "x"}).limits.size(),
      2U);
}

TEST(RunArguments, AUserHasAnOptionalGroup) {
  EXPECT_EQ(parsed({"--user", "robot", "x"}).group, "");
  const RunSettings both = parsed({"--user", "robot:video", "x"});
  EXPECT_EQ(both.user, "robot");
  EXPECT_EQ(both.group, "video");
  EXPECT_THAT(errorsIn({"--user", ":video", "x"}),
              ElementsAre("--user: ':video' is not USER or USER:GROUP"));
  EXPECT_THAT(errorsIn({"--user", "robot:", "x"}),
              ElementsAre("--user: 'robot:' is not USER or USER:GROUP"));
}

TEST(RunArguments, AMaskIsOctal) {
  EXPECT_EQ(parsed({"--umask", "027", "x"}).umask, mode_t{027});
  for (const char* text : {"", "8", "1000", "00022"}) {
    EXPECT_THAT(errorsIn({"--umask", text, "x"}), testing::SizeIs(1)) << text;
  }
}

TEST(RunArguments, DescriptorsAreClosedUnlessTheyAreKept) {
  EXPECT_TRUE(parsed({"x"}).closesDescriptors);
  EXPECT_TRUE(parsed({"--close-fds", "yes", "x"}).closesDescriptors);
  EXPECT_FALSE(parsed({"--close-fds", "no", "x"}).closesDescriptors);
}

TEST(RunArguments, AValueIsStoredInTheSettingOfItsOption) {
  const RunSettings process = parsed(
      {"--directory", "/srv", "--env-file", "-/x", "--clear-env", "--sched",
       "rr:5", "--cpu-list", "0,2", "--ionice", "idle", "--oom-score-adj", "6",
       "--no-new-privs", "--pdeathsig", "HUP", "--cgroup", "--expand", "x"});
  EXPECT_EQ(process.directory, "/srv");
  EXPECT_THAT(process.environmentFiles, ElementsAre("-/x"));
  EXPECT_TRUE(process.clearEnvironment);
  EXPECT_EQ(process.scheduling->policy, SCHED_RR);
  EXPECT_THAT(process.cpus, ElementsAre(0, 2));
  EXPECT_EQ(process.ioPriority->ioClass, 3);
  EXPECT_EQ(process.oomScoreAdjust, 6);
  EXPECT_TRUE(process.noNewPrivileges);
  EXPECT_EQ(process.parentDeathSignal, SIGHUP);
  EXPECT_TRUE(process.usesControlGroup);
  EXPECT_TRUE(process.expandsVariables);
}

TEST(RunArguments, AValueIsStoredInTheSettingOfItsOptionForLogs) {
  const RunSettings logs = parsed(
      {"--log-prefix", "--log", "journal", "--log-dir", "/l", "--log-size",
       "64K", "--log-keep", "0", "--log-total", "1M", "--log-compress", "x"});
  EXPECT_TRUE(logs.logPrefix);
  EXPECT_TRUE(logs.logJournal);
  EXPECT_EQ(logs.logDirectory, "/l");
  EXPECT_EQ(logs.logSize, 65536U);
  EXPECT_EQ(logs.logKeep, 0U);
  EXPECT_EQ(logs.logTotal, 1048576U);
  EXPECT_TRUE(logs.logCompress);
}

TEST(RunArguments, AValueIsStoredInTheSettingOfItsOptionForHealth) {
  const RunSettings health = parsed({"--wait-for",
                                     "path:/x",
                                     "--wait-timeout",
                                     "1s",
                                     "--ready",
                                     "notify",
                                     "--watchdog",
                                     "2s",
                                     "--watchdog-signal",
                                     "ABRT",
                                     "--probe",
                                     "file:/x",
                                     "--probe-period",
                                     "3s",
                                     "--probe-timeout",
                                     "4s",
                                     "--probe-failures",
                                     "5",
                                     "--probe-delay",
                                     "0s",
                                     "--backoff",
                                     "6s..7s",
                                     "--reset-after",
                                     "8s",
                                     "--give-up",
                                     "9/10s",
                                     "--state-dir",
                                     "/s",
                                     "x"});
  EXPECT_EQ(health.waitFor.at(0).kind, Condition::Kind::PATH);
  EXPECT_EQ(health.waitTimeout, milliseconds(1000));
  EXPECT_EQ(health.ready->kind, Condition::Kind::NOTIFY);
  EXPECT_EQ(health.watchdog, milliseconds(2000));
  EXPECT_EQ(health.watchdogSignal, SIGABRT);
  EXPECT_EQ(health.probe->kind, Condition::Kind::FILE);
  EXPECT_EQ(health.probePeriod, milliseconds(3000));
  EXPECT_EQ(health.probeTimeout, milliseconds(4000));
  EXPECT_EQ(health.probeFailures, 5U);
  EXPECT_EQ(health.probeDelay, milliseconds(0));
  EXPECT_EQ(health.backoff->longest, milliseconds(7000));
  EXPECT_EQ(health.resetAfter, milliseconds(8000));
  EXPECT_EQ(health.giveUp->count, 9U);
  EXPECT_EQ(health.stateDirectory, "/s");
}

TEST(RunArguments, EachKindOfConditionIsForSomeOptions) {
  EXPECT_THAT(errorsIn({"--probe", "notify", "x"}),
              ElementsAre(HasSubstr("--probe: 'notify' is not exec:")));
  EXPECT_THAT(errorsIn({"--ready", "file:/x", "x"}), testing::SizeIs(1));
  EXPECT_THAT(errorsIn({"--wait-for", "fd:3", "x"}), testing::SizeIs(1));
}

TEST(RunArguments, AllInvalidValuesAreReported) {
  EXPECT_THAT(
      errorsIn({"--nice", "20", "--log", "file", "--watchdog", "0s", "x"}),
      ElementsAre("--nice: '20' is not a number from -20 to 19",
                  "--log: 'file' is not journal",
                  HasSubstr("--watchdog: '0s' is not a duration")));
}

TEST(RunArguments, AnUnknownOptionEndsTheParsing) {
  EXPECT_THAT(errorsIn({"--nices", "5", "--foo"}),
              ElementsAre("--nices: unknown option; vornrun --help lists the "
                          "options"));
  EXPECT_THAT(errorsIn({"-n", "5"}), ElementsAre(HasSubstr("-n: unknown")));
}

TEST(RunArguments, TheFormOfAnOptionIsChecked) {
  EXPECT_THAT(errorsIn({"--nice"}),
              ElementsAre("--nice: the value is missing"));
  EXPECT_THAT(errorsIn({"--pty=1", "x"}),
              ElementsAre("--pty: the option has no value"));
  EXPECT_THAT(errorsIn({"--pty"}), ElementsAre(": the program is missing"));
  EXPECT_THAT(errorsIn({}), ElementsAre(": the program is missing"));
}

TEST(RunArguments, AMissingConfigurationFileIsAnError) {
  EXPECT_THAT(errorsIn({"--config", "/nonexistent/f"}),
              ElementsAre("--config: cannot read /nonexistent/f: No such file "
                          "or directory"));
}

TEST(RunArguments, TheCommandLinePrecedesTheConfigurationFile) {
  std::string file = testing::TempDir() + "run_arguments.XXXXXX";
  (void)::close(::mkstemp(file.data()));
  std::ofstream(file) << "nice = 5\numask = 027\nexec = /opt/x\n";
  const RunSettings settings = parsed({"--nice", "7", "--config", file});
  EXPECT_EQ(settings.nice, 7);
  EXPECT_EQ(settings.umask, mode_t{027});
  EXPECT_THAT(settings.program, ElementsAre("/opt/x"));
  EXPECT_THAT(parsed({"--config=" + file, "/bin/y"}).program,
              ElementsAre("/bin/y"));
  (void)::unlink(file.c_str());
}

TEST(RunArguments, TheHelpNeedsNoProgram) {
  EXPECT_EQ(parseRunArguments({"-h"}).request, RunArguments::Request::HELP);
  EXPECT_EQ(parseRunArguments({"--help"}).request, RunArguments::Request::HELP);
  EXPECT_EQ(parseRunArguments({"--version"}).request,
            RunArguments::Request::VERSION);
}

TEST(RunConfig, EachLineIsAnOption) {
  const RunSettings settings = parsedConfig(
      "# comment\n; comment\n\n nice = 5 \r\nlimit=core=0\nlimit = nofile=9\n"
      "pty = yes\nclear-env = no\nexec = /opt/x\narg = a  b\narg=\n");
  EXPECT_EQ(settings.nice, 5);
  EXPECT_EQ(settings.limits.size(), 2U);
  EXPECT_TRUE(settings.pty);
  EXPECT_FALSE(settings.clearEnvironment);
  EXPECT_THAT(settings.program, ElementsAre("/opt/x", "a  b", ""));
}

TEST(RunConfig, DoubleQuotesKeepBlanks) {
  EXPECT_THAT(
      parsedConfig("exec = x\narg = \" a \\\"b\\\\ \"\narg = a \"b\"").program,
      ElementsAre("x", " a \"b\\ ", "a \"b\""));
  EXPECT_THAT(configErrors("arg = \"a\" \"b\"\nexec = \"x"),
              ElementsAre("f:1: arg: the double quotes are not one closed pair",
                          "f:2: exec: the double quotes are not one closed "
                          "pair"));
  EXPECT_THAT(configErrors("arg = \"a\\"),
              ElementsAre(HasSubstr("f:1: arg: the double quotes")));
}

TEST(RunConfig, AllErrorsNameTheLine) {
  EXPECT_THAT(
      configErrors("[x]\nnices = 5\nnice = 20\npty = on\nexec = a\nexec = b\n"
                   "config = g\n"),
      ElementsAre("f:1: the line is not 'option = value'",
                  "f:2: nices: unknown option",
                  "f:3: nice: '20' is not a number from -20 to 19",
                  "f:4: pty: 'on' is not yes or no", "f:6: exec: given twice",
                  "f:7: config: unknown option"));
  EXPECT_THAT(configErrors("arg = a"), ElementsAre("f: 'arg' without 'exec'"));
  EXPECT_THAT(configErrors("exec ="),
              ElementsAre("f:1: exec: the path of the program is missing"));
  EXPECT_THAT(configErrors(std::string("nice = 5\0", 9)),
              ElementsAre("f:1: the line is not 'option = value'"));
}

TEST(RunOptions, EachOptionIsInTheHelp) {
  const std::string help = runHelp();
  for (const RunOption& option : runOptions()) {
    EXPECT_THAT(help, HasSubstr(std::string("  --") + option.name));
  }
}

TEST(RunOptions, EachValueButThatOfAFileIsChecked) {
  for (const RunOption& option : runOptions()) {
    if (option.placeholder == nullptr) continue;
    if (std::string_view(option.name) == "env-file") continue;
    RunSettings settings;
    EXPECT_THAT(option.set(settings, ":"), HasSubstr("':' is not "))
        << option.name;
    EXPECT_THAT(option.set(settings, ""), HasSubstr("'' is not "))
        << option.name;
  }
}

TEST(RunOptions, NoLineOfTheHelpIsWiderThanATerminal) {
  size_t begin = 0;
  const std::string help = runHelp();
  for (size_t end = 0; (end = help.find('\n', begin)) != std::string::npos;
       begin = end + 1) {
    EXPECT_LE(end - begin, 80U) << help.substr(begin, end - begin);
  }
}

}  // namespace
}  // namespace vorn::run
