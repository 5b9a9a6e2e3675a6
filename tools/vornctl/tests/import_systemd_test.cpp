#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "import/systemd.h"
#include "import/systemd_unit.h"
#include "omitted_settings.h"

namespace vorn::launch {
namespace {

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;

SourceText unitText(const std::string& name, const std::string& text) {
  return {"/lib/" + name + ".service", text};
}

/// The node of a unit with these lines in [Service].
ImportedNode serviceWith(const std::string& lines,
                         const std::string& name = "camera") {
  return importSystemd({unitText(name, "[Service]\n" + lines)}).nodes.at(0);
}

/// As serviceWith(), for a service with a program that is always restarted.
ImportedNode runningWith(const std::string& lines) {
  return serviceWith("ExecStart=/bin/x\nRestart=always\n" + lines);
}

std::string unitError(const std::string& text) {
  try {
    importSystemd({unitText("camera", text)});
  } catch (const ImportError& error) {
    return error.what();
  }
  return "";
}

TEST(ImportSystemdTest, ACommandIsSplitAsBySystemd) {
  const ImportedNode node = serviceWith(
      "ExecStart=-/usr/sbin/camera --map 'a b' \"c\\x20d\\\"\" \\\n"
      "# a comment\n  --rate=5 %% %p $$x\nRestart=always\n");
  EXPECT_EQ(node.program, "/usr/sbin/camera");
  EXPECT_THAT(node.arguments, ElementsAre("--map", "a b", "c d\"", "--rate=5",
                                          "%", "camera", "$x"));
  EXPECT_THAT(node.options, IsEmpty());
  EXPECT_THAT(node.omitted, IsEmpty());
}

TEST(ImportSystemdTest, AShellExpandsVariables) {
  const ImportedNode node =
      serviceWith("ExecStart=/usr/sbin/sshd -D $SSHD_OPTS --map=${MAP} a$$b\n");
  EXPECT_EQ(node.program, "/bin/sh");
  EXPECT_THAT(node.arguments,
              ElementsAre("-c",
                          "exec \"/usr/sbin/sshd\" \"-D\" $SSHD_OPTS "
                          "\"--map=${MAP}\" \"a\\$b\""));
}

TEST(ImportSystemdTest, AnUnknownEscapeStaysAsItIs) {
  EXPECT_THAT(
      serviceWith(
          "ExecStart=/x \\ta\\s \\q \\\\ \\' \\x4 \\xzz \\x4g \\xg4 a\\x20\n")
          .arguments,
      ElementsAre("\ta ", "\\q", "\\", "'", "\\x4", "\\xzz", "\\x4g", "\\xg4",
                  "a "));
}

TEST(ImportSystemdTest, AWordForTheShellIsQuoted) {
  EXPECT_THAT(
      serviceWith("ExecStart=/bin/x $A \"b\\\"c\" d\\\\e f`g $ $-\n").arguments,
      ElementsAre("-c",
                  "exec \"/bin/x\" $A \"b\\\"c\" \"d\\\\e\" \"f\\`g\" "
                  "\"$\" \"$-\""));
}

TEST(ImportSystemdTest, ThePrefixColonKeepsDollars) {
  const ImportedNode node = serviceWith("ExecStart=:/bin/x ${A} $$\n");
  EXPECT_THAT(node.arguments, ElementsAre("${A}", "$$"));
  EXPECT_THAT(node.options, IsEmpty());
}

TEST(ImportSystemdTest, OtherPrefixesAreRemovedAndMayNeedAttention) {
  const ImportedNode renamed = serviceWith("ExecStart=@/bin/x name a\n");
  EXPECT_EQ(renamed.program, "/bin/x");
  EXPECT_THAT(renamed.arguments, ElementsAre("a"));
  EXPECT_THAT(omittedSettings(renamed),
              ElementsAre("ExecStart=@/bin/x name a"));
  EXPECT_THAT(omittedSettings(serviceWith("ExecStart=+/bin/x\n")),
              ElementsAre("ExecStart=+/bin/x"));
  EXPECT_THAT(omittedSettings(serviceWith("ExecStart=!!/bin/x\n")),
              ElementsAre("ExecStart=!!/bin/x"));
  EXPECT_THAT(omittedSettings(serviceWith("ExecStart=-@/bin/x\n")), IsEmpty());
}

TEST(ImportSystemdTest, OnlyTheFirstOfSeveralCommandsIsTheProgram) {
  const ImportedNode node =
      serviceWith("Type=oneshot\nExecStart=/bin/a\nExecStart=/bin/b\n");
  EXPECT_EQ(node.program, "/bin/a");
  EXPECT_THAT(omittedSettings(node), ElementsAre("ExecStart=/bin/b"));
}

TEST(ImportSystemdTest, ASpecifierIsReplacedByItsValue) {
  const ImportedNode node = serviceWith(
      "ExecStart=/bin/x %n %N %p %i%I %t %S %C %L %E %T %V %h %u%g %U%G %\n",
      "camera@left");
  EXPECT_THAT(
      node.arguments,
      ElementsAre("camera@left.service", "camera@left", "camera", "leftleft",
                  "/run", "/var/lib", "/var/cache", "/var/log", "/etc", "/tmp",
                  "/var/tmp", "/root", "rootroot", "00", "%"));
  EXPECT_THAT(omittedSettings(node), IsEmpty());
  EXPECT_THAT(omittedSettings(serviceWith("ExecStart=/bin/x %H%i\n")),
              ElementsAre("%H in /bin/x %H%i", "%i in /bin/x %H%i"));
}

TEST(ImportSystemdTest, ADurationIsASumOfNumbersWithUnits) {
  using std::chrono::hours;
  using std::chrono::milliseconds;
  EXPECT_EQ(unitDuration("5"), milliseconds(5000));
  EXPECT_EQ(unitDuration("2 min 1.5s"), milliseconds(121'500));
  EXPECT_EQ(unitDuration("250us 3ms"), milliseconds(3));
  EXPECT_EQ(unitDuration("1d 1h"), hours(25));
  for (const char* const text :
       {"", "infinity", "s", "-1", "2e9", "999999999d", "1 fortnight"}) {
    EXPECT_FALSE(unitDuration(text)) << text;
  }
  EXPECT_EQ(durationText(milliseconds(1500)), "1500ms");
}

TEST(ImportSystemdTest, IdentityAndEnvironmentAreOptionsAndVariables) {
  const ImportedNode node = runningWith(
      "User=robot\nGroup=video\nUMask=027\nWorkingDirectory=-/srv/%p\n"
      "Environment=\"A=x y\" B=2\nEnvironment=C='3'\n"
      "EnvironmentFile=-/etc/default/%p\nNoNewPrivileges=yes\n");
  EXPECT_THAT(node.options,
              ElementsAre(Pair("user", "robot:video"), Pair("umask", "027"),
                          Pair("directory", "/srv/camera"),
                          Pair("env-file", "-/etc/default/camera"),
                          Pair("no-new-privs", "")));
  EXPECT_THAT(node.environment,
              ElementsAre(Pair("A", "x y"), Pair("B", "2"), Pair("C", "3")));
}

TEST(ImportSystemdTest, IdentityMayBePartial) {
  EXPECT_THAT(runningWith("User=robot\nNoNewPrivileges=no\n").options,
              ElementsAre(Pair("user", "robot")));
  EXPECT_THAT(
      runningWith("Group=video\nNoNewPrivileges=On\n").options,
      ElementsAre(Pair("user", "root:video"), Pair("no-new-privs", "")));
  EXPECT_THAT(omittedSettings(runningWith("WorkingDirectory=~\n")),
              ElementsAre("WorkingDirectory=~"));
}

TEST(ImportSystemdTest, LimitsAndSchedulingAreOptions) {
  EXPECT_THAT(
      runningWith("LimitNOFILE=1024:4096\nLimitCORE=infinity\nNice=-5\n"
                  "CPUAffinity=0-1, 3\nCPUSchedulingPolicy=fifo\n"
                  "CPUSchedulingPriority=20\nIOSchedulingClass=idle\n"
                  "IOSchedulingPriority=3\nOOMScoreAdjust=-100\n")
          .options,
      ElementsAre(Pair("limit", "core=infinity"),
                  Pair("limit", "nofile=1024:4096"), Pair("nice", "-5"),
                  Pair("oom-score-adj", "-100"), Pair("cpu-list", "0-1,3"),
                  Pair("sched", "fifo:20"), Pair("ionice", "idle")));
}

TEST(ImportSystemdTest, SchedulingHasDefaultLevels) {
  EXPECT_THAT(
      runningWith("CPUSchedulingPolicy=rr\nIOSchedulingPriority=3\n").options,
      ElementsAre(Pair("sched", "rr:1"), Pair("ionice", "best-effort:3")));
  EXPECT_THAT(runningWith("CPUSchedulingPolicy=batch\nCPUSchedulingPriority=3\n"
                          "IOSchedulingClass=realtime\n")
                  .options,
              ElementsAre(Pair("sched", "batch"), Pair("ionice", "realtime")));
}

TEST(ImportSystemdTest, ReadinessAndWatchdogAreOptions) {
  EXPECT_THAT(runningWith("Type=notify\nWatchdogSec=1min 30s\n"
                          "WatchdogSignal=SIGQUIT\n")
                  .options,
              ElementsAre(Pair("ready", "notify"), Pair("watchdog", "90s"),
                          Pair("watchdog-signal", "SIGQUIT")));
  EXPECT_THAT(runningWith("Type=simple\nWatchdogSec=0\n").options, IsEmpty());
  EXPECT_THAT(omittedSettings(runningWith("Type=dbus\nWatchdogSec=soon\n")),
              ElementsAre("Type=dbus", "WatchdogSec=soon"));
}

TEST(ImportSystemdTest, AProgramInTheBackgroundIsOmitted) {
  EXPECT_THAT(omittedSettings(runningWith("Type=forking\nPIDFile=/run/x\n")),
              ElementsAre("Type=forking", "PIDFile=/run/x"));
}

TEST(ImportSystemdTest, WithoutRestartTheNodeIsAOneshot) {
  EXPECT_TRUE(serviceWith("ExecStart=/bin/x\n").isOneshot);
  EXPECT_TRUE(serviceWith("ExecStart=/bin/x\nType=oneshot\n").isOneshot);
  EXPECT_FALSE(runningWith("").isOneshot);
  const ImportedNode node =
      serviceWith("ExecStart=/bin/x\nRestart=on-failure\n");
  EXPECT_FALSE(node.isOneshot);
  EXPECT_THAT(omittedSettings(node), ElementsAre("Restart=on-failure"));
}

TEST(ImportSystemdTest, DelaysAndLimitsOfRestartsAreOptions) {
  EXPECT_THAT(
      runningWith("RestartSec=10\nRestartMaxDelaySec=1min\n"
                  "StartLimitBurst=3\nStartLimitIntervalSec=120\n")
          .options,
      ElementsAre(Pair("backoff", "10s..60s"), Pair("give-up", "3/120s")));
  EXPECT_THAT(omittedSettings(runningWith("RestartSec=100ms\n")),
              ElementsAre("RestartSec=100ms"));
  EXPECT_THAT(
      omittedSettings(runningWith("RestartSec=1\nRestartMaxDelaySec=never\n")),
      ElementsAre("RestartSec=1"));
}

TEST(ImportSystemdTest, ALimitOfStartsHasDefaults) {
  EXPECT_THAT(runningWith("StartLimitInterval=5min\n").options,
              ElementsAre(Pair("give-up", "5/300s")));
  // As many starts take longer than ten seconds.
  EXPECT_THAT(runningWith("StartLimitBurst=3\n").options,
              ElementsAre(Pair("give-up", "3/20s")));
  for (const char* const unlimited :
       {"StartLimitBurst=0\n", "StartLimitBurst=1001\n",
        "StartLimitIntervalSec=0\n", "StartLimitIntervalSec=always\n"}) {
    EXPECT_THAT(runningWith(unlimited).options, IsEmpty()) << unlimited;
  }
}

TEST(ImportSystemdTest, AnOutputFileIsALogDirectory) {
  EXPECT_THAT(runningWith("StandardOutput=append:/var/log/x.log\n"
                          "StandardError=file:/var/log/y.log\n")
                  .options,
              ElementsAre(Pair("log-dir", "/var/log/x")));
  EXPECT_THAT(runningWith("StandardError=truncate:/var/log/y.log\n").options,
              ElementsAre(Pair("log-dir", "/var/log/y")));
}

TEST(ImportSystemdTest, TheLaunchersOutputReplacesOtherOutputs) {
  const ImportedNode node =
      runningWith("StandardOutput=inherit\nStandardError=null\n");
  EXPECT_THAT(node.options, IsEmpty());
  EXPECT_THAT(omittedSettings(node), ElementsAre("StandardError=null"));
}

TEST(ImportSystemdTest, AnEmptyValueRemovesTheEarlierOnes) {
  const ImportedNode node = serviceWith(
      "ExecStart=/bin/a\nExecStart=\nExecStart=/bin/b\nRestart=always\n"
      "Environment=A=1\nEnvironment=\n");
  EXPECT_EQ(node.program, "/bin/b");
  EXPECT_THAT(node.environment, IsEmpty());
}

TEST(ImportSystemdTest, OtherSettingsAreOmittedWithAReason) {
  const ImportedNode node = runningWith(
      "ExecStartPre=/bin/mkdir x\nKillMode=mixed\nRuntimeDirectory=x\n"
      "CapabilityBoundingSet=\nSurprise=1\nX-Own=2\n");
  EXPECT_THAT(omittedSettings(node),
              ElementsAre("ExecStartPre=/bin/mkdir x", "KillMode=mixed",
                          "RuntimeDirectory=x",
                          "CapabilityBoundingSet=", "Surprise=1"));
  EXPECT_THAT(node.omitted,
              Contains(Field(&Omitted::reason, HasSubstr("systemd-tmpfiles"))));
}

TEST(ImportSystemdTest, UnitsAreInTheOrderOfAfterAndBefore) {
  const std::string service = "\n[Service]\nExecStart=/bin/x\n";
  const Imported imported = importSystemd(
      {unitText("a", "[Unit]\nAfter=b.service c.service" + service),
       unitText("b", "[Unit]\nAfter=network.target" + service),
       unitText("c", "[Unit]\nBefore=b.service" + service)});
  std::vector<std::string> names;
  for (const ImportedNode& node : imported.nodes) names.push_back(node.name);
  EXPECT_THAT(names, ElementsAre("c", "b", "a"));
  EXPECT_THAT(omittedSettings(imported.nodes[1]),
              ElementsAre("After=network.target"));
}

TEST(ImportSystemdTest, AUnitThatIsRestartedWithAnotherIsInItsRequired) {
  const std::string service = "\n[Service]\nExecStart=/bin/x\n";
  const Imported imported =
      importSystemd({unitText("a", "[Unit]\nPartOf=b.service" + service),
                     unitText("b", "[Unit]\nRequires=a.service" + service)});
  EXPECT_THAT(imported.nodes[1].required, ElementsAre("a"));
  // A cycle would deadlock the launcher.
  EXPECT_THAT(imported.nodes[0].required, IsEmpty());
}

TEST(ImportSystemdTest, RelationsToImportedUnitsMayNeedAttention) {
  const std::string service = "\n[Service]\nExecStart=/bin/x\n";
  const Imported imported = importSystemd(
      {unitText("a",
                "[Unit]\nWants=b.service\nRequires=b.service\n"
                "BindsTo=b.service\nRequisite=b.service\n"
                "Conflicts=b.service" +
                    service),
       unitText(
           "b",
           "[Unit]\nDescription=Map\nConditionPathExists=/x\nAssertHost=y" +
               service)});
  EXPECT_THAT(omittedSettings(imported.nodes[0]),
              ElementsAre("Requires=b.service", "Requisite=b.service",
                          "BindsTo=b.service", "Conflicts=b.service"));
  EXPECT_THAT(omittedSettings(imported.nodes[1]),
              ElementsAre("", "ConditionPathExists=/x", "AssertHost=y"));
  EXPECT_EQ(imported.nodes[1].omitted[0].reason, "Map");
}

TEST(ImportSystemdTest, AUnitHasTheNameOfItsFile) {
  const std::string text = "[Service]\nExecStart=/bin/x\n";
  EXPECT_EQ(importSystemd({SourceText("<stdin>", text, true)}).nodes[0].name,
            "node");
  for (const char* const name :
       {"/lib/x.socket", "/lib/.service", "x", "x.service.bak"}) {
    EXPECT_THROW(importSystemd({SourceText(name, text)}), ImportError) << name;
  }
  EXPECT_THROW(importSystemd({unitText("x", text), unitText("x", text)}),
               ImportError);
}

TEST(ImportSystemdTest, SystemctlCatNamesTheUnit) {
  const SourceText file("<stdin>",
                        "# /lib/systemd/system/x@1.service\n[Service]\n"
                        "ExecStart=/bin/x %i\n",
                        true);
  const ImportedNode node = importSystemd({file}).nodes.at(0);
  EXPECT_EQ(node.name, "x@1");
  EXPECT_THAT(node.arguments, ElementsAre("1"));
}

TEST(ImportSystemdTest, AnErrorNamesTheLine) {
  EXPECT_EQ(unitError("[Unit]\nAfter=x\n"),
            "/lib/camera.service: no section [Service]; only services can be "
            "imported");
  EXPECT_THAT(unitError("[Service]\nUser=x\n"), HasSubstr(": no ExecStart"));
  EXPECT_THAT(unitError("[Service]\nfoo\n"), HasSubstr(":2: expected"));
  EXPECT_THAT(unitError("[Service]\nExecStart=/x 'y\n"), HasSubstr(":2: a qu"));
  EXPECT_THAT(unitError("[Service]\nExecStart=%H\n"), HasSubstr("no program"));
  EXPECT_THAT(unitError("[Service]\nExecStart=/x\nEnvironment=A\n"),
              HasSubstr(":3: 'A' is not"));
  EXPECT_THAT(unitError("[Service]\nExecStart=/x\nEnvironment='A=1\n"),
              HasSubstr(":3: a quote"));
}

}  // namespace
}  // namespace vorn::launch
