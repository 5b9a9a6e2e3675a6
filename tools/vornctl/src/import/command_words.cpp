#include "import/command_words.h"

#include <cctype>

namespace vorn::launch {
namespace {

bool isBlank(char character) {
  return std::isspace(static_cast<unsigned char>(character)) != 0;
}

/// Splits a text into words. `unescape(text, i, quote)` is called with `i` at a
/// backslash; it returns the characters that replace it and moves `i` to the
/// last character of the escape.
template <typename Unescape>
std::optional<std::vector<std::string>> splitWords(const std::string& text,
                                                   Unescape unescape) {
  std::vector<std::string> words;
  bool is_inside = false;  // of a word
  char quote = '\0';
  for (size_t i = 0; i < text.size(); ++i) {
    const char character = text[i];
    if (quote == '\0' && isBlank(character)) {
      is_inside = false;
      continue;
    }
    if (!is_inside) words.emplace_back();
    is_inside = true;
    if (character == quote) {
      quote = '\0';
    } else if (quote == '\0' && (character == '"' || character == '\'')) {
      quote = character;
    } else if (character == '\\') {
      words.back() += unescape(text, i, quote);
    } else {
      words.back() += character;
    }
  }
  if (quote != '\0') return std::nullopt;
  return words;
}

std::string unescapeForShell(const std::string& text, size_t& i, char quote) {
  if (quote == '\'' || i + 1 == text.size()) return "\\";
  const char next = text[i + 1];
  if (quote == '"' && next != '"' && next != '\\') return "\\";
  ++i;
  return {next};
}

std::string unescapeForUnit(const std::string& text, size_t& i, char) {
  static const std::string letters = "abfnrtvs";
  static const std::string values = "\a\b\f\n\r\t\v ";
  if (i + 1 == text.size()) return "\\";
  const char next = text[++i];
  if (const size_t at = letters.find(next); at != std::string::npos) {
    return {values[at]};
  }
  if (next == 'x' && i + 2 < text.size() && std::isxdigit(text[i + 1]) != 0 &&
      std::isxdigit(text[i + 2]) != 0) {
    i += 2;
    return {static_cast<char>(std::stoi(text.substr(i - 1, 2), nullptr, 16))};
  }
  if (next == '"' || next == '\'' || next == '\\') return {next};
  return std::string("\\") + next;  // systemd keeps unknown escapes
}

}  // namespace

std::optional<std::vector<std::string>> shellWords(const std::string& command) {
  return splitWords(command, unescapeForShell);
}

std::optional<std::vector<std::string>> unitWords(const std::string& text) {
  return splitWords(text, unescapeForUnit);
}

}  // namespace vorn::launch
