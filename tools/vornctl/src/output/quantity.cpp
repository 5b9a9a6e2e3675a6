#include "output/quantity.h"

#include <cstdio>

namespace vorn::launch {

std::string formatBytes(int64_t bytes) {
  constexpr double kUnit = 1024;
  if (bytes < 1024) return std::to_string(bytes);
  double amount = static_cast<double>(bytes) / kUnit;
  const char* unit = "KMGTPE";
  // "1024.0M" would be wider than "1.0G".
  while (amount >= kUnit - 0.05) {
    amount /= kUnit;
    ++unit;
  }
  char text[32];
  (void)std::snprintf(text, sizeof(text), *unit == 'K' ? "%.0f%c" : "%.1f%c",
                      amount, *unit);
  return text;
}

std::string formatPercent(double percent) {
  char text[32];
  (void)std::snprintf(text, sizeof(text), "%.1f", percent);
  return text;
}

}  // namespace vorn::launch
