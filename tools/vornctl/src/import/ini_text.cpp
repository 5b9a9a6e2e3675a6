#include "import/ini_text.h"

#include <sstream>

#include "import/imported.h"
#include "output/text.h"

namespace vorn::launch {
namespace {

constexpr char kIniBlanks[] = " \t\r\f\v";

std::string trimmedLine(const std::string& text) {
  const size_t begin = text.find_first_not_of(kIniBlanks);
  if (begin == std::string::npos) return "";
  return text.substr(begin, text.find_last_not_of(kIniBlanks) - begin + 1);
}

bool isCommentLine(const std::string& line) {
  const size_t begin = line.find_first_not_of(kIniBlanks);
  return begin != std::string::npos &&
         (line[begin] == '#' || line[begin] == ';');
}

/// The line up to a comment that follows a blank.
std::string withoutComment(const std::string& line) {
  for (size_t i = 1; i < line.size(); ++i) {
    const bool is_start = line[i] == ';' || line[i] == '#';
    if (is_start && (line[i - 1] == ' ' || line[i - 1] == '\t')) {
      return line.substr(0, i);
    }
  }
  return line;
}

/// Adds the section that a trimmed line starts. False for another line.
bool addSection(const SourceText& file, int number, const std::string& line,
                std::vector<IniSection>& sections) {
  if (line[0] != '[') return false;
  const size_t end = line.find(']');
  if (end == std::string::npos) {
    throw ImportError(file, number, "']' is missing");
  }
  sections.push_back({line.substr(1, end - 1), number, {}});
  return true;
}

IniEntry& addEntry(const SourceText& file, int number, const std::string& line,
                   const char* separators, std::vector<IniSection>& sections) {
  const size_t separator = line.find_first_of(separators);
  if (separator == std::string::npos || separator == 0) {
    throw ImportError(file, number,
                      "expected KEY=VALUE or [SECTION], found '" + line + "'");
  }
  if (sections.empty()) {
    throw ImportError(file, number, "a setting before the first [SECTION]");
  }
  std::vector<IniEntry>& entries = sections.back().entries;
  entries.push_back({trimmedLine(line.substr(0, separator)),
                     trimmedLine(line.substr(separator + 1)), number});
  return entries.back();
}

/// The lines of the file; a byte order mark at its start is skipped.
std::vector<std::string> linesIn(const SourceText& file) {
  const bool has_mark = startsWith(file.text(), "\xef\xbb\xbf");
  std::istringstream text(file.text().substr(has_mark ? 3 : 0));
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  return lines;
}

}  // namespace

std::vector<IniSection> readSupervisordText(const SourceText& file) {
  std::vector<IniSection> sections;
  IniEntry* last = nullptr;  // an indented line continues its value
  int number = 0;
  for (const std::string& whole : linesIn(file)) {
    ++number;
    if (isCommentLine(whole)) continue;
    const std::string line = trimmedLine(withoutComment(whole));
    if (line.empty()) continue;
    const bool is_indented = whole[0] == ' ' || whole[0] == '\t';
    if (is_indented && last != nullptr) {
      last->value += "\n" + line;
    } else if (addSection(file, number, line, sections)) {
      last = nullptr;
    } else {
      last = &addEntry(file, number, line, "=:", sections);
      last->key = lowerCase(last->key);
    }
  }
  return sections;
}

std::vector<IniSection> readUnitText(const SourceText& file) {
  std::vector<IniSection> sections;
  std::string joined;
  int first = 0;  // the line at which `joined` starts
  int number = 0;
  const auto finish = [&] {
    const std::string line = trimmedLine(joined);
    joined.clear();
    if (line.empty() || addSection(file, first, line, sections)) return;
    addEntry(file, first, line, "=", sections);
  };
  for (const std::string& whole : linesIn(file)) {
    ++number;
    if (isCommentLine(whole)) continue;
    if (joined.empty()) first = number;
    std::string line = whole;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    if (!line.empty() && line.back() == '\\') {
      line.back() = ' ';
      joined += line;
      continue;
    }
    joined += line;
    finish();
  }
  finish();
  return sections;
}

}  // namespace vorn::launch
