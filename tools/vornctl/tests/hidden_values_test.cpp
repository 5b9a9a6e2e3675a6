#include "launchfile/hidden_values.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

std::string shown(const std::string& text) {
  std::string result;
  for (const std::string& line :
       linesWithoutValues(SourceText("launch.yaml", text))) {
    result += line + "\n";
  }
  return result;
}

TEST(LinesWithoutValuesTest, ShowTheNamesButNotTheValuesOfVariables) {
  EXPECT_EQ(
      shown("configure:\n"
            "  environment:\n"
            "    TOKEN: hunter2  # old: hunter1\n"
            "    \"KEY\": |\n"
            "      line 1\n"
            "      line 2\n"
            "    # KEY: abc\n"
            "    EMPTY:\n"
            "vornnode:\n"
            "  a: {path: /a, environment: {A: 'x', B: y}, argv: -b}\n"),
      "configure:\n"
      "  environment:\n"
      "    TOKEN: [hidden]\n"
      "    \"KEY\": [hidden]\n"
      "      [hidden]\n"
      "      [hidden]\n"
      "    [hidden]\n"
      "    EMPTY:\n"
      "vornnode:\n"
      "  a: {path: /a, environment: {A: [hidden] B: [hidden] argv: -b}\n");
}

TEST(LinesWithoutValuesTest, HideAnchoredTextsToWhichVariablesRefer) {
  EXPECT_EQ(shown("a: &one hunter2\n"
                  "b: &two [*one, x]\n"
                  "c: &three visible\n"
                  "environment: *two\n"
                  "d: *three\n"),
            "a: [hidden]\n"
            "b: [hidden]\n"
            "c: &three visible\n"
            "environment: [hidden]\n"
            "d: *three\n");
}

TEST(LinesWithoutValuesTest, HideListsAndMisspeltKeys) {
  EXPECT_EQ(shown("vornnode:\n"
                  "  environment:\n"
                  "    path: /a\n"
                  "    Environments: [A=x]\n"
                  "    ENV: y\n"),
            "vornnode:\n"
            "  environment:\n"
            "    path: /a\n"
            "    Environments: [hidden]\n"
            "    ENV: [hidden]\n");
}

TEST(LinesWithoutValuesTest, HideEverythingAfterTheLastReadableToken) {
  EXPECT_EQ(shown("a: b\nc: [x, }\nTOKEN: y\n"), "a: b\nc: [x, }\n[hidden]\n");
}

TEST(LinesWithoutValuesTest, HideAWholeTextThatIsNotUtf8) {
  EXPECT_EQ(shown("a: \xff\nb: c\n"), "[hidden]\n[hidden]\n");
}

TEST(LinesWithoutValuesTest, CountAByteOrderMarkAndOtherCharacters) {
  EXPECT_EQ(shown("\xef\xbb\xbf"
                  "ä: ö\nenvironment: {ä: ö}\n"),
            "\xef\xbb\xbf"
            "ä: ö\nenvironment: {ä: [hidden]\n");
}

}  // namespace
}  // namespace vorn::launch
