#include "environment_file.h"

#include <cstring>

namespace vorn::run {
namespace {

constexpr char kNameCharacters[] =
    "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_";

bool isFileBlank(char c) { return c == ' ' || c == '\t' || c == '\r'; }

std::string withoutTrailingBlanks(std::string text) {
  while (!text.empty() && isFileBlank(text.back())) text.pop_back();
  return text;
}

/// Reads one file from its start to its end.
class EnvironmentFileReader {
 public:
  explicit EnvironmentFileReader(std::string_view text) : text_(text) {}

  EnvironmentFile read() {
    while (position_ < text_.size() && result_.error.empty()) readLine();
    return std::move(result_);
  }

 private:
  bool atEnd() const { return position_ == text_.size(); }
  bool isAt(char c) const { return !atEnd() && text_[position_] == c; }

  char take() {
    if (text_[position_] == '\n') ++line_;
    return text_[position_++];
  }

  void skipLine() {
    while (!atEnd() && take() != '\n') {
    }
  }

  void skipBlanks() {
    while (!atEnd() && isFileBlank(text_[position_])) take();
  }

  void readLine() {
    skipBlanks();
    if (isAt('#') || isAt(';') || isAt('\n')) return skipLine();
    const size_t begin = position_;
    const size_t first = line_;
    while (!atEnd() && !isAt('=') && !isAt('\n')) take();
    const std::string name = withoutTrailingBlanks(
        std::string(text_.substr(begin, position_ - begin)));
    if (!isAt('=')) return skipLine();
    take();
    if (!isVariableName(name))
      return fail(first, "invalid variable name '" + name + "'");
    std::string value = readValue(first);
    if (value.find('\0') != std::string::npos) {
      return fail(first, "NUL byte in the value of " + name);
    }
    result_.variables.emplace_back(name, std::move(value));
  }

  /// Everything up to the line end that is not quoted.
  std::string readValue(size_t first) {
    std::string value;
    for (;;) {
      skipBlanks();
      if (isAt('\'')) {
        readSingleQuoted(value, first);
      } else if (isAt('"')) {
        readDoubleQuoted(value, first);
      } else {
        return value + readUnquoted();
      }
    }
  }

  void readSingleQuoted(std::string& value, size_t first) {
    take();
    while (!atEnd()) {
      const char c = take();
      if (c == '\'') return;
      value += c;
    }
    fail(first, "the single quote is not closed");
  }

  void readDoubleQuoted(std::string& value, size_t first) {
    take();
    while (!atEnd()) {
      const char c = take();
      if (c == '"') return;
      if (c != '\\' || atEnd()) {
        value += c;
        continue;
      }
      const char next = take();
      if (next == '\n') continue;
      if (std::strchr("\"\\`$", next) == nullptr || next == '\0') value += c;
      value += next;
    }
    fail(first, "the double quote is not closed");
  }

  /// Trailing blanks are removed unless a backslash quotes them.
  std::string readUnquoted() {
    std::string value;
    size_t kept = 0;  // the length up to the last character that is not blank
    while (!atEnd()) {
      char c = take();
      if (c == '\n') break;
      const bool is_quoted = c == '\\' && !atEnd();
      if (is_quoted) c = take();
      if (is_quoted && c == '\n') continue;
      value += c;
      if (is_quoted || !isFileBlank(c)) kept = value.size();
    }
    value.resize(kept);
    return value;
  }

  void fail(size_t line, const std::string& reason) {
    if (!result_.error.empty()) return;
    result_.error = "line " + std::to_string(line) + ": " + reason;
  }

  std::string_view text_;
  size_t position_ = 0;
  size_t line_ = 1;
  EnvironmentFile result_;
};

}  // namespace

bool isVariableName(std::string_view name) {
  if (name.empty() || (name[0] >= '0' && name[0] <= '9')) return false;
  return name.find_first_not_of(kNameCharacters) == std::string_view::npos;
}

EnvironmentFile parseEnvironmentFile(std::string_view text) {
  return EnvironmentFileReader(text).read();
}

}  // namespace vorn::run
