#include "live/log_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

#include "live/log_file.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

constexpr int kOpenLogFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr char kHowToNameLog[] = "name its log with --log FILE";

/// A record with a copy of its text.
struct KeptRecord {
  LogRecord record;
  std::string text;
};

std::optional<LogLocation> openNamedLog(const std::string& path,
                                        std::string& error) {
  LogLocation location;
  location.name = path;
  location.path = path;
  if (path == "-") {
    location.kind = LogLocation::Kind::STANDARD_INPUT;
    location.name = "standard input";
    return location;
  }
  location.file =
      std::make_shared<const Descriptor>(::open(path.c_str(), kOpenLogFlags));
  struct stat status {};
  const int fd = location.file->number();
  if (fd < 0 || ::fstat(fd, &status) != 0) {
    error = "cannot read the log " + path + ": " + std::strerror(errno);
    return std::nullopt;
  }
  if (!S_ISREG(status.st_mode)) {
    error = "cannot read the log " + path +
            ": it is not a regular file; use --log - to read a pipe";
    return std::nullopt;
  }
  return location;
}

/// "launcher 42", or "the launcher".
std::string subjectOf(const LauncherProcess& launcher) {
  return launcher.pid == 0 ? "the launcher"
                           : "launcher " + std::to_string(launcher.pid);
}

/// The sentence for a standard error that is not a log file.
std::string explainUnreadable(const LauncherProcess& launcher,
                              const struct stat& status,
                              const std::string& target) {
  const std::string who = subjectOf(launcher);
  const std::string restart =
      "; restart the launcher with 2>>FILE or as a service";
  if (S_ISCHR(status.st_mode) && status.st_rdev == ::makedev(1, 3)) {
    return who + " writes its log to /dev/null" + restart;
  }
  if (S_ISCHR(status.st_mode)) {
    return who + " writes its log to the terminal " + target +
           ", which cannot be read" + restart;
  }
  if (S_ISFIFO(status.st_mode)) {
    return who +
           " writes its log to a pipe; if the reader of the pipe stores "
           "it in a file, " +
           kHowToNameLog;
  }
  if (S_ISSOCK(status.st_mode)) {
    return who +
           " writes its log to a socket that is not the journal's; if "
           "the reader of the socket stores it in a file, " +
           kHowToNameLog;
  }
  return who + " writes its log to " + target + ", which is not a file" +
         restart;
}

std::string explainNoAccess(const LauncherProcess& launcher, int number) {
  const std::string who = subjectOf(launcher);
  if (number == ENOENT && processState(launcher.pid).has_value()) {
    return who +
           " has closed its standard error: there is no log; restart the "
           "launcher with 2>>FILE or as a service";
  }
  if (number == ENOENT || number == ESRCH) {
    return who + " has exited; " + kHowToNameLog;
  }
  return "cannot examine the standard error of " + who + ": " +
         std::strerror(number) +
         "; run vornctl as root or as the user of the launcher, or " +
         kHowToNameLog;
}

}  // namespace

std::optional<LogLocation> findLog(const LauncherProcess& launcher,
                                   const std::string& override,
                                   std::string& error) {
  if (!override.empty()) return openNamedLog(override, error);
  if (launcher.pid == 0) {
    error = std::string(
                "cannot determine the log: the process of the launcher "
                "is unknown, as in another pid namespace; ") +
            kHowToNameLog;
    return std::nullopt;
  }
  const std::string link = procFile(launcher.pid, "fd/2");
  struct stat status {};
  if (::stat(link.c_str(), &status) != 0) {
    error = explainNoAccess(launcher, errno);
    return std::nullopt;
  }
  const std::string target = readProcLink(link).value_or("a file");
  if (!S_ISREG(status.st_mode)) {
    error = explainUnreadable(launcher, status, target);
    return std::nullopt;
  }
  LogLocation location;
  location.name = target;
  location.path = target;
  location.launcher = launcher.pid;
  location.root = launcher.root.value_or("");
  // The link, not the path: the file may be deleted or in another root.
  location.file =
      std::make_shared<const Descriptor>(::open(link.c_str(), kOpenLogFlags));
  if (location.file->number() < 0) {
    error = "cannot read the log of " + subjectOf(launcher) + ", " + target +
            ": " + std::strerror(errno) +
            "; run vornctl as root or as the owner of the file";
    return std::nullopt;
  }
  return location;
}

bool readLog(const LogLocation& location, int64_t since_us,
             const LogReader& reader, std::string& error) {
  if (location.kind == LogLocation::Kind::STANDARD_INPUT) {
    return readLogInput(since_us, reader, error);
  }
  return readLogFiles(location, since_us, reader, error);
}

bool readLogEnd(const LogLocation& location, size_t count, int64_t since_us,
                const std::function<bool(const LogRecord&)>& matches,
                const LogReader& reader, std::string& error) {
  std::deque<KeptRecord> kept;
  const LogReader keep = [&](const LogRecord& record) {
    if (count == 0 || !matches(record)) return true;
    kept.push_back({record, std::string(record.text)});
    if (kept.size() > count) kept.pop_front();
    return true;
  };
  bool is_all = location.kind != LogLocation::Kind::FILE;
  if (is_all && !readLog(location, since_us, keep, error)) return false;
  for (int64_t size = 256 * 1024; !is_all; size *= 4) {
    kept.clear();
    if (!readLogFileEnd(location, size, since_us, keep, is_all, error)) {
      return false;
    }
    if (kept.size() == count) break;
  }
  for (const KeptRecord& last : kept) {
    LogRecord record = last.record;
    record.text = last.text;
    if (!reader(record)) break;
  }
  return true;
}

}  // namespace vorn::launch
