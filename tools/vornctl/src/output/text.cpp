#include "output/text.h"

namespace vorn::launch {

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

}  // namespace vorn::launch
