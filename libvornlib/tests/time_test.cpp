#include "vornlib/time.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <stdexcept>
#include <string>

#include "support/case_name.h"

namespace vorn {
namespace {

using ::testing::StrEq;
using ::testing::ThrowsMessage;

constexpr uint32_t kMaxSec = std::numeric_limits<uint32_t>::max();
constexpr uint64_t kMaxInput = std::numeric_limits<uint64_t>::max();
constexpr int32_t kMinSignedSec = std::numeric_limits<int32_t>::min();
constexpr int32_t kMaxSignedSec = std::numeric_limits<int32_t>::max();
constexpr int64_t kMinSignedInput = std::numeric_limits<int64_t>::min();
constexpr int64_t kMaxSignedInput = std::numeric_limits<int64_t>::max();
constexpr int64_t kSecond = kNanosecondsPerSecond;

TEST(TimeTest, APointInTimeAndASpanAreZeroUntilTheyAreSet) {
  EXPECT_EQ(0U, Time().sec);
  EXPECT_EQ(0U, Time().nsec);
  EXPECT_EQ(0, Duration().sec);
  EXPECT_EQ(0, Duration().nsec);
}

struct TimeCase {
  const char* name;
  uint64_t sec;
  uint64_t nsec;
  Time expected;
};

class TimeNormalisation : public ::testing::TestWithParam<TimeCase> {};

TEST_P(TimeNormalisation, BringsTheNanosecondsIntoOneSecond) {
  const Time time = normalizeSecNSec(GetParam().sec, GetParam().nsec);
  EXPECT_EQ(GetParam().expected.sec, time.sec);
  EXPECT_EQ(GetParam().expected.nsec, time.nsec);
}

INSTANTIATE_TEST_SUITE_P(
    Unsigned, TimeNormalisation,
    ::testing::Values(
        TimeCase{"Zero", 0, 0, {0, 0}},
        TimeCase{"LastNanosecond", 5, 999'999'999, {5, 999'999'999}},
        TimeCase{"FullSecond", 5, 1'000'000'000, {6, 0}},
        TimeCase{"JustBelowTwoSeconds", 5, 1'999'999'999, {6, 999'999'999}},
        TimeCase{"ManySeconds", 1, 12'345'678'901, {13, 345'678'901}},
        TimeCase{"AllSecondsFromNanoseconds",
                 0,
                 kMaxSec * 1'000'000'000ULL + 7,
                 {kMaxSec, 7}},
        TimeCase{"Largest", kMaxSec, 999'999'999, {kMaxSec, 999'999'999}},
        TimeCase{"LargestByCarry", kMaxSec - 1, 1'000'000'000, {kMaxSec, 0}}),
    test::caseName<TimeCase>);

struct TimeInput {
  const char* name;
  uint64_t sec;
  uint64_t nsec;
};

class TimeOutOfRange : public ::testing::TestWithParam<TimeInput> {};

TEST_P(TimeOutOfRange, IsARuntimeError) {
  EXPECT_THAT([] { normalizeSecNSec(GetParam().sec, GetParam().nsec); },
              ThrowsMessage<std::runtime_error>(
                  StrEq("Time is out of its 32-bit range")));
}

INSTANTIATE_TEST_SUITE_P(
    Unsigned, TimeOutOfRange,
    ::testing::Values(TimeInput{"OneSecondMore", kMaxSec + 1ULL, 0},
                      TimeInput{"OneCarryMore", kMaxSec, 1'000'000'000},
                      TimeInput{"LargestNanoseconds", 0, kMaxInput},
                      TimeInput{"LargestSeconds", kMaxInput, 0},
                      // The sum of these would be a small one again.
                      TimeInput{"SumBeyond64Bits", kMaxInput, 1'000'000'000}),
    test::caseName<TimeInput>);

struct DurationCase {
  const char* name;
  int64_t sec;
  int64_t nsec;
  Duration expected;
};

class DurationNormalisation : public ::testing::TestWithParam<DurationCase> {};

TEST_P(DurationNormalisation, BringsTheNanosecondsIntoOneSecond) {
  const Duration span = normalizeSecNSecSigned(GetParam().sec, GetParam().nsec);
  EXPECT_EQ(GetParam().expected.sec, span.sec);
  EXPECT_EQ(GetParam().expected.nsec, span.nsec);
}

INSTANTIATE_TEST_SUITE_P(
    Signed, DurationNormalisation,
    ::testing::Values(
        DurationCase{"Zero", 0, 0, {0, 0}},
        DurationCase{"LastNanosecond", 5, 999'999'999, {5, 999'999'999}},
        DurationCase{"FullSecond", 5, 1'000'000'000, {6, 0}},
        DurationCase{"ManySeconds", 1, 12'345'678'901, {13, 345'678'901}},
        DurationCase{"NegativeSeconds", -3, 250, {-3, 250}},
        DurationCase{"CarryAcrossZero", -1, 1'000'000'000, {0, 0}},
        DurationCase{"OneNanosecondBack", 0, -1, {-1, 999'999'999}},
        DurationCase{"HalfASecondBack", 0, -500'000'000, {-1, 500'000'000}},
        DurationCase{"AlmostASecondBack", 5, -999'999'999, {4, 1}},
        DurationCase{"ASecondBack", 5, -1'000'000'000, {4, 0}},
        DurationCase{
            "MoreThanASecondBack", 5, -1'000'000'001, {3, 999'999'999}},
        DurationCase{"Smallest", kMinSignedSec, 0, {kMinSignedSec, 0}},
        DurationCase{"SmallestByBorrow",
                     kMinSignedSec + 1LL,
                     -1'000'000'000,
                     {kMinSignedSec, 0}},
        DurationCase{"Largest",
                     kMaxSignedSec,
                     999'999'999,
                     {kMaxSignedSec, 999'999'999}},
        DurationCase{"BeyondTheLargestAndBack",
                     kMaxSignedSec + 1LL,
                     -1,
                     {kMaxSignedSec, 999'999'999}},
        DurationCase{"BeyondTheSmallestAndBack",
                     kMinSignedSec - 1LL,
                     1'000'000'000,
                     {kMinSignedSec, 0}},
        // 9,223,372,036.854775807 and -9,223,372,036.854775808 seconds.
        DurationCase{"LargestNanoseconds",
                     -9'223'372'036,
                     kMaxSignedInput,
                     {0, 854'775'807}},
        DurationCase{"SmallestNanoseconds",
                     9'223'372'036,
                     kMinSignedInput,
                     {-1, 145'224'192}}),
    test::caseName<DurationCase>);

struct DurationInput {
  const char* name;
  int64_t sec;
  int64_t nsec;
};

class DurationOutOfRange : public ::testing::TestWithParam<DurationInput> {};

TEST_P(DurationOutOfRange, IsARuntimeError) {
  EXPECT_THAT([] { normalizeSecNSecSigned(GetParam().sec, GetParam().nsec); },
              ThrowsMessage<std::runtime_error>(
                  StrEq("Duration is out of its 32-bit range")));
}

INSTANTIATE_TEST_SUITE_P(
    Signed, DurationOutOfRange,
    ::testing::Values(
        DurationInput{"OneSecondMore", kMaxSignedSec + 1LL, 0},
        DurationInput{"OneCarryMore", kMaxSignedSec, kSecond},
        DurationInput{"OneSecondLess", kMinSignedSec - 1LL, 0},
        DurationInput{"OneNanosecondLess", kMinSignedSec, -1},
        DurationInput{"LargestSeconds", kMaxSignedInput, 0},
        DurationInput{"SmallestSeconds", kMinSignedInput, 0},
        // The sums of these would be of the other sign.
        DurationInput{"SumAbove64Bits", kMaxSignedInput, kMaxSignedInput},
        DurationInput{"SumBelow64Bits", kMinSignedInput, kMinSignedInput}),
    test::caseName<DurationInput>);

TEST(TimeLimitsTest, TheSmallestTimeIsZero) {
  EXPECT_EQ(0U, kTimeMin.sec);
  EXPECT_EQ(0U, kTimeMin.nsec);
}

TEST(TimeLimitsTest, TheLargestTimeIsTheLastNanosecondOf32Bits) {
  EXPECT_EQ(4'294'967'295U, kTimeMax.sec);
  EXPECT_EQ(999'999'999U, kTimeMax.nsec);
}

TEST(TimeLimitsTest, TheSmallestDurationIsTheFirstNanosecondOf32Bits) {
  EXPECT_EQ(-2'147'483'647 - 1, kDurationMin.sec);
  EXPECT_EQ(0, kDurationMin.nsec);
}

TEST(TimeLimitsTest, TheLargestDurationIsTheLastNanosecondOf32Bits) {
  EXPECT_EQ(2'147'483'647, kDurationMax.sec);
  EXPECT_EQ(999'999'999, kDurationMax.nsec);
}

// Copied while this file's own static objects are set up.
const Time kTimeMaxBeforeMain = kTimeMax;              // NOLINT(cert-err58-cpp)
const Duration kDurationMinBeforeMain = kDurationMin;  // NOLINT(cert-err58-cpp)

TEST(TimeLimitsTest, TheLimitsAreSetBeforeMain) {
  EXPECT_EQ(4'294'967'295U, kTimeMaxBeforeMain.sec);
  EXPECT_EQ(999'999'999U, kTimeMaxBeforeMain.nsec);
  EXPECT_EQ(-2'147'483'647 - 1, kDurationMinBeforeMain.sec);
}

}  // namespace
}  // namespace vorn
