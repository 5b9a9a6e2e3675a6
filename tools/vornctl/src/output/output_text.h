#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include <nlohmann/json_fwd.hpp>

namespace vorn::launch {

enum class GithubPart { PROPERTY, MESSAGE };

/// Text that an Output accepts: literals of the program, and other text that
/// one of the functions below has escaped. Names and paths come from launch
/// files and other programs; unescaped they could drive a terminal, start a
/// line of their own or reorder one, or command the runner of a CI job.
class OutputText {
 public:
  OutputText() = default;

  /// A literal, as it is.
  template <size_t N>
  // NOLINTNEXTLINE(google-explicit-constructor)
  OutputText(const char (&literal)[N]) : text_(literal, N - 1) {}
  template <size_t N>
  OutputText(char (&buffer)[N]) = delete;

  /// A number; not a character or a bool.
  template <typename Integer,
            typename = std::enable_if_t<std::is_integral_v<Integer> &&
                                        (sizeof(Integer) > 1)>>
  // NOLINTNEXTLINE(google-explicit-constructor)
  OutputText(Integer number) : text_(std::to_string(number)) {}

  const std::string& str() const { return text_; }
  bool empty() const { return text_.empty(); }

  OutputText& operator+=(const OutputText& other) {
    text_ += other.text_;
    return *this;
  }
  friend OutputText operator+(OutputText left, const OutputText& right) {
    return left += right;
  }
  bool operator==(const OutputText& other) const {
    return text_ == other.text_;
  }

 private:
  explicit OutputText(std::string escaped) : text_(std::move(escaped)) {}

  friend OutputText terminalText(std::string_view raw);
  friend OutputText quotedText(std::string_view raw);
  friend OutputText mermaidText(std::string_view raw);
  friend OutputText githubText(std::string_view raw, GithubPart part);
  friend OutputText htmlText(std::string_view raw);
  friend OutputText jsonText(const nlohmann::ordered_json& value, int indent);
  friend OutputText nulTerminated(const std::string& raw);
  friend OutputText spaces(size_t count);
  friend OutputText truncated(const OutputText& text, size_t width);

  std::string text_;
};

/// For a terminal. Escapes control characters as the launcher's log does
/// ("\n", "\r", "\t", "\x1b"), and in the same way each byte of other invisible
/// characters, of blanks except " ", and of invalid UTF-8. Also escapes the
/// first character of a workflow command of a CI system: "::" at the start,
/// "##[" anywhere.
OutputText terminalText(std::string_view raw);

/// For a string in double quotes in which a backslash escapes the quotes and
/// itself: in the language of Graphviz, and labels of metrics.
OutputText quotedText(std::string_view raw);

/// For a string in double quotes in Mermaid.
OutputText mermaidText(std::string_view raw);

/// For this part of a workflow command of GitHub.
OutputText githubText(std::string_view raw, GithubPart part);

/// For the text of an HTML or SVG element, and for an attribute in quotes.
OutputText htmlText(std::string_view raw);

/// A JSON document and a line end, in ASCII: other characters are escaped, and
/// bytes that are not UTF-8 replaced by U+FFFD. On one line if `indent` is -1.
OutputText jsonText(const nlohmann::ordered_json& value, int indent = 2);

/// For programs that read records: `raw` itself and a NUL.
OutputText nulTerminated(const std::string& raw);

/// `count` spaces.
OutputText spaces(size_t count);

/// Whether all bytes of the text are UTF-8.
bool isUtf8(std::string_view text);

/// The number of columns that the text needs on a terminal.
size_t displayWidth(const OutputText& text);

/// The text, or the start of it that fits into `width` columns, with an
/// ellipsis in the last one.
OutputText truncated(const OutputText& text, size_t width);

}  // namespace vorn::launch
