#include "monitor/node_state.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace vorn::run {
namespace {

const NodeIdentity kCamera = {"camera", 42, 1234};

std::string printable(std::string_view text, size_t size) {
  std::string buffer(size, 'x');
  copyPrintable(text, buffer.data(), size);
  buffer.resize(std::strlen(buffer.data()));
  return buffer;
}

TEST(StateTextTest, ANewStateHasEveryMember) {
  NodeState state;
  state.phaseSince = 7;
  EXPECT_EQ(
      stateText(state, kCamera),
      "{\"schema\":1,\"node\":\"camera\",\"pid\":42,\"startTime\":1234,"
      "\"phase\":\"starting\",\"status\":\"\",\"phaseSince\":7,\"ready\":null,"
      "\"restarts\":0,\"delayedUntil\":null,\"droppedBytes\":0,"
      "\"ignoredMessages\":0,\"watchdog\":null,\"lastProbe\":null}\n");
}

TEST(StateTextTest, SettingsAndResultsAreValues) {
  NodeState state;
  state.phase = Phase::GAVE_UP;
  state.expectsReadiness = true;
  state.delayedUntil = 99;
  state.watchdogPeriodMs = 5000;
  state.watchdogLastMs = 17;
  state.hasProbeResult = true;
  state.probeTime = 8;
  copyPrintable("a \"quoted\" word", state.probeMessage,
                sizeof(state.probeMessage));
  const std::string text = stateText(state, kCamera);
  for (const char* member :
       {"\"phase\":\"gave up\"", "\"ready\":false", "\"delayedUntil\":99",
        "\"watchdog\":{\"periodMs\":5000,\"lastMs\":17}",
        R"("lastProbe":{"ok":false,"message":"a \"quoted\" word","time":8})"})
    EXPECT_NE(text.find(member), std::string::npos) << member << " in " << text;
}

TEST(StateTextTest, EachPhaseHasAName) {
  std::string names;
  for (const Phase phase :
       {Phase::WAITING, Phase::DELAYED, Phase::STARTING, Phase::READY,
        Phase::RUNNING, Phase::UNHEALTHY, Phase::GAVE_UP}) {
    names += nameOf(phase) + std::string(", ");
  }
  EXPECT_EQ(names,
            "waiting, delayed, starting, ready, running, unhealthy, gave up, ");
}

TEST(StateTextTest, ANameOfAnyBytesIsValidJson) {
  const std::string text =
      stateText({}, {std::string("a\n\\\xFF\xC3\xA9", 6), 1, 1});
  EXPECT_NE(text.find("\"node\":\"a\\u000A\\\\?\xC3\xA9\""), std::string::npos)
      << text;
}

TEST(PrintableTest, ControlCharactersAndInvalidBytesAreReplaced) {
  EXPECT_EQ(printable("a\x1B[31m\x7F\xC2\x85 \xC3\xA9", 50),
            "a?[31m?? \xC3\xA9");
  EXPECT_EQ(printable(std::string_view("a\0b\xFF\xED\xA0\x80", 7), 50),
            "a?b????");
}

TEST(PrintableTest, OnlyValidUtf8IsKept) {
  for (const char* const valid :
       {"\xC2\xA0", "\xE0\xA0\x80", "\xED\x9F\xBF", "\xEE\x80\x80",
        "\xF0\x90\x80\x80", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_EQ(printable(valid, 50), valid);
  }
  for (const char* const invalid :
       {"\xC1\xBF", "\xE0\x9F\xBF", "\xED\xA0\x80", "\xF0\x8F\xBF\xBF",
        "\xF4\x90\x80\x80", "\xF5\x80\x80\x80", "\xE1\x80"}) {
    EXPECT_EQ(printable(invalid, 50), std::string(std::strlen(invalid), '?'));
  }
  EXPECT_EQ(printable("\xC3(", 50), "?(");
}

TEST(PrintableTest, TextIsCutAtACharacter) {
  EXPECT_EQ(printable("ab\xC3\xA9", 4), "ab");
  EXPECT_EQ(printable("ab\xC3\xA9", 5), "ab\xC3\xA9");
}

}  // namespace
}  // namespace vorn::run
