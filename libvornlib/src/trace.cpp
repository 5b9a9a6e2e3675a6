#include "vornlib/trace.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <memory_resource>
#include <optional>
#include <string>
#include <string_view>

#include "vornlib/retry_on_eintr.h"

namespace vorn {
namespace {

constexpr char kEventMark = '*';
constexpr size_t kLevelWidth = 5;
constexpr size_t kUsualTextSize = 256;  // a longer text is formatted twice
constexpr size_t kUsualLineSize = 512;  // a longer line is on the heap

std::string& nodeName() {
  static std::string name = "?";
  return name;
}

/// The properties of standard error.
struct Sink {
  bool open;     // otherwise another file can get the descriptor
  bool journal;  // each line starts with a priority; the journal adds the time
  bool colour;
  bool limited;  // SIGXFSZ can terminate the writer at the size limit of files
};

/// Whether standard error is the stream that `JOURNAL_STREAM` names. A program
/// can inherit the variable and have another standard error.
bool isJournal() {
  const char* const stream = ::getenv("JOURNAL_STREAM");
  if (stream == nullptr) return false;
  struct stat status {};
  return ::fstat(STDERR_FILENO, &status) == 0 &&
         std::to_string(status.st_dev) + ':' + std::to_string(status.st_ino) ==
             stream;
}

bool hasSizeLimit() {
  rlimit limit{};
  return ::getrlimit(RLIMIT_FSIZE, &limit) == 0 &&
         limit.rlim_cur != RLIM_INFINITY;
}

const Sink& sink() {
  static const Sink kSink = [] {
    Sink found{};
    found.open = ::fcntl(STDERR_FILENO, F_GETFD) != -1 || errno != EBADF;
    found.journal = isJournal();
    found.colour =
        ::getenv("NO_COLOR") == nullptr && ::isatty(STDERR_FILENO) == 1;
    found.limited = hasSizeLimit();
    return found;
  }();
  return kSink;
}

/// A line under construction, on the stack if it has a usual length. After a
/// fork the kernel copies each page of the heap that is written, and a launcher
/// logs between two forks.
class Line {
 public:
  // NOLINTNEXTLINE(cppcoreguidelines-pro-type-member-init)
  Line() { text_.reserve(kUsualLineSize - 1); }
  Line(const Line&) = delete;
  Line& operator=(const Line&) = delete;

  std::pmr::string& text() { return text_; }

 private:
  std::array<char, kUsualLineSize> buffer_;  // filled by the resource
  std::pmr::monotonic_buffer_resource memory_{buffer_.data(), buffer_.size()};
  std::pmr::string text_{&memory_};
};

struct LevelFormat {
  std::string_view word;  // empty for a level without one
  const char* colour;     // the terminal's sequence; nullptr for none
  const char* priority;   // syslog's, as the journal reads it
};

LevelFormat formatOf(int level) {
  switch (level) {
    case kInfo:
      return {"INFO", "\x1b[32m", "<6>"};
    case kWarn:
      return {"WARN", "\x1b[33m", "<4>"};
    case kError:
      return {"ERROR", "\x1b[31m", "<3>"};
    default:
      return {"", nullptr, "<6>"};
  }
}

/// Appends the UTC time with microseconds, "2026-11-20T12:34:56.789012Z".
void appendTimeStamp(std::pmr::string& line) {
  constexpr long kNanosecondsPerMicrosecond = 1000;
  constexpr size_t kFractionDigits = 6;
  // Kept from the previous line: most lines are written in the same second.
  static time_t second = -1;
  static std::array<char, 32> date{};
  static size_t date_length = 0;
  timespec now{};
  (void)::clock_gettime(CLOCK_REALTIME, &now);  // cannot fail for this clock
  if (now.tv_sec != second) {
    tm utc{};
    (void)::gmtime_r(&now.tv_sec, &utc);
    date_length = std::strftime(date.data(), date.size(), "%FT%T.", &utc);
    second = now.tv_sec;
  }
  std::array<char, kFractionDigits> fraction{};
  long microseconds = now.tv_nsec / kNanosecondsPerMicrosecond;
  for (auto digit = fraction.rbegin(); digit != fraction.rend(); ++digit) {
    *digit = static_cast<char>('0' + microseconds % 10);
    microseconds /= 10;
  }
  line.append(date.data(), date_length);
  line.append(fraction.data(), fraction.size());
  line += 'Z';
}

/// Appends the escape sequence of a character that could forge a line or
/// control a terminal.
void appendEscape(std::pmr::string& line, unsigned char byte) {
  constexpr std::string_view kHexDigits = "0123456789abcdef";
  switch (byte) {
    case '\n':
      line += "\\n";
      break;
    case '\r':
      line += "\\r";
      break;
    case '\t':
      line += "\\t";
      break;
    default:
      line += "\\x";
      line += kHexDigits[byte >> 4U];
      line += kHexDigits[byte & 0x0fU];
  }
}

/// Appends `text` with an escape sequence for each such character.
void appendEscaped(std::pmr::string& line, std::string_view text) {
  size_t plain = 0;  // start of the unchanged text that is not appended yet
  for (size_t i = 0; i < text.size(); ++i) {
    const auto byte = static_cast<unsigned char>(text[i]);
    if (byte >= 0x20 && byte != 0x7f) continue;
    line += text.substr(plain, i - plain);
    appendEscape(line, byte);
    plain = i + 1;
  }
  line += text.substr(plain);
}

/// Appends the text that vsnprintf formats, escaped and of any length.
__attribute__((format(printf, 2, 0))) void appendFormatted(
    std::pmr::string& line, const char* fmt, va_list args) {
  std::array<char, kUsualTextSize> usual;  // NOLINT: filled by vsnprintf()
  va_list again;
  va_copy(again, args);
  const int length = std::vsnprintf(usual.data(), usual.size(), fmt, args);
  if (length < 0) {
    appendEscaped(line, fmt);  // better the bare format than no line
  } else if (static_cast<size_t>(length) < usual.size()) {
    appendEscaped(line, {usual.data(), static_cast<size_t>(length)});
  } else {
    std::string text(static_cast<size_t>(length), '\0');
    (void)std::vsnprintf(text.data(), text.size() + 1, fmt, again);
    appendEscaped(line, text);
  }
  va_end(again);
}

/// Appends the start of the line up to the name and the pid of the process.
void appendPrefix(std::pmr::string& line, int level, bool flag) {
  const LevelFormat format = formatOf(level);
  if (sink().journal) {
    line += format.priority;
  } else {
    appendTimeStamp(line);
    line += ' ';
  }
  if (flag == kEvent) line += kEventMark;
  const bool coloured = sink().colour && format.colour != nullptr;
  if (coloured) line += format.colour;
  const size_t begin = line.size();
  if (format.word.empty()) line += std::to_string(level);
  line += format.word;
  const size_t width = line.size() - begin;
  if (coloured) line += "\x1b[0m";
  if (width < kLevelWidth) line.append(kLevelWidth - width, ' ');
  line += ' ';
  line += nodeName();
  line += '[';
  line += std::to_string(::getpid());
  line += ']';
}

/// Blocks SIGXFSZ in its scope, and discards a signal that arrived meanwhile.
class SizeLimitSignalBlocker {
 public:
  SizeLimitSignalBlocker() {
    (void)::sigemptyset(&signals_);
    (void)::sigaddset(&signals_, SIGXFSZ);
    (void)::sigprocmask(SIG_BLOCK, &signals_, &former_);
  }
  ~SizeLimitSignalBlocker() {
    const timespec at_once{};
    (void)::sigtimedwait(&signals_, nullptr, &at_once);
    (void)::sigprocmask(SIG_SETMASK, &former_, nullptr);
  }
  SizeLimitSignalBlocker(const SizeLimitSignalBlocker&) = delete;
  SizeLimitSignalBlocker& operator=(const SizeLimitSignalBlocker&) = delete;

 private:
  sigset_t signals_{};
  sigset_t former_{};
};

/// Uses one write(2) if standard error accepts the whole line. The rest of a
/// line that a signal or a full pipe has cut is written next; a refused part is
/// lost.
void writeLine(std::pmr::string& line) {
  static bool is_torn = false;  // the last line has no line end yet
  if (!sink().open) return;
  std::optional<SizeLimitSignalBlocker> blocker;
  if (sink().limited) blocker.emplace();
  if (is_torn) line.insert(0, 1, '\n');
  std::string_view rest = line;
  while (!rest.empty()) {
    const ssize_t written = retryOnEintr(
        [&] { return ::write(STDERR_FILENO, rest.data(), rest.size()); });
    if (written <= 0) return;
    const bool tears = rest[static_cast<size_t>(written) - 1] != '\n';
    if (tears != is_torn)
      is_torn = tears;  // avoids the copy of a page, see Line
    rest.remove_prefix(static_cast<size_t>(written));
  }
}

const char* baseName(const char* file) {
  const char* const slash = std::strrchr(file, '/');
  return slash == nullptr ? file : slash + 1;
}

}  // namespace

void setNodeName(const std::string& name) {
  (void)sink();
  nodeName() = name;
}

void vtrace(int level, const char* file, int line_number, const char* func,
            bool flag, const char* fmt, ...) {
  const int kept_errno = errno;
  va_list args;
  va_start(args, fmt);
  try {
    Line whole;
    std::pmr::string& line = whole.text();
    appendPrefix(line, level, flag);
    line += ' ';
    line += baseName(file);
    line += ':';
    line += std::to_string(line_number);
    line += ' ';
    line += func;
    line += ": ";
    errno = kept_errno;  // for %m
    appendFormatted(line, fmt, args);
    line += '\n';
    writeLine(line);
  } catch (const std::exception&) {
    // Out of memory: the line is lost; the launcher must continue.
  }
  va_end(args);
  errno = kept_errno;
}

}  // namespace vorn
