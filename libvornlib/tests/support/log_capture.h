#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace vorn::test {

/// One parsed log line.
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

/// Captures the output of this process and its children on standard error, from
/// construction to destruction. Create it before the first log line, because
/// the log then inspects standard error once.
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

  /// Every line so far. Throws if a line is not a log line.
  std::vector<LogLine> lines() const {
    std::vector<LogLine> lines;
    const std::string text = bytes();
    for (size_t begin = 0; begin < text.size();) {
      const size_t end = text.find('\n', begin);
      if (end == std::string::npos) {
        throw std::runtime_error("not a whole line: " + text.substr(begin));
      }
      lines.push_back(takeApart(text.substr(begin, end - begin)));
      begin = end + 1;
    }
    return lines;
  }

 private:
  /// "STAMP [*]LEVEL PROCESS[PID] FILE:LINE FUNC: TEXT". By hand, as the
  /// sanitizers make the compiler warn of the standard regular expressions.
  static LogLine takeApart(const std::string& line) {
    std::istringstream words(line);
    std::string stamp;
    std::string process;
    std::string place;
    LogLine parts;
    words >> stamp >> parts.level >> process >> place >> parts.func;
    words.ignore(1);  // the blank before the text
    std::getline(words, parts.text);
    const size_t colon = place.rfind(':');
    if (stamp.empty() || stamp.back() != 'Z' || process.empty() ||
        process.back() != ']' || colon == std::string::npos ||
        parts.func.empty() || parts.func.back() != ':') {
      throw std::runtime_error("not a log line: " + line);
    }
    parts.event = parts.level.front() == '*';
    if (parts.event) parts.level.erase(0, 1);
    parts.file = place.substr(0, colon);
    parts.func.pop_back();
    return parts;
  }

  int file_;
  int kept_;  // the former standard error
};

}  // namespace vorn::test
