#include "output/point_in_time.h"

#include <chrono>
#include <ctime>

#include "output/duration.h"

namespace vorn::launch {
namespace {

/// Removes "." and digits from the start of `rest`, and returns their value in
/// microseconds.
int64_t takeFraction(const char*& rest) {
  if (*rest != '.') return 0;
  int64_t fraction = 0;
  int64_t unit = kSecondUs;
  for (++rest; *rest >= '0' && *rest <= '9'; ++rest) {
    unit /= 10;
    fraction += unit * (*rest - '0');
  }
  return fraction;
}

/// Whether mktime() or timegm() has changed the date: it does not exist.
bool isSameDay(const tm& one, const tm& other) {
  return one.tm_mday == other.tm_mday && one.tm_mon == other.tm_mon;
}

}  // namespace

std::optional<int64_t> parsePointInTime(const std::string& text,
                                        int64_t now_us) {
  if (const auto span = parseDuration(text)) {
    return now_us -
           std::chrono::duration_cast<std::chrono::microseconds>(*span).count();
  }
  tm parts{};
  const char* rest = ::strptime(text.c_str(), "%Y-%m-%d", &parts);
  if (rest == nullptr) return std::nullopt;
  int64_t fraction = 0;
  if (*rest == ' ' || *rest == 'T') {
    const char* const begin = rest + 1;
    rest = ::strptime(begin, "%H:%M:%S", &parts);
    if (rest != nullptr) {
      fraction = takeFraction(rest);
    } else {
      rest = ::strptime(begin, "%H:%M", &parts);
    }
  }
  const std::string zone = rest == nullptr ? "?" : rest;
  if (!zone.empty() && zone != "Z") return std::nullopt;
  parts.tm_isdst = -1;
  tm adjusted = parts;
  const time_t seconds =
      zone == "Z" ? ::timegm(&adjusted) : std::mktime(&adjusted);
  if (seconds < 0 || !isSameDay(parts, adjusted)) return std::nullopt;
  return int64_t{seconds} * kSecondUs + fraction;
}

}  // namespace vorn::launch
