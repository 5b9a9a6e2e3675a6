#include "launchfile/source_text.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(SourceTextTest, ReturnsLinesWithoutTheirEnds) {
  const SourceText document("name", "one\ntwo\r\n\nfour");
  EXPECT_EQ(document.line(1), "one");
  EXPECT_EQ(document.line(2), "two");
  EXPECT_EQ(document.line(3), "");
  EXPECT_EQ(document.line(4), "four");
}

TEST(SourceTextTest, HasNoLineOutsideTheText) {
  const SourceText document("name", "one\n");
  EXPECT_EQ(document.line(-1), "");
  EXPECT_EQ(document.line(0), "");
  EXPECT_EQ(document.line(2), "");
  EXPECT_EQ(document.line(3), "");
  EXPECT_EQ(SourceText("name", "").line(1), "");
}

TEST(SourceTextTest, FindsTheNamesInCommentsThatSilence) {
  const SourceText document(
      "name",
      "a: 1  # vornctl: ignore=unknown-key\n"
      "b: 1\n"
      "c: 1  # vornctl: ignore=one,two because # vornctl: ignore=three");
  EXPECT_THAT(document.linesWithIgnores(), ElementsAre(1, 3));
  EXPECT_THAT(document.ignoredAt(1), ElementsAre("unknown-key"));
  EXPECT_THAT(document.ignoredAt(2), IsEmpty());
  EXPECT_THAT(document.ignoredAt(3), ElementsAre("one", "two", "three"));
}

TEST(SourceTextTest, FindsNoNamesAfterAnEmptyComment) {
  const SourceText document("name", "# vornctl: ignore=");
  EXPECT_THAT(document.ignoredAt(1), IsEmpty());
}

}  // namespace
}  // namespace vorn::launch
