#include "live/log_line.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

constexpr char kLine[] =
    "2026-11-20T12:34:56.789012Z *INFO  vornlaunch[42] node.cpp:88 start: "
    "Node start 'a: b' ok";

TEST(LogLineTest, HasAllPartsOfALine) {
  const auto line = parseLogLine(kLine);
  ASSERT_TRUE(line);
  EXPECT_EQ(line->timeUs, 1'795'178'096'789'012);
  EXPECT_TRUE(line->isEvent);
  EXPECT_EQ(line->level, "INFO");
  EXPECT_EQ(line->program, "vornlaunch");
  EXPECT_EQ(line->pid, 42);
  EXPECT_EQ(line->function, "start");
  EXPECT_EQ(line->text, "Node start 'a: b' ok");
}

TEST(LogLineTest, ALineOfTheJournalHasNoTime) {
  for (const char* const text : {"<4>WARN  vornlaunch[42] a.cpp:1 f: text",
                                 "WARN  vornlaunch[42] a.cpp:1 f: text"}) {
    const auto line = parseLogLine(text);
    ASSERT_TRUE(line) << text;
    EXPECT_EQ(line->timeUs, 0);
    EXPECT_FALSE(line->isEvent);
    EXPECT_EQ(line->text, "text");
  }
}

TEST(LogLineTest, ALineOfATerminalHasColours) {
  const auto line = parseLogLine(
      "2026-11-20T12:34:56.789012Z *\x1b[31mERROR\x1b[0m vornlaunch[42] "
      "a.cpp:1 "
      "f: text");
  ASSERT_TRUE(line);
  EXPECT_EQ(line->level, "ERROR");
  EXPECT_EQ(line->program, "vornlaunch");
}

TEST(LogLineTest, PartOfALineOfANodeIsSkipped) {
  const auto line = parseLogLine("50 % Z done" + std::string(kLine));
  ASSERT_TRUE(line);
  EXPECT_EQ(line->pid, 42);
  EXPECT_EQ(line->timeUs, 1'795'178'096'789'012);
  EXPECT_TRUE(parseLogLine("50 %" + std::string(kLine) + " after size Z x"));
}

TEST(LogLineTest, OtherAndTornTextsAreNoLines) {
  EXPECT_FALSE(parseLogLine(""));
  EXPECT_FALSE(parseLogLine("Z "));
  EXPECT_FALSE(parseLogLine("[INFO] [node]: started: ok"));
  EXPECT_FALSE(parseLogLine("2026-11-20T12:34:56.789012Z text"));
  const std::string line(kLine);
  const size_t complete = line.find(": Node") + 2;
  for (size_t length = 0; length < complete; ++length) {
    EXPECT_FALSE(parseLogLine(line.substr(0, length))) << length;
  }
}

TEST(LogLineTest, ControlCharactersInANameAreEscapedAsInTheLog) {
  EXPECT_EQ(nameInLog("a\nb\t\x1b\x7fé"), "a\\nb\\t\\x1b\\x7fé");
}

}  // namespace
}  // namespace vorn::launch
