#include "process/environment.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>

namespace vorn::run {
namespace {

using testing::ElementsAre;
using testing::UnorderedElementsAre;

Environment environmentOf(
    const std::vector<std::pair<std::string, std::string>>& variables) {
  Environment result;
  for (const auto& [name, value] : variables) result.set(name, value);
  return result;
}

std::vector<std::string> built(const RunSettings& settings,
                               const Environment& inherited,
                               const Account* account = nullptr) {
  Environment result;
  const auto error = buildEnvironment(settings, account, inherited, result);
  EXPECT_FALSE(error) << error->reason;
  return result.entries();
}

/// A file with this content, removed at the end of the scope.
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& text)
      : path_(testing::TempDir() + "vornrun_environment_" +
              std::to_string(::getpid())) {
    std::ofstream(path_) << text;
  }
  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;
  ~TemporaryFile() { (void)std::remove(path_.c_str()); }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

TEST(Environment, AVariableReplacesTheOneOfTheSameName) {
  Environment environment =
      environmentOf({{"A", "1"}, {"AB", "2"}, {"A", "3"}});
  EXPECT_EQ(environment.find("A"), "3");
  environment.unset("A");
  EXPECT_THAT(environment.entries(), ElementsAre("AB=2"));
}

TEST(Environment, LaterSourcesReplaceEarlierOnes) {
  const TemporaryFile file("A=file\nB=file\nHOME=/file\n");
  RunSettings settings;
  settings.environmentFiles = {file.path()};
  settings.environment = {{"B", "option"}};
  Account account;
  account.name = "robot";
  account.home = "/home/robot";
  EXPECT_THAT(
      built(settings, environmentOf({{"A", "old"}, {"C", "old"}}), &account),
      UnorderedElementsAre("A=file", "B=option", "C=old", "HOME=/file",
                           "LOGNAME=robot", "USER=robot", "SHELL=/bin/sh"));
}

TEST(Environment, AClearedEnvironmentKeepsTheNameOfTheNode) {
  RunSettings settings;
  settings.clearEnvironment = true;
  EXPECT_THAT(
      built(settings, environmentOf({{"A", "1"},
                                     {"__VORN_NODE_NAME__", "x(vornlaunch)"}})),
      ElementsAre("__VORN_NODE_NAME__=x(vornlaunch)"));
}

TEST(Environment, TheSocketOfTheUnitIsNotPassedOn) {
  EXPECT_THAT(built(RunSettings(), environmentOf({{"NOTIFY_SOCKET", "/n"},
                                                  {"WATCHDOG_USEC", "1"},
                                                  {"WATCHDOG_PID", "1"}})),
              testing::IsEmpty());
}

TEST(Environment, AFileAfterADashMayBeMissing) {
  RunSettings settings;
  settings.environmentFiles = {"-/nonexistent/f"};
  EXPECT_THAT(built(settings, Environment()), testing::IsEmpty());
  settings.environmentFiles = {"/nonexistent/f"};
  Environment result;
  const auto error = buildEnvironment(settings, nullptr, Environment(), result);
  ASSERT_TRUE(error);
  EXPECT_EQ(error->reason,
            "cannot read /nonexistent/f: No such file or directory");
}

std::string expanded(const std::string& text) {
  std::string missing;
  const auto result =
      expandVariables(text, environmentOf({{"A", "1"}, {"A_B", "2"}}), missing);
  return result.value_or("missing " + missing);
}

TEST(ExpandVariables, ANameIsReplacedByItsValue) {
  EXPECT_EQ(expanded("$A ${A}_B $A_B/$A"), "1 1_B 2/1");
}

TEST(ExpandVariables, OtherDollarsAreUnchanged) {
  EXPECT_EQ(expanded("$ $1 ${A ${} ${A-b} $"), "$ $1 ${A ${} ${A-b} $");
}

TEST(ExpandVariables, TwoDollarsAreOne) { EXPECT_EQ(expanded("$$A"), "$A"); }

TEST(ExpandVariables, AVariableThatIsNotSetIsAnError) {
  EXPECT_EQ(expanded("${A}$C"), "missing C");
}

}  // namespace
}  // namespace vorn::run
