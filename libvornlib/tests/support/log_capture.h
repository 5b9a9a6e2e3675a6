#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>
#include <regex>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorn::test {

/// One log line, taken apart.
struct LogLine {
  std::string level;  // "INFO", "WARN", "ERROR" or a number
  bool event = false;
  std::string file;
  std::string func;
  std::string text;

  bool operator==(const LogLine& other) const {
    return level == other.level && event == other.event && func == other.func &&
           text == other.text;
  }
};

inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
  return out << (line.event ? "*" : "") << line.level << ' ' << line.func
             << ": " << line.text;
}

/// The line as a test expects it; the source file is not compared.
inline LogLine logLine(const std::string& level, bool event,
                       const std::string& func, const std::string& text) {
  return {level, event, "", func, text};
}

/// Catches what this process and its children write to standard error, from
/// construction to destruction. Create it before the first log line, since the
/// log settles at that moment what standard error is.
class LogCapture {
 public:
  LogCapture()
      : file_(::memfd_create("log", MFD_CLOEXEC)), kept_(::dup(STDERR_FILENO)) {
    // Appending, as parent and children write through one open file.
    if (::fcntl(file_, F_SETFL, O_APPEND) == -1 ||
        ::dup2(file_, STDERR_FILENO) == -1) {
      throw std::runtime_error("cannot redirect standard error");
    }
  }
  ~LogCapture() {
    (void)::dup2(kept_, STDERR_FILENO);
    (void)::close(kept_);
    (void)::close(file_);
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  /// Everything written so far, byte for byte.
  std::string bytes() const {
    struct stat status {};
    if (::fstat(file_, &status) != 0) throw std::runtime_error("fstat failed");
    std::string bytes(static_cast<size_t>(status.st_size), '\0');
    if (::pread(file_, bytes.data(), bytes.size(), 0) != status.st_size) {
      throw std::runtime_error("cannot read the captured log");
    }
    return bytes;
  }

  /// Every line so far. Throws when one does not look like a log line.
  std::vector<LogLine> lines() const {
    static const std::regex kLine(
        R"(\S+Z (\*?)(\S+) +\S+\[\d+\] (\S+):\d+ (\S+): (.*))");
    std::vector<LogLine> lines;
    const std::string text = bytes();
    for (size_t begin = 0; begin < text.size();) {
      const size_t end = text.find('\n', begin);
      const std::string line = text.substr(begin, end - begin);
      std::smatch match;
      if (end == std::string::npos || !std::regex_match(line, match, kLine)) {
        throw std::runtime_error("not a log line: " + line);
      }
      lines.push_back(
          {match[2], match[1] == "*", match[3], match[4], match[5]});
      begin = end + 1;
    }
    return lines;
  }

 private:
  int file_;
  int kept_;  // the former standard error
};

}  // namespace vorn::test
