#include "output/text.h"

namespace vorn::launch {

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::string untilNul(const std::string& text) {
  return text.substr(0, text.find('\0'));
}

std::string upperCase(std::string text) {
  for (char& letter : text) {
    if (letter >= 'a' && letter <= 'z') {
      letter = static_cast<char>(letter - 'a' + 'A');
    }
  }
  return text;
}

std::string lowerCase(std::string text) {
  for (char& letter : text) {
    if (letter >= 'A' && letter <= 'Z') {
      letter = static_cast<char>(letter - 'A' + 'a');
    }
  }
  return text;
}

std::string shellArgument(const std::string& text) {
  constexpr char kPlain[] =
      "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789%+,-./"
      ":=@_";
  const std::string prefix = text.rfind('-', 0) == 0 ? "-- " : "";
  const bool is_plain =
      !text.empty() && text.find_first_not_of(kPlain) == std::string::npos;
  if (is_plain) return prefix + text;
  std::string quoted;
  for (const char letter : text) {
    if (letter == '\'') {
      quoted += "'\\''";
    } else {
      quoted += letter;
    }
  }
  return prefix + '\'' + quoted + '\'';
}

}  // namespace vorn::launch
