#include "report.h"

#include <fcntl.h>
#include <unistd.h>

namespace vorn::run {
namespace {

int report_stream = STDERR_FILENO;

/// `text` with "\x1b" for each control character.
std::string inOneLine(const std::string& text) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string line;
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte >= 0x20 && byte != 0x7f) {
      line += c;
    } else {
      line += "\\x";
      line += kDigits[byte >> 4];
      line += kDigits[byte & 0xf];
    }
  }
  return line;
}

}  // namespace

void reportLine(const std::string& node, const std::string& subject,
                const std::string& text) {
  std::string line = "vornrun: " + node + ": ";
  if (!subject.empty()) line += subject + ": ";
  line = inOneLine(line + text) + "\n";
  // A message that cannot be written cannot be reported either.
  if (::write(report_stream, line.data(), line.size()) < 0) return;
}

void keepReportStream() {
  const int copy = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
  if (copy >= 0) report_stream = copy;
}

}  // namespace vorn::run
