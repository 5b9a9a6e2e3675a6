#include "monitor/notify_message.h"

#include <gtest/gtest.h>

namespace vorn::run {
namespace {

TEST(NotifyMessageTest, AssignmentsAreOnePerLine) {
  const NotifyMessage message = parseNotifyMessage(
      "READY=1\nSTATUS=3 of 4 = good\nWATCHDOG=1\nSTOPPING=1\n");
  EXPECT_TRUE(message.isReady);
  EXPECT_TRUE(message.isAlive);
  EXPECT_TRUE(message.isStopping);
  EXPECT_TRUE(message.hasStatus);
  EXPECT_EQ(message.status, "3 of 4 = good");
  EXPECT_FALSE(message.requestsAbort);
}

TEST(NotifyMessageTest, ATriggerIsNotASignOfLife) {
  const NotifyMessage message = parseNotifyMessage("WATCHDOG=trigger");
  EXPECT_TRUE(message.requestsAbort);
  EXPECT_FALSE(message.isAlive);
}

TEST(NotifyMessageTest, OtherTextHasNoEffect) {
  using namespace std::string_view_literals;
  for (const std::string_view text :
       {""sv, "\n\n"sv, "READY"sv, "READY=10"sv, "READY=1\0"sv, " READY=1"sv,
        "ERRNO=2\nEXTEND_TIMEOUT_USEC=5\nMAINPID=1"sv, "=\0\xFF=1"sv}) {
    const NotifyMessage message = parseNotifyMessage(text);
    EXPECT_FALSE(message.isReady || message.isAlive || message.isStopping ||
                 message.requestsAbort || message.hasStatus)
        << text;
  }
}

}  // namespace
}  // namespace vorn::run
