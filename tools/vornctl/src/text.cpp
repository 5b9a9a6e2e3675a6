#include "text.h"

#include <wchar.h>

#include <cstdint>
#include <cstdio>

namespace vorn::launch {
namespace {

/// One character of a text.
struct Character {
  size_t length = 1;      // in bytes
  char32_t code = 0;      // of the code point
  bool is_valid = false;  // UTF-8
};

Character characterAt(const std::string& text, size_t position) {
  const auto byte = [&](size_t offset) -> uint32_t {
    return position + offset < text.size()
               ? static_cast<unsigned char>(text[position + offset])
               : 0U;
  };
  const uint32_t first = byte(0);
  if (first < 0x80) return {1, first, true};
  const size_t length = first >= 0xf0 ? 4 : first >= 0xe0 ? 3 : 2;
  if (first < 0xc2 || first > 0xf4) return {};
  uint32_t code = first & (0x7fU >> length);
  for (size_t i = 1; i < length; ++i) {
    if ((byte(i) & 0xc0U) != 0x80U) return {};
    code = code << 6U | (byte(i) & 0x3fU);
  }
  constexpr uint32_t kShortest[] = {0, 0, 0x80, 0x800, 0x10000};
  const bool is_surrogate = code >= 0xd800 && code <= 0xdfff;
  if (code < kShortest[length] || is_surrogate || code > 0x10ffff) return {};
  return {length, code, true};
}

bool isControl(char32_t code) {
  constexpr char32_t kLineSeparator = 0x2028;
  constexpr char32_t kParagraphSeparator = 0x2029;
  return code < 0x20 || (code >= 0x7f && code < 0xa0) ||
         code == kLineSeparator || code == kParagraphSeparator ||
         (code >= 0x202a && code <= 0x202e) ||  // turn the text's direction,
         (code >= 0x2066 && code <= 0x2069);    // beyond the name's end
}

size_t widthOf(char32_t code) {
  const int width = ::wcwidth(static_cast<wchar_t>(code));
  return width < 0 ? 1 : static_cast<size_t>(width);
}

}  // namespace

std::string printable(const std::string& text) {
  std::string result;
  for (size_t i = 0; i < text.size();) {
    const Character character = characterAt(text, i);
    if (character.is_valid && !isControl(character.code)) {
      result.append(text, i, character.length);
    } else {
      for (size_t j = 0; j < character.length; ++j) {
        char escaped[8];
        (void)std::snprintf(escaped, sizeof(escaped), "\\x%02x",
                            static_cast<unsigned char>(text[i + j]));
        result += escaped;
      }
    }
    i += character.length;
  }
  return result;
}

size_t displayWidth(const std::string& text) {
  size_t width = 0;
  for (size_t i = 0; i < text.size();) {
    const Character character = characterAt(text, i);
    width += widthOf(character.code);
    i += character.length;
  }
  return width;
}

std::string fitted(const std::string& text, size_t width) {
  if (displayWidth(text) <= width) return text;
  if (width == 0) return "";
  std::string result;
  size_t used = 0;
  for (size_t i = 0; i < text.size();) {
    const Character character = characterAt(text, i);
    if (used + widthOf(character.code) > width - 1) break;
    used += widthOf(character.code);
    result.append(text, i, character.length);
    i += character.length;
  }
  return result + "…";
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

}  // namespace vorn::launch
