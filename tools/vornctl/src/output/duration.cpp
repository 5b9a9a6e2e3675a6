#include "output/duration.h"

#include <cmath>
#include <sstream>

namespace vorn::launch {

std::optional<std::chrono::milliseconds> parseDuration(
    const std::string& text) {
  constexpr double kYear = 365.0 * 24 * 3600 * 1000;
  if (text.find_first_not_of("0123456789.hms") != std::string::npos) {
    return std::nullopt;
  }
  std::istringstream stream(text);
  stream.imbue(std::locale::classic());
  double value = 0;
  std::string unit;
  if (!(stream >> value)) return std::nullopt;
  stream >> unit;
  double factor = 0;
  if (unit == "ms") factor = 1;
  if (unit.empty() || unit == "s") factor = 1000;
  if (unit == "m") factor = 60 * 1000;
  if (unit == "h") factor = 3600 * 1000;
  const double milliseconds = std::round(value * factor);
  if (factor == 0 || milliseconds > kYear) return std::nullopt;
  return std::chrono::milliseconds(static_cast<int64_t>(milliseconds));
}

}  // namespace vorn::launch
