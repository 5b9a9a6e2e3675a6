#include "live/log_source.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>
#include <utility>

#include "live/log_file.h"
#include "live/log_follow.h"
#include "live/log_journal.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

constexpr int kOpenLogFlags = O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC;
constexpr char kHowToNameLog[] = "name its log with --log FILE";

/// The last records that match, with copies of their texts.
class LastRecords {
 public:
  LastRecords(size_t count,
              const std::function<bool(const LogRecord&)>& matches)
      : count_(count), matches_(matches) {}

  void add(const LogRecord& record) {
    if (count_ == 0 || !matches_(record)) return;
    if (kept_.size() == count_) kept_.pop_front();
    kept_.push_back(
        {record, std::string(record.text), std::string(record.identifier)});
  }
  void clear() { kept_.clear(); }
  bool isComplete() const { return kept_.size() == count_; }

  void passTo(const LogReader& reader) const {
    for (const Kept& kept : kept_) {
      LogRecord record = kept.record;
      record.text = kept.text;
      record.identifier = kept.identifier;
      if (!reader(record)) return;
    }
  }

 private:
  struct Kept {
    LogRecord record;
    std::string text;
    std::string identifier;
  };

  size_t count_;
  const std::function<bool(const LogRecord&)>& matches_;
  std::deque<Kept> kept_;
};

std::optional<LogLocation> openNamedLog(const LauncherProcess& launcher,
                                        const std::string& path,
                                        std::string& error) {
  LogLocation location;
  location.name = path;
  location.path = path;
  if (path == "-") {
    location.kind = LogLocation::Kind::STANDARD_INPUT;
    location.name = "standard input";
    return location;
  }
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
    return findJournalIn(path, launcher, error);
  }
  location.file =
      std::make_shared<const Descriptor>(::open(path.c_str(), kOpenLogFlags));
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

std::string explainClosed(const std::string& who) {
  return who +
         " has closed its standard error, so it has no log; restart the "
         "launcher with 2>>FILE or as a service";
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
  // The descriptor was free for another file.
  return explainClosed(who);
}

std::string explainNoAccess(const LauncherProcess& launcher, int number) {
  const std::string who = subjectOf(launcher);
  if (number == ENOENT && processState(launcher.pid).has_value()) {
    return explainClosed(who);
  }
  if (number == ENOENT || number == ESRCH) {
    return who + " has exited; " + kHowToNameLog;
  }
  return "cannot examine the standard error of " + who + ": " +
         std::strerror(number) +
         "; run vornctl as root or as the user of the launcher, or " +
         kHowToNameLog;
}

/// Whether JOURNAL_STREAM in the environment of a process names this socket.
bool isJournalStream(pid_t pid, const struct stat& status) {
  const std::string entry = "JOURNAL_STREAM=" + std::to_string(status.st_dev) +
                            ':' + std::to_string(status.st_ino);
  const auto text = readProcFile(procFile(pid, "environ"));
  const auto entries = splitAtNuls(text.value_or(""));
  return std::find(entries.begin(), entries.end(), entry) != entries.end();
}

}  // namespace

std::optional<LogLocation> findLog(const LauncherProcess& launcher,
                                   const std::string& override,
                                   std::string& error) {
  if (!override.empty()) return openNamedLog(launcher, override, error);
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
  if (S_ISSOCK(status.st_mode) && isJournalStream(launcher.pid, status)) {
    return findJournal(launcher, error);
  }
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
             const LogReader& reader, std::string& error, LogPosition* end) {
  switch (location.kind) {
    case LogLocation::Kind::STANDARD_INPUT:
      return readLogInput(since_us, reader, error);
    case LogLocation::Kind::JOURNAL:
      return readJournal(location, since_us, reader, error, end);
    case LogLocation::Kind::FILE:
      break;
  }
  return readLogFiles(location, since_us, reader, error, end);
}

bool readLogEnd(const LogLocation& location, size_t count, int64_t since_us,
                const std::function<bool(const LogRecord&)>& matches,
                const LogReader& reader, std::string& error, LogPosition* end) {
  LastRecords last(count, matches);
  const LogReader keep = [&last](const LogRecord& record) {
    last.add(record);
    return true;
  };
  constexpr int64_t kFirstSize = int64_t{256} * 1024;
  constexpr uint64_t kFirstEntries = 1000;
  bool is_all = location.kind == LogLocation::Kind::STANDARD_INPUT;
  if (is_all && !readLogInput(since_us, keep, error)) return false;
  for (int64_t factor = 1; !is_all; factor *= 4) {
    last.clear();
    const bool is_read =
        location.kind == LogLocation::Kind::JOURNAL
            ? readJournalEnd(location,
                             kFirstEntries * static_cast<uint64_t>(factor),
                             since_us, keep, is_all, error, end)
            : readLogFileEnd(location, kFirstSize * factor, since_us, keep,
                             is_all, error, end);
    if (!is_read) return false;
    if (last.isComplete()) break;
  }
  last.passTo(reader);
  return true;
}

bool followLog(const LogLocation& location, LogPosition& position,
               int cancel_fd, const LogReader& reader, std::string& error) {
  switch (location.kind) {
    case LogLocation::Kind::STANDARD_INPUT:
      return readLogInput(0, reader, error);
    case LogLocation::Kind::JOURNAL:
      return followJournal(location, position, cancel_fd, reader, error);
    case LogLocation::Kind::FILE:
      break;
  }
  return followLogFile(location, position, cancel_fd, reader, error);
}

}  // namespace vorn::launch
