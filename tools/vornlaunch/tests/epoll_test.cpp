#include "epoll.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "support/log_capture.h"
#include "support/system_calls.h"

namespace vorn::launch {
namespace {

using test::logLine;
using ::testing::ElementsAre;

TEST(EpollTest, AFailedCreationIsOneErrorLineAndFalse) {
  const test::LogCapture log;
  test::systemCalls().epoll_create1 = [](int) {
    return test::failWith(EMFILE);
  };
  Epoll epoll;
  EXPECT_FALSE(epoll.open());
  EXPECT_THAT(log.lines(), ElementsAre(logLine("ERROR", false, "open",
                                               "epoll create failed.")));
}

}  // namespace
}  // namespace vorn::launch
