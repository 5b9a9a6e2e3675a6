#include "output/output_text.h"

#include <gtest/gtest.h>

#include <clocale>
#include <string>
#include <type_traits>

#include <nlohmann/json.hpp>

namespace vorn::launch {
namespace {

using Json = nlohmann::ordered_json;

// Text that no function has escaped does not compile.
static_assert(!std::is_constructible_v<OutputText, std::string>);
static_assert(!std::is_constructible_v<OutputText, const char*>);
static_assert(!std::is_constructible_v<OutputText, char (&)[4]>);
static_assert(!std::is_constructible_v<OutputText, char>);

std::string terminal(const std::string& raw) { return terminalText(raw).str(); }

std::string bytesOf(const std::string& raw) {
  std::string escaped;
  for (const char letter : raw) {
    char byte[8];
    (void)std::snprintf(byte, sizeof(byte), "\\x%02x",
                        static_cast<unsigned char>(letter));
    escaped += byte;
  }
  return escaped;
}

TEST(TerminalTextTest, LeavesVisibleTextUnchanged) {
  const std::string text = "camera_1 wéird 日本 \xf0\x9f\xa4\x96 e\xcc\x81 \\";
  EXPECT_EQ(terminal(text), text);
}

TEST(TerminalTextTest, EscapesControlCharactersAsTheLogDoes) {
  EXPECT_EQ(terminal("a\nb\rc\td\x1b[31m\x7f"), "a\\nb\\rc\\td\\x1b[31m\\x7f");
  EXPECT_EQ(terminal(std::string(1, '\0')), "\\x00");
}

class InvisibleTest : public ::testing::TestWithParam<const char*> {};

TEST_P(InvisibleTest, IsEscapedOnATerminal) {
  const std::string character = GetParam();
  EXPECT_EQ(terminal("a" + character + "b"), "a" + bytesOf(character) + "b");
}

TEST_P(InvisibleTest, IsEscapedInJson) {
  const std::string character = GetParam();
  const std::string text = jsonText(Json(character)).str();
  EXPECT_EQ(text.rfind("\"\\u", 0), 0U) << text;
  EXPECT_EQ(Json::parse(text), Json(character));
}

INSTANTIATE_TEST_SUITE_P(
    Character, InvisibleTest,
    ::testing::Values("\u0080", "\u009b", "\u009f",            // C1 controls
                      "\u00a0", "\u2003", "\u202f", "\u3000",  // blanks
                      "\u00ad", "\u200b", "\u200c", "\u200d", "\u2060",
                      "\ufeff",                      // no width
                      "\u061c", "\u200e", "\u200f",  // direction
                      "\u202a\u202c", "\u202e\u202c", "\u2066\u2069", "\u2028",
                      "\u2029",  // line ends
                      "\u034f", "\u115f", "\u1160", "\u2800", "\u3164",
                      "\ufe00", "\ufe0f", "\uffa0",                // fillers
                      "\U000e0001", "\U000e0041", "\U000e007f"));  // tags

TEST(TerminalTextTest, EscapesBytesThatAreNotUtf8) {
  EXPECT_EQ(terminal("\xff"), "\\xff");
  EXPECT_EQ(terminal("\xc3"), "\\xc3");           // cut
  EXPECT_EQ(terminal("\xc3z"), "\\xc3z");         // no continuation
  EXPECT_EQ(terminal("\xc0\x80"), "\\xc0\\x80");  // longer than needed
  EXPECT_EQ(terminal("\xe0\x80\x80"), "\\xe0\\x80\\x80");
  EXPECT_EQ(terminal("\xed\xa0\x80"), "\\xed\\xa0\\x80");  // a surrogate
  EXPECT_EQ(terminal("\xf4\x90\x80\x80"), "\\xf4\\x90\\x80\\x80");
}

TEST(TerminalTextTest, EscapesWorkflowCommandsOfCiSystems) {
  EXPECT_EQ(terminal("::set-output name=x::y"), "\\x3a:set-output name=x::y");
  EXPECT_EQ(terminal("  ::debug::"), "  \\x3a:debug::");
  EXPECT_EQ(terminal("a ##[error]b"), "a \\x23#[error]b");
  EXPECT_EQ(terminal("###[error]"), "#\\x23#[error]");
  EXPECT_EQ(terminal("##vso[x]"), "\\x23#vso[x]");
}

TEST(TerminalTextTest, LeavesOtherColonsAndNumberSignsUnchanged) {
  for (const char* const text : {"std::string", ": :", "## [a]", "##", "# x"}) {
    EXPECT_EQ(terminal(text), text);
  }
}

TEST(DotTextTest, EscapesQuotesAndBackslashes) {
  EXPECT_EQ(quotedText("a\"\\\x1b").str(), "a\\\"\\\\\\\\x1b");
}

TEST(MermaidTextTest, EscapesMarkup) {
  EXPECT_EQ(mermaidText("ä\"#&<b>\\`\n").str(),
            "ä#34;#35;#38;#60;b#62;#92;#96;#92;n");
}

// NOLINTBEGIN(misc-misleading-bidirectional): the attack
TEST(HtmlTextTest, EscapesMarkupQuotesAndInvisibleCharacters) {
  EXPECT_EQ(htmlText("ä<b a=\"'&\x1b\u202e\xff").str(),
            "ä&#60;b a=&#34;&#39;&#38;\\x1b\\xe2\\x80\\xae\\xff");
}
// NOLINTEND(misc-misleading-bidirectional)

TEST(IsUtf8Test, IsFalseForOverlongAndCutCharacters) {
  EXPECT_TRUE(isUtf8("aä漢"));
  EXPECT_FALSE(isUtf8("a\xc3"));
  EXPECT_FALSE(isUtf8("\xc0\x80"));
}

TEST(GithubTextTest, EscapesPercentSignsAndInPropertiesSeparators) {
  EXPECT_EQ(githubText("50%, a::b\x1b", GithubPart::MESSAGE).str(),
            "50%25, a::b\\x1b");
  EXPECT_EQ(githubText("50%, a::b\x1b", GithubPart::PROPERTY).str(),
            "50%25%2C a%3A%3Ab\\x1b");
}

TEST(JsonTextTest, IsAnAsciiDocumentOfItsText) {
  EXPECT_EQ(jsonText({{"é", "\x7f\n"}}).str(),
            "{\n  \"\\u00e9\": \"\\u007f\\n\"\n}\n");
  EXPECT_EQ(jsonText({{"a", 1}}, -1).str(), "{\"a\":1}\n");
  EXPECT_EQ(jsonText("\xff").str(), "\"\\ufffd\"\n");
}

TEST(JsonTextTest, EscapesWorkflowCommandsOfCiSystems) {
  const std::string text = jsonText("##[error]").str();
  EXPECT_EQ(text, "\"\\u0023#[error]\"\n");
  EXPECT_EQ(Json::parse(text), "##[error]");
}

TEST(NulTerminatedTest, IsTheTextItselfAndANul) {
  EXPECT_EQ(nulTerminated("a\n").str(), std::string("a\n\0", 3));
}

TEST(OutputTextTest, NumbersNeedNoEscaping) {
  EXPECT_EQ(("a " + OutputText(-5)).str(), "a -5");
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

TEST_F(WidthTest, ATextThatFitsIsUnchanged) {
  EXPECT_EQ(truncated("camera", 6).str(), "camera");
  EXPECT_EQ(truncated("", 0).str(), "");
}

TEST_F(WidthTest, ALongerTextEndsInAnEllipsis) {
  EXPECT_EQ(truncated("camera", 5).str(), "came…");
  EXPECT_EQ(truncated("日本語", 5).str(), "日本…");
  EXPECT_EQ(truncated("日本語", 4).str(),
            "日…");  // half a character does not fit
  EXPECT_EQ(truncated("camera", 1).str(), "…");
  EXPECT_EQ(truncated("camera", 0).str(), "");
}

}  // namespace
}  // namespace vorn::launch
