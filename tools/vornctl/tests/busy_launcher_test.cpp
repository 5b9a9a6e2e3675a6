#include "live/busy_launcher.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

TEST(BusyLauncherTest, ALockInAllSamplesIsPermanent) {
  EXPECT_EQ(busyReason({"futex_wait_queue", "futex_wait_queue"}),
            BusyReason::LOCKED);
}

TEST(BusyLauncherTest, ALockInOnlySomeSamplesIsNotAReason) {
  EXPECT_EQ(busyReason({"futex_wait_queue", ""}), BusyReason::UNKNOWN);
  EXPECT_EQ(busyReason({"", "futex_wait_queue"}), BusyReason::UNKNOWN);
}

TEST(BusyLauncherTest, ALogThatIsReadSlowlyIsNotAReason) {
  EXPECT_EQ(busyReason({"anon_pipe_write", ""}), BusyReason::UNKNOWN);
}

TEST(BusyLauncherTest, OneSampleShowsTheStopOfANode) {
  EXPECT_EQ(busyReason({"futex_wait_queue", "", "hrtimer_nanosleep"}),
            BusyReason::STOPPING_NODE);
}

TEST(BusyLauncherTest, APipeIsWrittenForTheLogAndReadForAStop) {
  for (const char* const writing : {"pipe_write", "anon_pipe_write"}) {
    EXPECT_EQ(busyReason({writing}), BusyReason::WRITING_LOG) << writing;
  }
  for (const char* const reading : {"pipe_read", "anon_pipe_read"}) {
    EXPECT_EQ(busyReason({reading}), BusyReason::STOPPING_NODE) << reading;
  }
}

}  // namespace
}  // namespace vorn::launch
