#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "parser.h"
#include "support/case_name.h"
#include "support/log_capture.h"
#include "vornlib/path.h"

// The root is settled once per process; CTest gives each test its own.

namespace vorn::launch {
namespace {

using ::testing::SizeIs;

struct ExpansionCase {
  const char* name;
  const char* root;  // the value of VORN_ROOT
  const char* value;
  const char* expected;
};

class InstallRoot : public ::testing::TestWithParam<ExpansionCase> {};

TEST_P(InstallRoot, ReplacesThePrefixUpToItsLastSlash) {
  ::setenv("VORN_ROOT", GetParam().root, 1);
  EXPECT_EQ(GetParam().expected, expandInstallRoot(GetParam().value));
}

INSTANTIATE_TEST_SUITE_P(
    Values, InstallRoot,
    ::testing::Values(
        ExpansionCase{"AtTheBeginning", "/opt/x", "install://lib",
                      "/opt/x/lib"},
        ExpansionCase{"ThePrefixAlone", "/opt/x", "install://", "/opt/x/"},
        ExpansionCase{"InTheMiddle", "/opt/x", "pre-install://x",
                      "pre-/opt/x/x"},
        ExpansionCase{"AtTheEnd", "/opt/x", "a:install://", "a:/opt/x/"},
        ExpansionCase{"Several", "/opt/x",
                      "install://lib:install://lib64:/usr/local/lib",
                      "/opt/x/lib:/opt/x/lib64:/usr/local/lib"},
        ExpansionCase{"SideBySide", "/opt/x", "install://install://",
                      "/opt/x//opt/x/"},
        ExpansionCase{"WithAThirdSlash", "/opt/x", "install:///lib",
                      "/opt/x//lib"},
        // The first replacement creates a prefix that begins before it.
        ExpansionCase{"FromTheBeginningAgain", "/opt/x", "install:/install://y",
                      "/opt/x/opt/x/y"},
        ExpansionCase{"NoPrefix", "/opt/x", "/usr/lib", "/usr/lib"},
        ExpansionCase{"Empty", "/opt/x", "", ""},
        ExpansionCase{"OneSlashIsNoPrefix", "/opt/x", "install:/lib",
                      "install:/lib"},
        ExpansionCase{"CapitalsAreNoPrefix", "/opt/x", "INSTALL://lib",
                      "INSTALL://lib"}),
    test::caseName<ExpansionCase>);

INSTANTIATE_TEST_SUITE_P(
    Roots, InstallRoot,
    ::testing::Values(ExpansionCase{"TrailingSlash", "/opt/x/", "install://lib",
                                    "/opt/x/lib"},
                      ExpansionCase{"RootDirectory", "/", "install://lib",
                                    "/lib"},
                      ExpansionCase{"TwoLeadingSlashes", "//host/x",
                                    "install://lib:install://bin",
                                    "//host/x/lib://host/x/bin"},
                      // The root's slashes complete a prefix in front of it.
                      ExpansionCase{"TwoLeadingSlashesAfterAHalfPrefix", "//x",
                                    "install:install://lib", "//x/x/lib"}),
    test::caseName<ExpansionCase>);

class RefusedInstallRoot : public ::testing::TestWithParam<ExpansionCase> {};

TEST_P(RefusedInstallRoot, IsReplacedByOneWithFiniteExpansion) {
  const test::LogCapture log;
  ::setenv("VORN_ROOT", GetParam().root, 1);
  EXPECT_EQ(path::root() + GetParam().expected,
            expandInstallRoot(GetParam().value));
  EXPECT_THAT(log.lines(), SizeIs(1));
}

INSTANTIATE_TEST_SUITE_P(
    Roots, RefusedInstallRoot,
    ::testing::Values(ExpansionCase{"WithThePrefixInside", "/opt/install://x",
                                    "install://lib", "/lib"},
                      ExpansionCase{"WithItsWordAtTheEnd",
                                    "/opt/install:", "install:///lib", "//lib"},
                      // Each expansion would create another prefix.
                      ExpansionCase{"ThatCompletesThePrefixForEver",
                                    "//install:/install:", "install:///lib",
                                    "//lib"}),
    test::caseName<ExpansionCase>);

}  // namespace
}  // namespace vorn::launch
