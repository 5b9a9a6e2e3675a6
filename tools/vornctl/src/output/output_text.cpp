#include "output/output_text.h"

#include <wchar.h>

#include <algorithm>
#include <cstdint>
#include <iterator>
#include <utility>

#include <nlohmann/json.hpp>

namespace vorn::launch {
namespace {

/// One character of a text.
struct Character {
  size_t length = 1;      // in bytes
  char32_t code = 0;      // of the code point
  bool is_valid = false;  // UTF-8
};

Character characterAt(std::string_view text, size_t position) {
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

bool isVisible(char32_t code) {
  // Sorted.
  constexpr std::pair<char32_t, char32_t> kInvisible[] = {
      {0x00, 0x1f},        // C0 controls
      {0x7f, 0xa0},        // DEL, C1 controls, no-break space
      {0xad, 0xad},        // soft hyphen
      {0x34f, 0x34f},      // grapheme joiner
      {0x61c, 0x61c},      // direction mark
      {0x115f, 0x1160},    // Hangul fillers
      {0x1680, 0x1680},    // blank
      {0x180e, 0x180e},    // vowel separator
      {0x2000, 0x200f},    // blanks, zero width, direction marks
      {0x2028, 0x202f},    // line ends, direction, blank
      {0x205f, 0x206f},    // blank, zero width, direction
      {0x2800, 0x2800},    // Braille blank
      {0x3000, 0x3000},    // blank
      {0x3164, 0x3164},    // Hangul filler
      {0xfe00, 0xfe0f},    // variation selectors
      {0xfeff, 0xfeff},    // byte order mark
      {0xffa0, 0xffa0},    // half-width Hangul filler
      {0xfff9, 0xfffb},    // annotations
      {0xe0000, 0xe0fff},  // tags, variations
  };
  const auto* const range =
      std::find_if(std::begin(kInvisible), std::end(kInvisible),
                   [code](const auto& each) { return code <= each.second; });
  return range == std::end(kInvisible) || code < range->first;
}

/// Whether a CI system parses the text from `position` as a command: "::" after
/// blanks only, or "##[", "##vso[" and the like anywhere.
bool isWorkflowCommand(std::string_view text, size_t position) {
  if (text.substr(position, 2) == "::") {
    return text.find_first_not_of(' ') == position;
  }
  if (text.substr(position, 2) != "##") return false;
  const size_t end =
      text.find_first_not_of("abcdefghijklmnopqrstuvwxyz", position + 2);
  return end != std::string_view::npos && text[end] == '[';
}

void appendEscape(std::string& result, char letter) {
  constexpr char kDigits[] = "0123456789abcdef";
  const auto byte = static_cast<unsigned char>(letter);
  switch (letter) {
    case '\n':
      result += "\\n";
      break;
    case '\r':
      result += "\\r";
      break;
    case '\t':
      result += "\\t";
      break;
    default:
      result += "\\x";
      result += kDigits[byte >> 4U];
      result += kDigits[byte & 0xfU];
  }
}

std::string visible(std::string_view raw) {
  std::string result;
  for (size_t i = 0; i < raw.size();) {
    const Character character = characterAt(raw, i);
    const std::string_view bytes = raw.substr(i, character.length);
    if (character.is_valid && isVisible(character.code) &&
        !isWorkflowCommand(raw, i)) {
      result += bytes;
    } else {
      for (const char byte : bytes) appendEscape(result, byte);
    }
    i += character.length;
  }
  return result;
}

/// The text with each of these letters replaced by `escape(letter)`.
template <typename Escape>
std::string replaced(const std::string& text, std::string_view letters,
                     Escape escape) {
  std::string result;
  for (const char letter : text) {
    if (letters.find(letter) == std::string_view::npos) {
      result += letter;
    } else {
      result += escape(letter);
    }
  }
  return result;
}

size_t widthOf(char32_t code) {
  const int width = ::wcwidth(static_cast<wchar_t>(code));
  return width < 0 ? 1 : static_cast<size_t>(width);
}

}  // namespace

OutputText terminalText(std::string_view raw) {
  return OutputText(visible(raw));
}

OutputText quotedText(std::string_view raw) {
  return OutputText(replaced(visible(raw), "\"\\", [](char letter) {
    return std::string("\\") + letter;
  }));
}

OutputText mermaidText(std::string_view raw) {
  // Numeric character references in Mermaid's form.
  return OutputText(replaced(visible(raw), "\"#&<>\\`", [](char letter) {
    return '#' + std::to_string(static_cast<int>(letter)) + ';';
  }));
}

OutputText githubText(std::string_view raw, GithubPart part) {
  const char* const letters = part == GithubPart::PROPERTY ? "%,:" : "%";
  return OutputText(replaced(visible(raw), letters, [](char letter) {
    return letter == '%' ? "%25" : letter == ',' ? "%2C" : "%3A";
  }));
}

OutputText htmlText(std::string_view raw) {
  return OutputText(replaced(visible(raw), "&<>\"'", [](char letter) {
    return "&#" + std::to_string(static_cast<int>(letter)) + ';';
  }));
}

OutputText jsonText(const nlohmann::ordered_json& value, int indent) {
  std::string text =
      value.dump(indent, ' ', true, nlohmann::json::error_handler_t::replace);
  for (size_t i = 0; i < text.size(); ++i) {
    // A number sign can only be in a string.
    if (isWorkflowCommand(text, i)) text.replace(i, 1, "\\u0023");
  }
  return OutputText(text + '\n');
}

OutputText nulTerminated(const std::string& raw) {
  return OutputText(raw + '\0');
}

OutputText spaces(size_t count) { return OutputText(std::string(count, ' ')); }

bool isUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const Character character = characterAt(text, i);
    if (!character.is_valid) return false;
    i += character.length;
  }
  return true;
}

size_t displayWidth(const OutputText& text) {
  size_t width = 0;
  for (size_t i = 0; i < text.str().size();) {
    const Character character = characterAt(text.str(), i);
    width += widthOf(character.code);
    i += character.length;
  }
  return width;
}

OutputText truncated(const OutputText& text, size_t width) {
  if (displayWidth(text) <= width) return text;
  if (width == 0) return {};
  size_t used = 0;
  size_t end = 0;
  for (;;) {
    const Character character = characterAt(text.str(), end);
    if (used + widthOf(character.code) > width - 1) break;
    used += widthOf(character.code);
    end += character.length;
  }
  return OutputText(text.str().substr(0, end) + "…");
}

}  // namespace vorn::launch
