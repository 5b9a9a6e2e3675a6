#include "live/restart_counts.h"

#include <gtest/gtest.h>

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;

constexpr int64_t kBeginUs = 1'000'000'000'000;

HistoryEvent startAt(int64_t time_us, Cause cause) {
  HistoryEvent event;
  event.kind = Kind::STARTED;
  event.cause = cause;
  event.node = "camera";
  event.timeUs = time_us;
  return event;
}

TEST(RestartCountsTest, CountsTheStartsAfterTheStartUpByTheirCauses) {
  RestartCounts counts("launcher", kBeginUs, "");
  int64_t time_us = kBeginUs;
  for (const Cause cause : {Cause::START_UP, Cause::ITSELF, Cause::OPERATOR,
                            Cause::ITSELF, Cause::REQUIRED, Cause::UNKNOWN}) {
    counts.add(startAt(++time_us, cause));
  }
  EXPECT_EQ(counts.of("camera"), (CountsByCause{2, 1, 1, 1}));
  EXPECT_EQ(counts.of("lidar"), CountsByCause{});
}

TEST(RestartCountsTest, SavedCountsContinueWithTheFirstNewEvent) {
  RestartCounts first("launcher", kBeginUs, "");
  const HistoryEvent old = startAt(kBeginUs + 500'000'000, Cause::ITSELF);
  first.add(old);
  RestartCounts next("launcher", kBeginUs, first.save());
  EXPECT_GT(next.sinceUs(), kBeginUs);
  EXPECT_LT(next.sinceUs(), old.timeUs);
  next.add(old);
  next.add(startAt(old.timeUs + 1, Cause::ITSELF));
  EXPECT_EQ(next.of("camera"), (CountsByCause{2, 0, 0, 0}));
}

TEST(RestartCountsTest, CountsOfAnotherLauncherAndDamagedOnesAreIgnored) {
  RestartCounts first("launcher", kBeginUs, "");
  first.add(startAt(kBeginUs + 1, Cause::ITSELF));
  const std::string saved = first.save();
  std::string damaged = saved;
  damaged.replace(damaged.find('['), 1, "[\"x\",");
  for (const auto& [launcher, text] :
       {std::pair{"another", saved}, std::pair{"launcher", std::string("{}")},
        std::pair{"launcher", saved.substr(0, saved.size() / 2)},
        std::pair{"launcher", damaged}}) {
    const RestartCounts counts(launcher, kBeginUs, text);
    EXPECT_EQ(counts.of("camera"), CountsByCause{}) << text;
    EXPECT_LE(counts.sinceUs(), kBeginUs) << text;
  }
}

TEST(RestartCountsTest, EventsOfAnEarlierLauncherInTheSameLogAreNotCounted) {
  RestartCounts counts("launcher", kBeginUs, "");
  counts.add(startAt(kBeginUs - 2, Cause::ITSELF));
  HistoryEvent started;
  started.kind = Kind::LAUNCHER_STARTED;
  started.timeUs = kBeginUs - 1;
  counts.add(started);
  EXPECT_EQ(counts.of("camera"), CountsByCause{});
}

}  // namespace
}  // namespace vorn::launch
