#include "live/log_time.h"

#include <cstdio>
#include <ctime>

#include "output/duration.h"

namespace vorn::launch {
namespace {

constexpr std::string_view kForm = "dddd-dd-ddTdd:dd:dd.ddddddZ ";
static_assert(kForm.size() == kLogTimeLength + 1);

bool isDateDigit(char c) { return c >= '0' && c <= '9'; }

bool hasTimeForm(std::string_view line) {
  if (line.size() < kForm.size()) return false;
  for (size_t i = 0; i < kForm.size(); ++i) {
    if (kForm[i] == 'd' ? !isDateDigit(line[i]) : line[i] != kForm[i])
      return false;
  }
  return true;
}

/// The days from the epoch to a date of the Gregorian calendar.
int64_t daysSinceEpoch(int64_t year, int64_t month, int64_t day) {
  // Years that begin in March have the leap day at their end.
  if (month <= 2) {
    --year;
    month += 12;
  }
  const int64_t day_of_year = (153 * (month - 3) + 2) / 5 + day - 1;
  constexpr int64_t kDaysToTheEpoch = 719468;  // from 0000-03-01
  return 365 * year + year / 4 - year / 100 + year / 400 + day_of_year -
         kDaysToTheEpoch;
}

}  // namespace

std::optional<int64_t> parseLogTime(std::string_view line) {
  if (!hasTimeForm(line)) return std::nullopt;
  const auto number = [line](size_t begin, size_t length) {
    int64_t value = 0;
    for (const char digit : line.substr(begin, length)) {
      value = value * 10 + (digit - '0');
    }
    return value;
  };
  const int64_t month = number(5, 2);
  const int64_t day = number(8, 2);
  const int64_t hour = number(11, 2);
  const int64_t minute = number(14, 2);
  const int64_t second = number(17, 2);
  constexpr int64_t kLeapSecond = 60;
  if (month < 1 || month > 12 || day < 1 || day > 31 || hour > 23 ||
      minute > 59 || second > kLeapSecond) {
    return std::nullopt;
  }
  const int64_t days = daysSinceEpoch(number(0, 4), month, day);
  const int64_t seconds = ((days * 24 + hour) * 60 + minute) * 60 + second;
  return seconds * 1'000'000 + number(20, 6);
}

std::string formatLogTime(int64_t time_us) {
  const time_t seconds = time_us / kSecondUs;
  tm utc{};
  (void)::gmtime_r(&seconds, &utc);
  char text[64] = {};
  const size_t length = std::strftime(text, sizeof(text), "%FT%T.", &utc);
  (void)std::snprintf(text + length, sizeof(text) - length, "%06dZ",
                      static_cast<int>(time_us % kSecondUs));
  return text;
}

}  // namespace vorn::launch
