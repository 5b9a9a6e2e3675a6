#include "document.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <utility>

namespace vorn::launch {
namespace {

constexpr char kIgnore[] = "# vornctl: ignore=";

}  // namespace

Document::Document(std::string name, std::string text, bool is_standard_input)
    : name_(std::move(name)),
      text_(std::move(text)),
      is_standard_input_(is_standard_input),
      line_starts_{0} {
  for (size_t end = text_.find('\n'); end != std::string::npos;
       end = text_.find('\n', end + 1)) {
    line_starts_.push_back(end + 1);
  }
}

std::string Document::line(int number) const {
  if (number < 1) return "";
  const auto index = static_cast<size_t>(number) - 1;
  if (index >= line_starts_.size()) return "";
  const size_t begin = line_starts_[index];
  size_t end = text_.find('\n', begin);
  if (end == std::string::npos) end = text_.size();
  if (end > begin && text_[end - 1] == '\r') --end;
  return text_.substr(begin, end - begin);
}

std::vector<std::string> Document::ignoredAt(int number) const {
  const std::string content = line(number);
  std::vector<std::string> ignored;
  for (size_t found = content.find(kIgnore); found != std::string::npos;
       found = content.find(kIgnore, found + 1)) {
    // The names end at a space; what follows is for people.
    const size_t begin = found + std::strlen(kIgnore);
    const size_t end = content.find_first_of(" \t", begin);
    std::istringstream names(content.substr(begin, end - begin));
    for (std::string name; std::getline(names, name, ',');) {
      if (!name.empty()) ignored.push_back(name);
    }
  }
  return ignored;
}

std::vector<int> Document::linesWithIgnores() const {
  std::vector<int> numbers;
  size_t line = 0;
  for (size_t found = text_.find(kIgnore); found != std::string::npos;
       found = text_.find(kIgnore, line_starts_[line])) {
    while (line < line_starts_.size() && line_starts_[line] <= found) ++line;
    numbers.push_back(static_cast<int>(line));
    if (line == line_starts_.size()) break;
  }
  return numbers;
}

std::optional<Document> readDocument(const std::string& path,
                                     std::string& error) {
  if (path == "-") {
    return Document("<stdin>", {std::istreambuf_iterator<char>(std::cin), {}},
                    true);
  }
  std::error_code code;
  if (std::filesystem::is_directory(path, code)) {
    error = "cannot read " + path + ": it is a folder";
    return std::nullopt;
  }
  errno = 0;
  std::ifstream file(path, std::ios::binary);
  std::ostringstream text;
  if (file) text << file.rdbuf();
  if (!file.is_open() || file.bad()) {
    error = "cannot read " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  return Document(path, text.str());
}

}  // namespace vorn::launch
