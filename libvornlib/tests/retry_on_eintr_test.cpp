#include "vornlib/retry_on_eintr.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <cerrno>
#include <limits>
#include <type_traits>

namespace vorn {
namespace {

TEST(RetryOnEintrTest, AnInterruptedCallIsRepeatedUntilItSucceeds) {
  int calls = 0;
  const int result = retryOnEintr([&] {
    if (++calls == 4) return 7;
    errno = EINTR;
    return -1;
  });
  EXPECT_EQ(7, result);
  EXPECT_EQ(4, calls);
}

TEST(RetryOnEintrTest, AnInterruptedCallIsRepeatedUntilItFailsOtherwise) {
  int calls = 0;
  const int result = retryOnEintr([&] {
    errno = ++calls == 3 ? EBADF : EINTR;
    return -1;
  });
  EXPECT_EQ(-1, result);
  EXPECT_EQ(EBADF, errno);
  EXPECT_EQ(3, calls);
}

TEST(RetryOnEintrTest, AnotherFailureIsReturnedAtOnce) {
  int calls = 0;
  const int result = retryOnEintr([&] {
    ++calls;
    errno = EAGAIN;
    return -1;
  });
  EXPECT_EQ(-1, result);
  EXPECT_EQ(EAGAIN, errno);
  EXPECT_EQ(1, calls);
}

TEST(RetryOnEintrTest, ASuccessIsNotRepeatedForAnyErrno) {
  int calls = 0;
  errno = EINTR;
  EXPECT_EQ(0, retryOnEintr([&] {
              ++calls;
              return 0;
            }));
  EXPECT_EQ(EINTR, errno);
  EXPECT_EQ(1, calls);
}

TEST(RetryOnEintrTest, AResultKeepsItsTypeAndItsWidth) {
  constexpr ssize_t kLong = std::numeric_limits<ssize_t>::max();
  const auto result = retryOnEintr([] { return kLong; });
  static_assert(std::is_same_v<decltype(result), const ssize_t>);
  EXPECT_EQ(kLong, result);
}

}  // namespace
}  // namespace vorn
