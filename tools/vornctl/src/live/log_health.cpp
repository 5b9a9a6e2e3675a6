#include "live/log_health.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <sstream>

#include "live/configuration_files.h"
#include "live/log_source.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;
using LogKind = LogFacts::Kind;

constexpr char kJournalService[] = "systemd-journal";  // 15 bytes, as in stat
constexpr char kAppendToFile[] =
    "run the launcher as a service, or append its output to a file with >> and "
    "2>>";
// systemd's, of the messages about suppressed messages.
constexpr char kSuppressionId[] = "MESSAGE_ID=a596d6fe7bfa4994828e72309e95d61e";

/// Whether a descriptor was opened for reading only, as the reader of a pipe
/// does.
bool isReadOnly(pid_t pid, const std::string& fd) {
  std::istringstream lines(
      readProcFile(procFile(pid, "fdinfo/" + fd)).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("flags:", 0) != 0) continue;
    constexpr int kOctal = 8;
    const long flags = std::strtol(line.c_str() + 6, nullptr, kOctal);
    return (flags & O_ACCMODE) == O_RDONLY;
  }
  return false;
}

/// Whether the process reads the pipe with this link. Sets `is_known` to
/// false without the permission to examine it.
bool reads(const Process& process, const std::string& target, bool& is_known) {
  std::error_code error;
  fs::directory_iterator links(procFile(process.pid, "fd"), error);
  if (error == std::errc::permission_denied) is_known = false;
  for (; !error && links != fs::directory_iterator(); links.increment(error)) {
    const fs::path& link = links->path();
    if (readProcLink(link) == target &&
        isReadOnly(process.pid, link.filename())) {
      return true;
    }
  }
  return false;
}

void findReaders(pid_t launcher, const ProcessTable& processes,
                 LogFacts& facts) {
  facts.areReadersKnown = true;
  for (const Process& process : processes.all()) {
    if (process.isKernelThread || !process.isAlive() ||
        process.pid == launcher) {
      continue;
    }
    if (reads(process, facts.target, facts.areReadersKnown)) {
      facts.readers.push_back(process);
    }
  }
}

/// Whether JOURNAL_STREAM of the launcher names this socket.
bool isJournal(pid_t launcher, const struct stat& status) {
  const std::string entry = "JOURNAL_STREAM=" + std::to_string(status.st_dev) +
                            ':' + std::to_string(status.st_ino);
  const auto entries =
      splitAtNuls(readProcFile(procFile(launcher, "environ")).value_or(""));
  return std::find(entries.begin(), entries.end(), entry) != entries.end();
}

LogKind kindOf(pid_t launcher, const struct stat& status) {
  if (S_ISREG(status.st_mode)) return LogKind::FILE;
  if (S_ISFIFO(status.st_mode)) return LogKind::PIPE;
  if (S_ISSOCK(status.st_mode)) {
    return isJournal(launcher, status) ? LogKind::JOURNAL : LogKind::SOCKET;
  }
  if (!S_ISCHR(status.st_mode)) return LogKind::OTHER;
  return status.st_rdev == ::makedev(1, 3) ? LogKind::NULL_DEVICE
                                           : LogKind::TERMINAL;
}

std::string withoutBlanks(std::string text) {
  text.erase(std::remove_if(text.begin(), text.end(),
                            [](char c) { return c == ' ' || c == '\t'; }),
             text.end());
  return text;
}

/// Whether the file system of an open file has no space for the launcher.
bool isFull(pid_t launcher, const std::string& link) {
  struct statvfs space {};
  struct stat owner {};
  if (::statvfs(link.c_str(), &space) != 0 || space.f_blocks == 0) return false;
  const bool is_root =
      ::stat(procFile(launcher, "").c_str(), &owner) == 0 && owner.st_uid == 0;
  // Root has a reserve.
  return (is_root ? space.f_bfree : space.f_bavail) == 0;
}

Finding suspendedReader(const Process& reader) {
  return {Verdict::ERROR,
          "process " + std::to_string(reader.pid) + " (" + reader.name +
              "), which reads the log, is suspended: the launcher blocks as "
              "soon as the buffer is full",
          "kill -CONT " + std::to_string(reader.pid)};
}

Finding pipeFinding(const LogFacts& facts) {
  for (const Process& reader : facts.readers) {
    if (reader.state == 'T' || reader.state == 't') {
      return suspendedReader(reader);
    }
  }
  if (!facts.readers.empty()) {
    const Process& reader = facts.readers.front();
    return okFinding("process " + std::to_string(reader.pid) + " (" +
                     reader.name + ") reads the log from a pipe");
  }
  if (!facts.areReadersKnown) {
    return unknownFinding(
        "the reader of the pipe to which the launcher "
        "writes its log is not visible",
        "run vornctl as root");
  }
  return {Verdict::ERROR,
          "no process reads the pipe to which the launcher writes its log: the "
          "lines are lost",
          kAppendToFile};
}

Finding fileFinding(const LogFacts& facts) {
  if (facts.isDiskFull) {
    return {Verdict::ERROR,
            "the file system of the log " + facts.target +
                " is full: new lines are lost",
            "delete files there"};
  }
  if (facts.isDeleted) {
    return {Verdict::WARNING,
            "the log was deleted: " + facts.target +
                "; new lines are lost when the launcher exits",
            "restart the launcher, and rotate its log with copytruncate"};
  }
  return okFinding("the log is " + facts.target);
}

}  // namespace

LogFacts examineLog(pid_t launcher, const ProcessTable& processes) {
  LogFacts facts;
  const std::string link = procFile(launcher, "fd/2");
  struct stat status {};
  if (::stat(link.c_str(), &status) != 0) {
    facts.kind = errno == ENOENT ? LogKind::CLOSED : LogKind::NO_PERMISSION;
    return facts;
  }
  facts.kind = kindOf(launcher, status);
  facts.target = readProcLink(link).value_or("a file");
  // Another descriptor of the launcher has the number.
  if (facts.target.rfind("anon_inode:", 0) == 0) facts.kind = LogKind::CLOSED;
  facts.isDeleted = status.st_nlink == 0;
  facts.isDiskFull = isFull(launcher, link);
  if (facts.kind == LogKind::PIPE) findReaders(launcher, processes, facts);
  for (const Process& process : processes.all()) {
    if (facts.kind == LogKind::JOURNAL && process.name == kJournalService) {
      facts.readers.push_back(process);
    }
  }
  return facts;
}

Finding logFinding(const LogFacts& facts) {
  switch (facts.kind) {
    case LogKind::NO_PERMISSION:
      return unknownFinding("cannot examine the launcher's standard error",
                            kRunAsRoot);
    case LogKind::CLOSED:
      return {Verdict::WARNING,
              "the launcher has closed its standard error, so it has no log",
              kAppendToFile};
    case LogKind::NULL_DEVICE:
      return {Verdict::WARNING, "the launcher writes its log to /dev/null",
              kAppendToFile};
    case LogKind::TERMINAL:
      return {Verdict::WARNING,
              "the launcher writes its log to " + facts.target +
                  ": Ctrl-S on that terminal blocks it",
              kAppendToFile};
    case LogKind::FILE:
      return fileFinding(facts);
    case LogKind::PIPE:
      return pipeFinding(facts);
    case LogKind::JOURNAL:
      for (const Process& service : facts.readers) {
        if (service.state == 'T') return suspendedReader(service);
      }
      return okFinding("the log is in the journal");
    case LogKind::SOCKET:
      return okFinding("the launcher writes its log to a socket");
    case LogKind::OTHER:
      break;
  }
  return okFinding("the launcher writes its log to " + facts.target);
}

bool JournalLimit::isOff() const {
  const auto is_zero = [](const std::string& text) {
    return text[0] == '0' && std::strtod(text.c_str(), nullptr) == 0;
  };
  return is_zero(interval) || is_zero(burst);
}

JournalLimit parseJournalLimit(const std::vector<std::string>& texts) {
  JournalLimit limit;
  for (const std::string& text : texts) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
      const size_t sign = line.find('=');
      if (sign == std::string::npos) continue;
      const std::string key = withoutBlanks(line.substr(0, sign));
      const std::string value = withoutBlanks(line.substr(sign + 1));
      // An empty value resets to the default.
      const JournalLimit defaults;
      if (key == "RateLimitIntervalSec") {
        limit.interval = value.empty() ? defaults.interval : value;
      } else if (key == "RateLimitBurst") {
        limit.burst = value.empty() ? defaults.burst : value;
      }
    }
  }
  return limit;
}

JournalLimit readJournalLimit() {
  const std::string name = "systemd/journald.conf";
  const std::vector<std::string> places = {"/etc/", "/run/", "/usr/local/lib/",
                                           "/usr/lib/"};
  std::vector<std::string> paths;
  std::vector<std::string> directories;
  for (const std::string& place : places) {
    directories.push_back(place + name + ".d");
    if (paths.empty() && ::access((place + name).c_str(), F_OK) == 0) {
      paths.push_back(place + name);
    }
  }
  const auto more = configurationFiles(directories, ".conf");
  paths.insert(paths.end(), more.begin(), more.end());
  std::vector<std::string> texts;
  texts.reserve(paths.size());
  for (const std::string& path : paths) {
    texts.push_back(readConfiguration(path));
  }
  return parseJournalLimit(texts);
}

std::string readSuppression(int64_t since_us) {
  LogLocation location;
  location.kind = LogLocation::Kind::JOURNAL;
  location.matches = {kSuppressionId};
  std::string last;
  std::string error;
  (void)readLogEnd(
      location, 1, since_us,
      [](const LogRecord& record) {
        return record.text.find("vornlaunch") != std::string_view::npos;
      },
      [&last](const LogRecord& record) {
        last = record.text;
        return true;
      },
      error);
  return last;
}

Finding journalFinding(const JournalLimit& limit,
                       const std::string& suppression) {
  if (!suppression.empty()) {
    return {Verdict::WARNING,
            "the journal has lost lines of the launcher or its nodes in the "
            "last 24 hours: " +
                suppression,
            "make the noisiest node write less, or set "
            "LogRateLimitIntervalSec=0 with 'systemctl edit vornlaunch'"};
  }
  if (limit.isOff()) return okFinding("the journal accepts all lines");
  return okFinding("the journal accepts " + limit.burst + " lines per " +
                   limit.interval +
                   " from the launcher and its nodes together");
}

}  // namespace vorn::launch
