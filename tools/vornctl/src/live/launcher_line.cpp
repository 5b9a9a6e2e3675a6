#include "live/launcher_line.h"

#include <charconv>

#include "output/text.h"

namespace vorn::launch {

std::optional<std::string> between(std::string_view text,
                                   std::string_view prefix,
                                   std::string_view suffix) {
  if (text.size() < prefix.size() + suffix.size() ||
      !startsWith(text, prefix) ||
      text.substr(text.size() - suffix.size()) != suffix) {
    return std::nullopt;
  }
  return std::string(
      text.substr(prefix.size(), text.size() - prefix.size() - suffix.size()));
}

int numberAfter(std::string_view text, std::string_view label) {
  int number = 0;
  const size_t begin = text.find(label);
  if (begin == std::string_view::npos) return number;
  const std::string_view digits = text.substr(begin + label.size());
  (void)std::from_chars(digits.data(), digits.data() + digits.size(), number);
  return number;
}

std::optional<std::string> nodeIn(std::string_view text,
                                  std::string_view suffix) {
  return between(text, "Node '", suffix);
}

bool isLoadLine(std::string_view text) {
  return startsWith(text, "setenv ") ||
         (startsWith(text, "name: ") &&
          !between(text, "name: ", " fork failed."));
}

bool isLineOfChild(const LogLine& line) {
  return line.function == "runChild" || line.function == "unblockSignals";
}

}  // namespace vorn::launch
