#include "monitor/rotation.h"

#include <cstdio>
#include <ctime>

namespace vorn::run {
namespace {

bool isAllDigits(std::string_view text) {
  return text.find_first_not_of("0123456789") == std::string_view::npos;
}

/// Removes the suffix; returns whether it was there.
bool removeSuffix(std::string_view& text, std::string_view suffix) {
  if (text.size() < suffix.size() ||
      text.substr(text.size() - suffix.size()) != suffix)
    return false;
  text.remove_suffix(suffix.size());
  return true;
}

}  // namespace

std::string rotatedName(uint64_t number, int64_t unix_time) {
  const time_t time = unix_time;
  tm utc{};
  (void)::gmtime_r(&time, &utc);
  char name[64];
  (void)std::snprintf(
      name, sizeof(name), "%08llu-%04d%02d%02dT%02d%02d%02dZ.log",
      static_cast<unsigned long long>(number), utc.tm_year + 1900,
      utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec);
  return name;
}

std::optional<RotatedFile> parseRotatedName(std::string_view name) {
  constexpr size_t kTimeSize = 16;    // 20261122T105000Z
  constexpr size_t kMostDigits = 18;  // fits into 64 bits
  RotatedFile file;
  file.isCompressed = removeSuffix(name, ".gz");
  if (!removeSuffix(name, ".log")) return std::nullopt;
  const size_t dash = name.find('-');
  if (dash == std::string_view::npos || dash < 8 || dash > kMostDigits)
    return std::nullopt;
  const std::string_view time = name.substr(dash + 1);
  if (!isAllDigits(name.substr(0, dash)) || time.size() != kTimeSize ||
      !isAllDigits(time.substr(0, 8)) || time[8] != 'T' ||
      !isAllDigits(time.substr(9, 6)) || time[15] != 'Z')
    return std::nullopt;
  for (const char digit : name.substr(0, dash))
    file.number = file.number * 10 + static_cast<uint64_t>(digit - '0');
  return file;
}

size_t bytesBeforeRotation(std::string_view text, uint64_t room,
                           bool may_end_here) {
  if (text.size() <= room) return text.size();
  const auto most = static_cast<size_t>(room);
  const size_t end =
      most == 0 ? std::string_view::npos : text.rfind('\n', most - 1);
  if (end != std::string_view::npos) return end + 1;
  return may_end_here ? 0 : most;
}

}  // namespace vorn::run
