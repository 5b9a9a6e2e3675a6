#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vorn::launch {

/// A location in a file, counted from 1; the column in bytes. Line 0 is the
/// whole file.
struct SourceLocation {
  int line = 0;
  int column = 0;

  bool operator==(const SourceLocation& other) const {
    return line == other.line && column == other.column;
  }
  bool operator<(const SourceLocation& other) const {
    return line != other.line ? line < other.line : column < other.column;
  }
};

/// A text and its location in the file.
struct Text {
  std::string value;
  SourceLocation location;
};

/// The values of these texts.
std::vector<std::string> valuesOf(const std::vector<Text>& texts);

/// The text of a launch file and its lines.
class SourceText {
 public:
  /// `name` is the name of the file in messages.
  SourceText(std::string name, std::string text,
             bool is_standard_input = false);

  const std::string& name() const { return name_; }
  const std::string& text() const { return text_; }
  bool isStandardInput() const { return is_standard_input_; }

  /// The line with this number, without its line end; empty if it does not
  /// exist. Borrowed from this document.
  std::string_view line(int number) const;

  int lineCount() const { return static_cast<int>(line_starts_.size()); }

  /// The names in comments "# vornctl: ignore=NAME,NAME" on this line.
  std::vector<std::string> ignoredAt(int number) const;

  /// The numbers of the lines that have such a comment.
  std::vector<int> linesWithIgnores() const;

 private:
  std::string name_;
  std::string text_;
  bool is_standard_input_;
  std::vector<size_t> line_starts_;
};

/// In bytes. A parsed file uses about eighty times its size in memory.
constexpr size_t kLargestFile = size_t{16} << 20U;

/// The parts of `text` between separators, without empty parts. Throws
/// std::bad_alloc, unlike std::getline(), which would end the loop.
std::vector<std::string> split(const std::string& text, char separator);

/// Reads the file at `path`, standard input for "-". Nothing if the file cannot
/// be read to its end or is larger than kLargestFile; `error` is then one
/// sentence with the reason. Throws std::bad_alloc.
std::optional<SourceText> readSourceText(const std::string& path,
                                         std::string& error);

/// As above, from the open `fd`, which the caller closes. `fd` may be negative
/// with errno. `reason` is the bare reason of a failure.
std::optional<SourceText> readSourceText(const std::string& name, int fd,
                                         std::string& reason,
                                         bool is_standard_input = false);

}  // namespace vorn::launch
