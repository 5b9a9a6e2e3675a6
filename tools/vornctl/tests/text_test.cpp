#include "text.h"

#include <gtest/gtest.h>

#include <clocale>

namespace vorn::launch {
namespace {

TEST(PrintableTest, LeavesTextAlone) {
  EXPECT_EQ(printable("camera_1 wéird 日本 \xf0\x9f\xa4\x96"),
            "camera_1 wéird 日本 \xf0\x9f\xa4\x96");
}

TEST(PrintableTest, EscapesControlCharacters) {
  EXPECT_EQ(printable("a\nb\tc\x1b[31m\x7f"), "a\\x0ab\\x09c\\x1b[31m\\x7f");
  // U+0085 and U+009b move a terminal's cursor as well, U+2028 ends a line.
  EXPECT_EQ(printable("\xc2\x85\xc2\x9b\xe2\x80\xa8"),
            "\\xc2\\x85\\xc2\\x9b\\xe2\\x80\\xa8");
}

TEST(PrintableTest, EscapesWhatTurnsTheDirectionOfText) {
  EXPECT_EQ(printable(std::string("a\xe2\x80") + '\xae' + 'b'),
            "a\\xe2\\x80\\xaeb");
  EXPECT_EQ(printable(std::string("a\xe2\x81") + '\xa6' + 'b'),
            "a\\xe2\\x81\\xa6b");
}

TEST(PrintableTest, EscapesWhatIsNoUtf8) {
  EXPECT_EQ(printable("\xff"), "\\xff");
  EXPECT_EQ(printable("\xc3"), "\\xc3");           // cut
  EXPECT_EQ(printable("\xc3z"), "\\xc3z");         // no continuation
  EXPECT_EQ(printable("\xc0\x80"), "\\xc0\\x80");  // longer than needed
  EXPECT_EQ(printable("\xe0\x80\x80"), "\\xe0\\x80\\x80");
  EXPECT_EQ(printable("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // a surrogate
  EXPECT_EQ(printable("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

class WidthTest : public ::testing::Test {
 protected:
  WidthTest() { EXPECT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr); }
};

TEST_F(WidthTest, CountsColumnsNotBytes) {
  EXPECT_EQ(displayWidth(""), 0U);
  EXPECT_EQ(displayWidth("abc"), 3U);
  EXPECT_EQ(displayWidth("wéird"), 5U);
  EXPECT_EQ(displayWidth("日本"), 4U);
  EXPECT_EQ(displayWidth("e\xcc\x81"), 1U);  // a combining accent
}

TEST_F(WidthTest, ATextThatFitsIsLeftAlone) {
  EXPECT_EQ(fitted("camera", 6), "camera");
  EXPECT_EQ(fitted("", 0), "");
}

TEST_F(WidthTest, ALongerTextEndsInAnEllipsis) {
  EXPECT_EQ(fitted("camera", 5), "came…");
  EXPECT_EQ(fitted("日本語", 5), "日本…");
  EXPECT_EQ(fitted("日本語", 4), "日…");  // half a character does not fit
  EXPECT_EQ(fitted("camera", 1), "…");
  EXPECT_EQ(fitted("camera", 0), "");
}

TEST(UpperCaseTest, ChangesAsciiLettersOnly) {
  EXPECT_EQ(upperCase("az-09é"), "AZ-09é");
}

}  // namespace
}  // namespace vorn::launch
