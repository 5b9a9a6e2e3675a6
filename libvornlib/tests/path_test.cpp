#include "vornlib/path.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "support/case_name.h"
#include "support/library_calls.h"
#include "support/log_capture.h"

// The root is settled once per process; CTest gives each test its own.

namespace vorn {
namespace {

using test::logLine;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

/// The parent of the directory of this test program.
std::string parentOfProgramDirectory() {
  std::array<char, 4096> path{};
  const ssize_t length = ::readlink("/proc/self/exe", path.data(), path.size());
  std::string root(path.data(), length > 0 ? static_cast<size_t>(length) : 0);
  for (int i = 0; i < 2; ++i) root.erase(root.rfind('/'));
  return root;
}

struct RootCase {
  const char* name;
  const char* variable;  // the value of VORN_ROOT
  const char* expected;
};

class ChosenRoot : public ::testing::TestWithParam<RootCase> {};

TEST_P(ChosenRoot, IsVornRootWithoutTrailingSlashes) {
  const test::LogCapture log;
  ::setenv("VORN_ROOT", GetParam().variable, 1);
  EXPECT_EQ(GetParam().expected, path::root());
  EXPECT_THAT(log.lines(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Path, ChosenRoot,
    ::testing::Values(RootCase{"Plain", "/opt/x", "/opt/x"},
                      RootCase{"TrailingSlash", "/opt/x/", "/opt/x"},
                      RootCase{"TrailingSlashes", "/opt/x///", "/opt/x"},
                      RootCase{"RootDirectory", "/", ""},
                      RootCase{"RootDirectoryTwice", "//", ""},
                      RootCase{"WithSpaces", "/opt/my root ", "/opt/my root "},
                      RootCase{"LikeThePrefix", "/opt/install/x",
                               "/opt/install/x"}),
    test::caseName<RootCase>);

TEST(PathTest, WithoutVornRootTheRootIsTheParentOfTheProgramsDirectory) {
  const test::LogCapture log;
  ::unsetenv("VORN_ROOT");
  EXPECT_EQ(parentOfProgramDirectory(), path::root());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(PathTest, AnEmptyVornRootIsAsGoodAsNone) {
  const test::LogCapture log;
  ::setenv("VORN_ROOT", "", 1);
  EXPECT_EQ(parentOfProgramDirectory(), path::root());
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(PathTest, TheRootDoesNotDependOnTheWorkingDirectory) {
  ::unsetenv("VORN_ROOT");
  const std::string expected = parentOfProgramDirectory();
  std::filesystem::current_path("/");
  EXPECT_EQ(expected, path::root());
}

TEST(PathTest, TheChosenRootIsFixedAtTheFirstUse) {
  ::setenv("VORN_ROOT", "/first", 1);
  const std::string& first = path::root();
  ::setenv("VORN_ROOT", "/second", 1);
  EXPECT_EQ("/first", path::root());
  ::unsetenv("VORN_ROOT");
  EXPECT_EQ("/first", path::root());
  EXPECT_EQ(&first, &path::root());
}

TEST(PathTest, AVornRootSetAfterTheFirstUseIsIgnored) {
  ::unsetenv("VORN_ROOT");
  const std::string first = path::root() + "";
  ::setenv("VORN_ROOT", "/second", 1);
  EXPECT_EQ(first, path::root());
}

TEST(PathTest, AVornRootSetBeforeTheFirstUseIsInTime) {
  ::setenv("VORN_ROOT", "/first", 1);
  ::setenv("VORN_ROOT", "/second", 1);
  EXPECT_EQ("/second", path::root());
}

class RefusedRoot : public ::testing::TestWithParam<RootCase> {};

TEST_P(RefusedRoot, IsOneWarningAndTheProgramsRoot) {
  const test::LogCapture log;
  const std::string chosen = GetParam().variable;
  ::setenv("VORN_ROOT", chosen.c_str(), 1);
  EXPECT_EQ(parentOfProgramDirectory(), path::root());
  EXPECT_EQ(parentOfProgramDirectory(), path::root());
  EXPECT_THAT(log.lines(),
              ElementsAre(logLine("WARN", false, "root",
                                  "VORN_ROOT '" + chosen +
                                      "' contains install:, using the "
                                      "executable's root")));
}

INSTANTIATE_TEST_SUITE_P(
    Path, RefusedRoot,
    ::testing::Values(RootCase{"ThePrefixAlone", "install://", nullptr},
                      RootCase{"ThePrefixFirst", "install://x", nullptr},
                      RootCase{"ThePrefixInside", "/opt/install://x", nullptr},
                      RootCase{"ThePrefixLast", "/opt/install://", nullptr},
                      RootCase{"ItsWordInside", "/opt/install:/x", nullptr},
                      RootCase{"ItsWordLast", "/opt/install:", nullptr},
                      RootCase{"ItsWordAlone", "install:", nullptr}),
    test::caseName<RootCase>);

/// The result of root() for this executable without VORN_ROOT.
const std::string& rootOfExecutable(const std::string& executable) {
  ::unsetenv("VORN_ROOT");
  test::libraryCalls().read_symlink = [&](const auto& link, auto&) {
    EXPECT_EQ("/proc/self/exe", link);
    return executable;
  };
  const std::string& root = path::root();
  test::libraryCalls() = {};
  return root;
}

TEST(ExecutableRootTest, WithDoubledInstallDirectoriesIsOneWarningAndRefused) {
  const test::LogCapture log;
  EXPECT_EQ("", rootOfExecutable("/opt/install:/install:/bin/vornlaunch"));
  EXPECT_EQ("", path::root());
  EXPECT_THAT(log.lines(),
              ElementsAre(logLine("WARN", false, "root",
                                  "The executable's root "
                                  "'/opt/install:/install:' contains "
                                  "install:/install:, using /")));
}

TEST(ExecutableRootTest, WithOneInstallDirectoryIsUsed) {
  const test::LogCapture log;
  EXPECT_EQ("/opt/install:", rootOfExecutable("/opt/install:/bin/vornlaunch"));
  EXPECT_THAT(log.lines(), IsEmpty());
}

TEST(ExecutableRootTest, WithoutProcIsTheRootDirectory) {
  const test::LogCapture log;
  EXPECT_EQ("", rootOfExecutable(""));
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace vorn
