#include "environment_file.h"

#include <gtest/gtest.h>

namespace vorn::run {
namespace {

/// The value of the only variable A of a file, or the error.
std::string valueIn(const std::string& text) {
  const EnvironmentFile file = parseEnvironmentFile(text);
  if (!file.error.empty()) return "error: " + file.error;
  if (file.variables.size() != 1 || file.variables[0].first != "A") {
    return "not one variable A";
  }
  return file.variables[0].second;
}

TEST(EnvironmentFile, BlanksAroundNameAndValueAreRemoved) {
  EXPECT_EQ(valueIn("A=b"), "b");
  EXPECT_EQ(valueIn(" A = b c \t\r\n"), "b c");
  EXPECT_EQ(valueIn("A="), "");
}

TEST(EnvironmentFile, CommentsAndLinesWithoutAnAssignmentAreIgnored) {
  EXPECT_EQ(valueIn("# A=1\n; A=2\n\n  # A=3 \\\nA=b\nexport\n"), "b");
  EXPECT_EQ(valueIn("A=b\n# the end"), "b");
  EXPECT_EQ(valueIn("A=b\nexport"), "b");
}

TEST(EnvironmentFile, ACommentDoesNotFollowAValue) {
  EXPECT_EQ(valueIn("A=b # c"), "b # c");
}

TEST(EnvironmentFile, SingleQuotesAreLiteral) {
  EXPECT_EQ(valueIn("A=' b\\n\"\n$c '\n"), " b\\n\"\n$c ");
}

TEST(EnvironmentFile, DoubleQuotesKnowFourEscapes) {
  EXPECT_EQ(valueIn("A=\" b\\\"\\\\\\`\\$\\n\\\nc\""), " b\"\\`$\\nc");
}

TEST(EnvironmentFile, QuotedPartsAreJoined) {
  EXPECT_EQ(valueIn("A='b' \"c\"d"), "bcd");
}

TEST(EnvironmentFile, QuotesInsideAnUnquotedValueAreLiteral) {
  EXPECT_EQ(valueIn("A=b'c'"), "b'c'");
}

TEST(EnvironmentFile, ABackslashQuotesTheNextCharacter) {
  EXPECT_EQ(valueIn("A=b\\ \\\\\\n\\\nc\\ "), "b \\nc ");
  EXPECT_EQ(valueIn("A=b\\"), "b\\");
}

TEST(EnvironmentFile, NothingIsExpanded) { EXPECT_EQ(valueIn("A=$B"), "$B"); }

TEST(EnvironmentFile, AnErrorNamesTheLine) {
  EXPECT_EQ(valueIn("A=b\nexport B=c"),
            "error: line 2: invalid variable name 'export B'");
  EXPECT_EQ(valueIn("\nA='b\n\n"),
            "error: line 2: the single quote is not closed");
  EXPECT_EQ(valueIn("A=\"b"), "error: line 1: the double quote is not closed");
  EXPECT_EQ(valueIn("A=\"b\\"),
            "error: line 1: the double quote is not closed");
  EXPECT_EQ(valueIn(" = b"), "error: line 1: invalid variable name ''");
  EXPECT_EQ(valueIn(std::string("A=b\0", 4)),
            "error: line 1: NUL byte in the value of A");
  EXPECT_EQ(valueIn(std::string("A=\"\\\0\"", 6)),
            "error: line 1: NUL byte in the value of A");
  // Only the first error.
  EXPECT_EQ(valueIn(std::string("A='b\0", 5)),
            "error: line 1: the single quote is not closed");
}

TEST(EnvironmentFile, ADigitIsNotTheFirstCharacterOfAName) {
  EXPECT_TRUE(isVariableName("A09"));
  EXPECT_TRUE(isVariableName("_"));
  EXPECT_FALSE(isVariableName("0A"));
  EXPECT_FALSE(isVariableName("9A"));
  EXPECT_FALSE(isVariableName(""));
}

}  // namespace
}  // namespace vorn::run
