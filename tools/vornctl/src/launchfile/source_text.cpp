#include "launchfile/source_text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "descriptor.h"

namespace vorn::launch {
namespace {

constexpr char kIgnore[] = "# vornctl: ignore=";

/// The size of an open regular file; 0 for other files, which have no size.
size_t sizeOf(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0 || !S_ISREG(status.st_mode)) return 0;
  return static_cast<size_t>(status.st_size);
}

/// Appends the bytes of `fd`, which errno describes if it is negative, to
/// `text` up to the end of the file. Returns the reason of a failure, or an
/// empty text.
std::string readAll(int fd, std::string& text) {
  constexpr size_t kPiece = 65536;
  if (fd < 0) return std::strerror(errno);
  while (text.size() <= kLargestFile) {
    const size_t size = text.size();
    text.resize(size + kPiece);
    const ssize_t count = ::read(fd, text.data() + size, kPiece);
    text.resize(size + static_cast<size_t>(std::max<ssize_t>(count, 0)));
    if (count == 0) return "";
    if (count < 0 && errno != EINTR) return std::strerror(errno);
  }
  return "it is larger than " + std::to_string(kLargestFile >> 20U) +
         " MiB, the limit for a launch file";
}

}  // namespace

std::vector<std::string> valuesOf(const std::vector<Text>& texts) {
  std::vector<std::string> values;
  values.reserve(texts.size());
  for (const Text& text : texts) values.push_back(text.value);
  return values;
}

std::vector<std::string> split(const std::string& text, char separator) {
  std::vector<std::string> parts;
  size_t begin = 0;
  while (begin < text.size()) {
    const size_t end = std::min(text.find(separator, begin), text.size());
    if (end > begin) parts.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return parts;
}

SourceText::SourceText(std::string name, std::string text,
                       bool is_standard_input)
    : name_(std::move(name)),
      text_(std::move(text)),
      is_standard_input_(is_standard_input),
      line_starts_{0} {
  for (size_t end = text_.find('\n'); end != std::string::npos;
       end = text_.find('\n', end + 1)) {
    line_starts_.push_back(end + 1);
  }
}

std::string_view SourceText::line(int number) const {
  if (number < 1) return {};
  const auto index = static_cast<size_t>(number) - 1;
  if (index >= line_starts_.size()) return {};
  const size_t begin = line_starts_[index];
  const bool is_last = index + 1 == line_starts_.size();
  size_t end = is_last ? text_.size() : line_starts_[index + 1] - 1;
  if (end > begin && text_[end - 1] == '\r') --end;
  return std::string_view(text_).substr(begin, end - begin);
}

std::vector<std::string> SourceText::ignoredAt(int number) const {
  const std::string_view content = line(number);
  std::vector<std::string> ignored;
  for (size_t found = content.find(kIgnore); found != std::string::npos;
       found = content.find(kIgnore, found + 1)) {
    // The names end at a space; a comment for readers may follow.
    const size_t begin = found + std::strlen(kIgnore);
    const size_t end = content.find_first_of(" \t", begin);
    for (std::string& name :
         split(std::string(content.substr(begin, end - begin)), ',')) {
      ignored.push_back(std::move(name));
    }
  }
  return ignored;
}

std::vector<int> SourceText::linesWithIgnores() const {
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

std::optional<SourceText> readSourceText(const std::string& path,
                                         std::string& error) {
  const bool is_standard_input = path == "-";
  const std::string name = is_standard_input ? "<stdin>" : path;
  const Descriptor file(is_standard_input
                            ? ::fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0)
                            : ::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  auto document = readSourceText(name, file.number(), error, is_standard_input);
  if (!document) error = "cannot read " + name + ": " + error;
  return document;
}

std::optional<SourceText> readSourceText(const std::string& name, int fd,
                                         std::string& reason,
                                         bool is_standard_input) {
  std::string text;
  reason = readAll(fd, text);
  if (reason.empty() && !is_standard_input && text.size() < sizeOf(fd)) {
    reason = "the file ended before its size was reached";
  }
  if (!reason.empty()) return std::nullopt;
  return SourceText(name, std::move(text), is_standard_input);
}

}  // namespace vorn::launch
