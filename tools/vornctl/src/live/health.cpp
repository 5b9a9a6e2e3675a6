#include "live/health.h"

namespace vorn::launch {

const char* wordFor(Verdict verdict) {
  switch (verdict) {
    case Verdict::ERROR:
      return "error";
    case Verdict::WARNING:
      return "warning";
    case Verdict::UNKNOWN:
      return "unknown";
    case Verdict::PASSED:
      break;
  }
  return "ok";
}

std::string listOf(const std::vector<std::string>& words) {
  std::string text;
  for (size_t i = 0; i < words.size(); ++i) {
    if (i > 0) text += i + 1 == words.size() ? " and " : ", ";
    text += words[i];
  }
  return text;
}

}  // namespace vorn::launch
