#include "live/action_log.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

ActionRecord stopOf(std::vector<std::string> nodes) {
  ActionRecord record;
  record.uid = 1000;
  record.user = "alice";
  record.command = "stop";
  record.outcome = "done";
  record.nodes = std::move(nodes);
  record.launcherPid = 42;
  return record;
}

TEST(ActionLogTest, ControlCharactersOfNamesAreEscapedInTheSentence) {
  EXPECT_EQ(sentenceOf(stopOf({"a\nb\x1b"})),
            "stop a\\nb\\x1b: done; user alice (uid 1000), terminal none, "
            "launcher 42");
}

TEST(ActionLogTest, TheSentenceCountsTheNodesThatItHasNoRoomFor) {
  ActionRecord record = stopOf(std::vector<std::string>(100, "0123456789"));
  record.omittedNodes = 7;
  const std::string text = sentenceOf(record);
  EXPECT_LT(text.size(), 1200U);
  EXPECT_NE(text.find(" and 13 more: done"), std::string::npos) << text;
}

}  // namespace
}  // namespace vorn::launch
