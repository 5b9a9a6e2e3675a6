// Log calls with values of any content and length, and a standard error that
// accepts them in pieces or not at all. The correct result: each call is one
// line, exactly as documented, and a line that standard error accepted as a
// whole is whole.
//
// Input: the time (seconds and nanoseconds, 4 bytes each), then for each call a
// byte that chooses its level, flag and format, the line number (4 bytes), and
// four texts, each up to a NUL: file, function, value, and the plan of the
// writes.

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>
#include <string>
#include <string_view>

#include "support/check.h"
#include "support/input.h"
#include "support/library_calls.h"
#include "support/log.h"
#include "vornlib/trace.h"

namespace vorn::fuzz {
namespace {

// The meanings of the bytes that describe the writes; any other byte is the
// number of bytes that the write accepts. Without a byte left it accepts all.
constexpr char kInterrupted = '\xff';
constexpr char kRefused = '\xfe';

struct Call {
  int level = 0;
  bool flag = false;
  unsigned int format = 0;
  int line = 0;
  std::string file;
  std::string func;
  std::string value;
  std::string writes;
};

/// A name of a file or a function as a compiler produces it.
std::string withoutControlCharacters(std::string text) {
  std::replace_if(text.begin(), text.end(), isControlCharacter, '_');
  return text;
}

Call readCall(Input& input) {
  constexpr std::array<int, 4> kLevels = {kInfo, kWarn, kError, 2};
  const unsigned int choice = input.byte();
  Call call;
  call.level = kLevels.at(choice & 3U);
  call.flag = (choice & 4U) != 0;
  call.format = (choice >> 3U) & 3U;
  call.line = static_cast<int>(input.number());
  if (call.level == 2) call.level = call.line;
  call.file = withoutControlCharacters(input.text());
  call.func = withoutControlCharacters(input.text());
  call.value = input.text();
  call.writes = input.text();
  return call;
}

void log(const Call& call) {
  const auto trace = [&](const char* format, auto... values) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    vtrace(call.level, call.file.c_str(), call.line, call.func.c_str(),
           call.flag, format, values...);
#pragma GCC diagnostic pop
  };
  const char* const value = call.value.c_str();
  switch (call.format) {
    case 0:
      return trace("%s", value);
    case 1:
      return trace("Node '%s' disabled", value);
    case 2:
      return trace("setenv %s: %s", value, value);
    default:
      return trace("%s sleep %dms\n%s", value, call.line, value);
  }
}

std::string formatted(const Call& call) {
  switch (call.format) {
    case 0:
      return call.value;
    case 1:
      return "Node '" + call.value + "' disabled";
    case 2:
      return "setenv " + call.value + ": " + call.value;
    default:
      return call.value + " sleep " + std::to_string(call.line) + "ms\n" +
             call.value;
  }
}

std::string escaped(const std::string& text) {
  std::string result;
  for (const char c : text) {
    std::array<char, 8> shown{c, '\0'};
    if (isControlCharacter(c)) {
      (void)std::snprintf(shown.data(), shown.size(), "\\x%02x",
                          static_cast<unsigned int>(c));
    }
    if (c == '\n') shown = {'\\', 'n'};
    if (c == '\r') shown = {'\\', 'r'};
    if (c == '\t') shown = {'\\', 't'};
    result += shown.data();
  }
  return result;
}

std::string stampOf(const timespec& time) {
  tm utc{};
  (void)::gmtime_r(&time.tv_sec, &utc);
  std::array<char, 64> text{};
  (void)std::snprintf(text.data(), text.size(),
                      "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ",
                      utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday,
                      utc.tm_hour, utc.tm_min, utc.tm_sec, time.tv_nsec / 1000);
  return text.data();
}

std::string lineOf(const Call& call, const timespec& time) {
  std::string level = std::to_string(call.level);
  if (call.level == kInfo) level = "INFO";
  if (call.level == kWarn) level = "WARN";
  if (call.level == kError) level = "ERROR";
  while (level.size() < 5) level += ' ';
  return stampOf(time) + ' ' + (call.flag ? "*" : "") + level + " fuzz[" +
         std::to_string(::getpid()) + "] " +
         call.file.substr(call.file.rfind('/') + 1) + ':' +
         std::to_string(call.line) + ' ' + call.func + ": " +
         escaped(formatted(call)) + '\n';
}

/// A standard error that accepts data by a plan of its writes.
class StandardError {
 public:
  StandardError() {
    test::libraryCalls().write = [this](int fd, const void* bytes,
                                        size_t size) {
      check(fd == STDERR_FILENO, "the log goes to standard error");
      return take({static_cast<const char*>(bytes), size});
    };
  }
  ~StandardError() { test::libraryCalls().write = nullptr; }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;

  /// Begins a call, whose writes follow `plan`.
  void begin(const std::string& plan) {
    plan_ = plan;
    has_refused_ = false;
    if (!taken_.empty()) begins_torn_ = taken_.back() != '\n';
    taken_.clear();
  }

  /// Checks the data accepted since then.
  void checkTaken(const std::string& line) const {
    const std::string expected = (begins_torn_ ? "\n" : "") + line;
    check(taken_ == expected.substr(0, taken_.size()),
          "a line has the documented form and begins after a line end");
    check(has_refused_ || taken_ == expected,
          "a line that is not refused is there whole");
  }

 private:
  ssize_t take(std::string_view bytes) {
    size_t count = bytes.size();
    if (!plan_.empty()) {
      const char step = plan_.front();
      plan_.erase(0, 1);
      if (step == kInterrupted || step == kRefused) {
        errno = step == kInterrupted ? EINTR : EAGAIN;
        has_refused_ = has_refused_ || step == kRefused;
        return -1;
      }
      count = std::min(count, size_t{static_cast<unsigned char>(step)});
    }
    taken_ += bytes.substr(0, count);
    return static_cast<ssize_t>(count);
  }

  std::string plan_;
  std::string taken_;  // since the last begin()
  bool has_refused_ = false;
  bool begins_torn_ = false;  // what was taken before ended within a line
};

}  // namespace
}  // namespace vorn::fuzz

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  using namespace vorn;
  { const fuzz::LogSink name_the_process; }
  fuzz::Input input(data, size);
  const timespec time{input.number(),
                      static_cast<long>(input.number() % 1'000'000'000U)};
  test::libraryCalls().clock_gettime = [&](clockid_t, timespec* now) {
    *now = time;
    return 0;
  };
  fuzz::StandardError standard_error;
  const auto log = [&](const fuzz::Call& call) {
    const std::string line = fuzz::lineOf(call, time);
    fuzz::check(fuzz::isOneLine(line), "a line is one line");
    standard_error.begin(call.writes);
    errno = ENOENT;
    fuzz::log(call);
    fuzz::check(errno == ENOENT, "errno is kept");
    standard_error.checkTaken(line);
  };
  while (!input.empty()) log(fuzz::readCall(input));
  log({});  // ends a torn line, so that nothing is left for the next input
  test::libraryCalls() = {};
  return 0;
}
