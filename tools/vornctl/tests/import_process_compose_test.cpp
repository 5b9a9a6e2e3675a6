#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "import/process_compose.h"
#include "omitted_settings.h"

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Pair;
using ::testing::UnorderedElementsAre;

Imported importCompose(const std::string& text) {
  return importProcessCompose({SourceText("process-compose.yaml", text)});
}

/// The only process, with these lines at the right indentation.
ImportedNode processWith(const std::string& lines) {
  return importCompose("processes:\n  camera:\n" + lines).nodes.at(0);
}

ImportedNode cameraWith(const std::string& lines) {
  return processWith("    command: /bin/camera --map city\n" + lines);
}

std::string composeError(const std::string& text) {
  try {
    importCompose(text);
  } catch (const ImportError& error) {
    return error.what();
  }
  return "";
}

TEST(ImportProcessComposeTest, ASimpleCommandNeedsNoShell) {
  const ImportedNode node = cameraWith("");
  EXPECT_EQ(node.program, "/bin/camera");
  EXPECT_THAT(node.arguments, ElementsAre("--map", "city"));
  EXPECT_TRUE(node.isOneshot);
  EXPECT_THAT(node.omitted, IsEmpty());
}

TEST(ImportProcessComposeTest, AShellRunsOtherCommands) {
  const ImportedNode node =
      processWith("    command: \"exec camera --map '$MAP'\"\n");
  EXPECT_EQ(node.program, "/bin/bash");
  EXPECT_THAT(node.arguments, ElementsAre("-c", "exec camera --map '$MAP'"));
  EXPECT_THAT(node.omitted, IsEmpty());
  // Without exec, a stop reaches only the shell.
  EXPECT_THAT(omittedSettings(processWith("    command: a && b\n")),
              ElementsAre(""));
  for (const char* const command : {"cd x", "A=1 camera"}) {
    EXPECT_EQ(
        processWith("    command: " + std::string(command) + "\n").program,
        "/bin/bash")
        << command;
  }
}

TEST(ImportProcessComposeTest, AnEntrypointIsAListOfWords) {
  EXPECT_THAT(processWith("    entrypoint: [/bin/x, 'a b']\n").arguments,
              ElementsAre("a b"));
}

TEST(ImportProcessComposeTest, TheShellOfTheFileIsUsed) {
  const Imported imported = importCompose(
      "shell: {shell_command: /bin/dash, shell_argument: -ec}\n"
      "environment: [A=1]\nlog_level: debug\n"
      "processes: {x: {command: 'a;b'}}\n");
  EXPECT_EQ(imported.nodes[0].program, "/bin/dash");
  EXPECT_THAT(imported.nodes[0].arguments, ElementsAre("-ec", "a;b"));
  EXPECT_THAT(imported.environment, ElementsAre(Pair("A", "1")));
  EXPECT_EQ(imported.omitted.at(0).setting, "log_level=debug");
}

TEST(ImportProcessComposeTest, OtherSettingsOfTheFileMayBeOmitted) {
  const Imported imported = importCompose(
      "version: '0.5'\nshell: {shell_command: /bin/ksh}\nvars: {A: 1}\n"
      "environment:\nprocesses: {x: {command: 'a;b'}}\n");
  EXPECT_EQ(imported.nodes[0].program, "/bin/ksh");
  EXPECT_THAT(imported.nodes[0].arguments, ElementsAre("-c", "a;b"));
  ASSERT_EQ(imported.omitted.size(), 1U);
  EXPECT_EQ(imported.omitted[0].setting, "vars=...");
  EXPECT_EQ(importCompose("shell: bash\nprocesses: {}\n").omitted[0].setting,
            "shell=bash");
}

TEST(ImportProcessComposeTest, SettingsAreOptionsAndVariables) {
  const ImportedNode node = cameraWith(
      "    working_dir: /srv\n    is_tty: true\n    disabled: true\n"
      "    log_location: /var/log/camera.log\n"
      "    environment:\n      - A=x y\n      - B=$HOME\n");
  EXPECT_THAT(node.options,
              ElementsAre(Pair("directory", "/srv"), Pair("pty", ""),
                          Pair("log-dir", "/var/log/camera")));
  EXPECT_THAT(node.environment, ElementsAre(Pair("A", "x y")));
  EXPECT_FALSE(node.isStarted);
  EXPECT_THAT(
      omittedSettings(node),
      ElementsAre("log_location=/var/log/camera.log", "environment B=$HOME"));
}

TEST(ImportProcessComposeTest, SettingsHaveOtherForms) {
  const ImportedNode node = cameraWith(
      "    env_file: /etc/x\n    is_tty: no\n    disabled: no\n"
      "    description: The camera\n    environment: {A: 1, B: $C}\n");
  EXPECT_THAT(node.options, ElementsAre(Pair("env-file", "/etc/x")));
  EXPECT_THAT(node.environment, ElementsAre(Pair("A", "1")));
  EXPECT_TRUE(node.isStarted);
  EXPECT_THAT(omittedSettings(node), ElementsAre("", "environment B=$C"));
  EXPECT_EQ(node.omitted[0].reason, "The camera");
  EXPECT_THAT(cameraWith("    environment:\n").environment, IsEmpty());
}

TEST(ImportProcessComposeTest, RestartsAreThoseOfTheLauncher) {
  EXPECT_FALSE(cameraWith("    availability: {restart: always}\n").isOneshot);
  const ImportedNode node = cameraWith(
      "    availability: {restart: on_failure, backoff_seconds: 10,\n"
      "                   max_restarts: 3}\n");
  EXPECT_FALSE(node.isOneshot);
  EXPECT_THAT(node.options, ElementsAre(Pair("backoff", "10s..10s")));
  EXPECT_THAT(omittedSettings(node),
              UnorderedElementsAre("availability.restart=on_failure",
                                   "max_restarts=3"));
  const ImportedNode last = cameraWith(
      "    availability: {restart: exit_on_failure, backoff_seconds: 5,\n"
      "                   exit_on_end: true, exit_on_skipped: false}\n");
  EXPECT_TRUE(last.isOneshot);
  EXPECT_THAT(omittedSettings(last),
              UnorderedElementsAre("availability.restart=exit_on_failure",
                                   "backoff_seconds=5",
                                   "availability.exit_on_end=true"));
}

TEST(ImportProcessComposeTest, ProbesAreConditions) {
  EXPECT_THAT(cameraWith("    readiness_probe:\n"
                         "      exec: {command: check x}\n")
                  .options,
              ElementsAre(Pair("ready", "exec:check x")));
  EXPECT_THAT(
      cameraWith("    liveness_probe:\n      period_seconds: 5\n"
                 "      failure_threshold: 2\n"
                 "      http_get: {port: 80, path: /up}\n")
          .options,
      ElementsAre(Pair("probe", "http://127.0.0.1:80/up"),
                  Pair("probe-period", "5s"), Pair("probe-failures", "2")));
  EXPECT_THAT(
      cameraWith("    liveness_probe:\n"
                 "      http_get: {port: 80, path: up, scheme: https}\n")
          .options,
      ElementsAre(Pair("probe", "https://127.0.0.1:80/up")));
}

TEST(ImportProcessComposeTest, DependenciesAreTheOrderAndConditions) {
  const Imported imported = importCompose(
      "processes:\n"
      "  a:\n    command: a\n    depends_on:\n"
      "      b: {condition: process_healthy}\n"
      "      c: {condition: process_completed}\n"
      "  b:\n    command: b\n"
      "    readiness_probe: {http_get: {host: h, port: 1}}\n"
      "  c: {command: c}\n");
  std::vector<std::string> names;
  for (const ImportedNode& node : imported.nodes) names.push_back(node.name);
  EXPECT_THAT(names, ElementsAre("b", "c", "a"));
  EXPECT_THAT(imported.nodes[0].options, ElementsAre(Pair("ready", "tcp:h:1")));
  EXPECT_THAT(imported.nodes[2].options,
              ElementsAre(Pair("wait-for", "http://h:1/")));
  EXPECT_THAT(omittedSettings(imported.nodes[2]),
              ElementsAre("depends_on c=process_completed"));
}

TEST(ImportProcessComposeTest, ADependencyMayNeedNoCondition) {
  const Imported imported = importCompose(
      "processes:\n"
      "  a:\n    command: a\n    depends_on:\n"
      "      b: {condition: process_started}\n      c:\n"
      "      d: {condition: process_healthy}\n"
      "  b: {command: b}\n  c: {command: c}\n  d: {command: d}\n");
  EXPECT_EQ(imported.nodes[3].name, "a");
  EXPECT_THAT(imported.nodes[3].options, IsEmpty());
  // A process without a probe is not healthy at any time.
  EXPECT_THAT(omittedSettings(imported.nodes[3]),
              ElementsAre("depends_on d=process_healthy"));
}

TEST(ImportProcessComposeTest, ReplicasAreNodes) {
  const Imported imported =
      importCompose("processes: {x: {command: y, replicas: 2}}");
  ASSERT_EQ(imported.nodes.size(), 2U);
  EXPECT_EQ(imported.nodes[1].name, "x-1");
}

TEST(ImportProcessComposeTest, OtherKeysAreOmittedWithAReason) {
  EXPECT_THAT(
      omittedSettings(
          cameraWith("    is_daemon: true\n    surprise: [1]\n"
                     "    shutdown: {signal: 2, timeout_seconds: 10}\n")),
      ElementsAre("shutdown.signal=2", "is_daemon=true", "surprise=..."));
  EXPECT_THAT(omittedSettings(cameraWith(
                  "    shutdown: {signal: 15, timeout_seconds: 3}\n")),
              ElementsAre("shutdown.timeout_seconds=3"));
}

TEST(ImportProcessComposeTest, AnErrorNamesTheLine) {
  EXPECT_THAT(composeError("a: [1"), HasSubstr("process-compose.yaml:1: "));
  EXPECT_THAT(composeError("- a\n"), HasSubstr("process-compose.yaml: no map"));
  EXPECT_THAT(composeError("a: 1\n"), HasSubstr("no 'processes'"));
  EXPECT_THAT(composeError("processes:\n  a: 1\n"),
              HasSubstr(":2: process 'a'"));
  EXPECT_THAT(composeError("processes:\n  a:\n    x: 1\n"),
              HasSubstr(":3: process 'a' has no command"));
  EXPECT_THAT(composeError("processes:\n  a:\n    command: [x]\n"),
              HasSubstr(":3: command is not a text"));
}

TEST(ImportProcessComposeTest, AValueOfAnotherKindIsAnError) {
  const auto error = [](const std::string& line) {
    return composeError("processes:\n  a:\n    command: x\n    " + line + "\n");
  };
  for (const char* const number : {"many", "-1", "1e7", "[1]"}) {
    EXPECT_THAT(error("replicas: " + std::string(number)),
                HasSubstr(":4: replicas is not a number"));
  }
  EXPECT_THAT(error("replicas: 1001"), HasSubstr(":4: more than 1000"));
  EXPECT_THAT(error("is_tty: 1"), HasSubstr(":4: is_tty is not true or"));
  EXPECT_THAT(error("disabled: [x]"), HasSubstr(":4: disabled is not true"));
  EXPECT_THAT(error("availability: x"),
              HasSubstr(":4: availability is not a mapping"));
  EXPECT_THAT(error("entrypoint: x"), HasSubstr(":4: entrypoint is not a l"));
  for (const char* const variable : {"A", "=b"}) {
    EXPECT_THAT(error("environment: [" + std::string(variable) + "]"),
                HasSubstr("' is not NAME=VALUE"));
  }
}

}  // namespace
}  // namespace vorn::launch
