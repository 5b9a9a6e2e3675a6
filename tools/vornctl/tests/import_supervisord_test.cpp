#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "import/supervisord.h"
#include "omitted_settings.h"

namespace vorn::launch {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

Imported importSupervisor(const std::string& text) {
  return importSupervisord({SourceText("/etc/x/supervisord.conf", text)});
}

/// The only node of a program with these lines.
ImportedNode programWith(const std::string& lines) {
  const Imported imported =
      importSupervisor("[program:camera]\ncommand=/bin/camera\n" + lines);
  EXPECT_EQ(imported.nodes.size(), 1U);
  return imported.nodes.at(0);
}

/// The message about a file; empty if it can be imported.
std::string supervisordError(const std::string& text) {
  try {
    importSupervisor(text);
  } catch (const ImportError& error) {
    return error.what();
  }
  return "";
}

std::vector<std::string> supervisorNames(const Imported& imported) {
  std::vector<std::string> names;
  for (const ImportedNode& node : imported.nodes) names.push_back(node.name);
  return names;
}

TEST(ImportSupervisordTest, ACommandIsSplitAsByAShell) {
  const ImportedNode node = programWith(
      "command=/bin/camera --name \"front left\" 'a\"b' c\\ d --map=\"x\"\n");
  EXPECT_EQ(node.name, "camera");
  EXPECT_EQ(node.program, "/bin/camera");
  EXPECT_THAT(node.arguments,
              ElementsAre("--name", "front left", "a\"b", "c d", "--map=x"));
  EXPECT_THAT(node.options, IsEmpty());
  EXPECT_THAT(node.omitted, IsEmpty());
}

TEST(ImportSupervisordTest, TheSyntaxOfTheFileIsThatOfSupervisor) {
  const ImportedNode node = programWith(
      "; a comment\r\n"
      "USER: robot ; the user\r\n"
      "directory = /srv # with a comment\n"
      "environment=A=\"1\",\n"
      "  # a comment\n"
      "  B=2\n");
  EXPECT_THAT(node.options,
              ElementsAre(Pair("user", "robot"), Pair("directory", "/srv")));
  EXPECT_THAT(node.environment, ElementsAre(Pair("A", "1"), Pair("B", "2")));
}

TEST(ImportSupervisordTest, TheFileMayBeginWithAByteOrderMark) {
  EXPECT_THAT(supervisorNames(importSupervisor(
                  "\xef\xbb\xbf[program: camera ]\ncommand=a;b\t;c\n")),
              ElementsAre("camera"));
}

TEST(ImportSupervisordTest, BackslashesAreThoseOfAShell) {
  EXPECT_THAT(
      programWith("command=/x 'a\\b' \"a\\b\\\"\\\\\" \\\\ c\\\n").arguments,
      ElementsAre("a\\b", "a\\b\"\\", "\\", "c\\"));
}

TEST(ImportSupervisordTest, QuotedVariablesCanHaveCommas) {
  EXPECT_THAT(
      programWith("environment=A=\"x,y=z\", B='q',C=%(program_name)s\n")
          .environment,
      ElementsAre(Pair("A", "x,y=z"), Pair("B", "q"), Pair("C", "camera")));
}

TEST(ImportSupervisordTest, AVariableInTheCommandIsExpandedByVornrun) {
  const ImportedNode node =
      programWith("command=/bin/x %(ENV_MAP)s 100%% $A\n");
  EXPECT_THAT(node.arguments, ElementsAre("${MAP}", "100%", "$$A"));
  EXPECT_THAT(node.options, ElementsAre(Pair("expand", "")));
}

TEST(ImportSupervisordTest, VariablesMayEndWithCommas) {
  EXPECT_THAT(programWith("environment=A=1, ,\n").environment,
              ElementsAre(Pair("A", "1")));
}

TEST(ImportSupervisordTest, AnOptionThatVornrunDoesNotExpandIsOmitted) {
  const ImportedNode node =
      programWith("directory=~/x\numask=\nuser=%(ENV_USER)s\n");
  EXPECT_THAT(node.options, IsEmpty());
  EXPECT_THAT(omittedSettings(node),
              ElementsAre("user=%(ENV_USER)s", "directory=~/x"));
}

TEST(ImportSupervisordTest, AVariableThatNothingExpandsIsOmitted) {
  const ImportedNode node =
      programWith("environment=A=1,PATH=\"/x:%(ENV_PATH)s\"\n");
  EXPECT_THAT(node.environment, ElementsAre(Pair("A", "1")));
  EXPECT_THAT(omittedSettings(node),
              ElementsAre("environment PATH=/x:${PATH}"));
}

TEST(ImportSupervisordTest, AGroupAndSeveralProcessesAreNamedAsBySupervisor) {
  const Imported imported = importSupervisor(
      "[program:web]\ncommand=/bin/web %(process_num)d %(here)s\n"
      "process_name=%(program_name)s_%(process_num)02d\nnumprocs=2\n"
      "[program:db]\ncommand=/bin/db\n[program:own]\ncommand=/bin/own\n"
      "[group:all]\nprograms=web, db\n");
  EXPECT_THAT(supervisorNames(imported),
              ElementsAre("all:web_00", "all:web_01", "all:db", "own"));
  EXPECT_THAT(imported.nodes[1].arguments, ElementsAre("1", "/etc/x"));
}

TEST(ImportSupervisordTest, ThePriorityIsTheOrder) {
  const Imported imported = importSupervisor(
      "[program:c]\ncommand=/c\n[program:b]\ncommand=/b\npriority=20\n"
      "[program:a]\ncommand=/a\npriority=10\n"
      "[group:g]\nprograms=c\npriority=15\n");
  EXPECT_THAT(supervisorNames(imported), ElementsAre("a", "g:c", "b"));
}

TEST(ImportSupervisordTest, ALogFileIsALogDirectory) {
  const ImportedNode node = programWith(
      "stdout_logfile=/var/log/camera.log\nstdout_logfile_maxbytes=5MB\n"
      "stdout_logfile_backups=3\nstderr_logfile=AUTO\nredirect_stderr=true\n");
  EXPECT_THAT(node.options,
              ElementsAre(Pair("log-dir", "/var/log/camera"),
                          Pair("log-size", "5M"), Pair("log-keep", "3")));
  EXPECT_THAT(omittedSettings(node),
              ElementsAre("stdout_logfile=/var/log/camera.log"));
  EXPECT_THAT(programWith("stdout_logfile=/dev/stdout\n").options, IsEmpty());
}

TEST(ImportSupervisordTest, TheErrorsMayHaveTheOnlyLogFile) {
  const ImportedNode node = programWith(
      "stdout_logfile=NONE\nstderr_logfile=/var/log/x.log\n"
      "stderr_logfile_maxbytes=0\n");
  EXPECT_THAT(node.options, ElementsAre(Pair("log-dir", "/var/log/x")));
  EXPECT_THAT(
      omittedSettings(node),
      ElementsAre("stdout_logfile=NONE", "stderr_logfile=/var/log/x.log",
                  "stderr_logfile_maxbytes=0"));
}

TEST(ImportSupervisordTest, TheLogCanBeTheJournal) {
  EXPECT_THAT(programWith("stdout_logfile=syslog\nstderr_logfile=\n").options,
              ElementsAre(Pair("log", "journal")));
  EXPECT_THAT(omittedSettings(programWith("stdout_logfile=/dev/null\n")),
              ElementsAre("stdout_logfile=/dev/null"));
}

TEST(ImportSupervisordTest, RestartsAreThoseOfTheLauncher) {
  EXPECT_TRUE(programWith("autorestart=false\n").isOneshot);
  EXPECT_FALSE(programWith("autorestart=unexpected\n").isOneshot);
  EXPECT_FALSE(programWith("autostart=False\n").isStarted);
  EXPECT_THAT(programWith("startretries=2\nstartsecs=10\n").options,
              ElementsAre(Pair("give-up", "3/30s")));
  EXPECT_FALSE(programWith("autorestart=yes\n").isOneshot);
  EXPECT_THAT(programWith("startretries=1\n").options,
              ElementsAre(Pair("give-up", "2/10s")));
  EXPECT_THAT(omittedSettings(programWith("startsecs=2\n")),
              ElementsAre("startsecs=2"));
  EXPECT_THAT(programWith("startsecs=1\nstopsignal=SIGTERM\n").omitted,
              IsEmpty());
}

TEST(ImportSupervisordTest, SettingsOfTheLauncherAreNotOmitted) {
  EXPECT_THAT(programWith("stopsignal=TERM\nstopwaitsecs=10\nkillasgroup=false")
                  .omitted,
              IsEmpty());
}

TEST(ImportSupervisordTest, OtherSettingsAreOmittedWithAReason) {
  const ImportedNode node = programWith(
      "stopsignal=QUIT\nstopwaitsecs=60\nkillasgroup=true\nexitcodes=0,2\n"
      "surprise=1\n");
  EXPECT_THAT(
      omittedSettings(node),
      UnorderedElementsAre("stopsignal=QUIT", "stopwaitsecs=60",
                           "killasgroup=true", "exitcodes=0,2", "surprise=1"));
  EXPECT_THAT(node.omitted,
              Contains(Field(&Omitted::reason, HasSubstr("--cgroup"))));
}

TEST(ImportSupervisordTest, OtherSectionsAreOmittedWithAReason) {
  const Imported imported = importSupervisor(
      "[unix_http_server]\nfile=/run/x\n[supervisord]\nenvironment=A=1\n"
      "logfile=/var/log/x\n[rpcinterface:supervisor]\nx.y = z:w\n"
      "[eventlistener:e]\ncommand=/bin/e\n[include]\nfiles=*.ini\n"
      "[ctlplugin]\nx=1\n");
  EXPECT_THAT(imported.environment, ElementsAre(Pair("A", "1")));
  std::vector<std::string> settings;
  for (const Omitted& each : imported.omitted) settings.push_back(each.setting);
  EXPECT_THAT(
      settings,
      ElementsAre("", "[unix_http_server]", "[supervisord] logfile=/var/log/x",
                  "[rpcinterface:supervisor]", "[eventlistener:e]",
                  "[include] files=*.ini", "[ctlplugin]"));
}

TEST(ImportSupervisordTest, AnErrorNamesTheLine) {
  const std::string at = "/etc/x/supervisord.conf:";
  EXPECT_THAT(supervisordError("command=x\n"), HasSubstr(at + "1: a setting"));
  EXPECT_THAT(supervisordError("[program:x\n"), HasSubstr(at + "1: ']'"));
  const std::string start = "[program:x]\ncommand=/bin/x\n";
  EXPECT_THAT(supervisordError("[program:x]\n"), HasSubstr("1: [program:x]"));
  EXPECT_THAT(supervisordError(start + "nothing\n"), HasSubstr("3: expected"));
  EXPECT_THAT(supervisordError(start + "numprocs=many"), HasSubstr("3: nump"));
  EXPECT_THAT(supervisordError(start + "numprocs=2"), HasSubstr("1: process_"));
  EXPECT_THAT(supervisordError(start + "autostart=2"), HasSubstr("3: autos"));
  EXPECT_THAT(supervisordError(start + "command=a 'b"),
              HasSubstr("3: a quote"));
  EXPECT_THAT(supervisordError(start + "command=%(x)s"),
              HasSubstr("3: unknown"));
  EXPECT_THAT(supervisordError(start + "command=%x"), HasSubstr("3: '%'"));
  EXPECT_THAT(supervisordError(start + "environment=A"), HasSubstr("3: '='"));
  EXPECT_THAT(supervisordError(start + "environment=A='1"),
              HasSubstr("3: a quote in environment"));
  EXPECT_THAT(supervisordError(start + "command="),
              HasSubstr("3: the command is empty"));
  EXPECT_THAT(supervisordError(start + "command=%(x"), HasSubstr("3: '%'"));
  EXPECT_THAT(supervisordError(start + "=1"), HasSubstr("3: expected"));
  for (const char* const number : {"", "1x", "1000001"}) {
    EXPECT_THAT(supervisordError(start + "priority=" + number),
                HasSubstr("3: priority is not a number"));
  }
  for (const char* const count : {"-1", "1001"}) {
    EXPECT_THAT(supervisordError(start + "numprocs=" + count),
                HasSubstr("3: numprocs is not between"));
  }
}

}  // namespace
}  // namespace vorn::launch
