#include "launchfile/other_language.h"

#include <algorithm>
#include <string_view>
#include <vector>

#include "output/text.h"

namespace vorn::launch {
namespace {

bool isLetter(char letter) {
  return (letter >= 'a' && letter <= 'z') || (letter >= 'A' && letter <= 'Z');
}

bool isNameLetter(char letter) {
  return isLetter(letter) || (letter >= '0' && letter <= '9') ||
         std::string_view("_-.:").find(letter) != std::string_view::npos;
}

/// The line without blanks at both ends.
std::string_view trimmed(std::string_view line) {
  constexpr char kBlanks[] = " \t\r";
  const size_t begin = line.find_first_not_of(kBlanks);
  if (begin == std::string_view::npos) return {};
  return line.substr(begin, line.find_last_not_of(kBlanks) - begin + 1);
}

/// "[name]" or "[[name]]", the heading of a section.
bool isSection(std::string_view line) {
  if (line.size() < 3 || line.front() != '[' || line.back() != ']')
    return false;
  const std::string_view name = line.substr(1, line.size() - 2);
  return name.find_first_of(",{'\"") == std::string_view::npos;
}

/// "NAME=VALUE", with blanks around the sign or without.
bool isAssignment(std::string_view line) {
  const size_t sign = line.find('=');
  if (sign == std::string_view::npos || !isLetter(line.front())) return false;
  const std::string_view name = trimmed(line.substr(0, sign));
  return std::all_of(name.begin(), name.end(), isNameLetter);
}

bool isComment(std::string_view line) {
  return startsWith(line, "//") || startsWith(line, "/*");
}

const char* languageOf(const std::vector<std::string_view>& lines) {
  const std::string_view first = lines.front();
  if (first.size() > 1 && first[0] == '<' &&
      (isLetter(first[1]) || first[1] == '?' || first[1] == '!')) {
    return "an XML file";
  }
  const bool has_assignment =
      std::any_of(lines.begin(), lines.end(), isAssignment);
  if (isSection(first) && has_assignment) return "an INI or TOML file";
  if (isAssignment(first)) return "a file of NAME=VALUE lines";
  const bool is_object = startsWith(first, "{") || isComment(first);
  const bool has_comment = std::any_of(lines.begin(), lines.end(), isComment);
  return is_object && has_comment ? "JSON with comments" : "";
}

}  // namespace

Text otherLanguageOf(const std::string& text) {
  const SourceText document("", text);
  std::vector<std::string_view> lines;
  int first = 0;
  const auto end = static_cast<int>(std::count(text.begin(), text.end(), '\n'));
  for (int number = 1; number <= end + 1; ++number) {
    const std::string_view line = trimmed(document.line(number));
    if (line.empty() || line.front() == '#' || line.front() == ';') continue;
    if (lines.empty()) first = number;
    lines.push_back(line);
  }
  if (lines.empty()) return {};
  return {languageOf(lines), {first, 1}};
}

}  // namespace vorn::launch
