#include "live/log_journal.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <sstream>
#include <string_view>

#include "live/libsystemd.h"
#include "live/line_splitter.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

struct JournalCloser {
  void operator()(sd_journal* journal) const { libsystemd().close(journal); }
};
using Journal = std::unique_ptr<sd_journal, JournalCloser>;

constexpr char kHowToRead[] =
    "; run vornctl as root or as a member of the group systemd-journal";

std::string journalName(const std::string& directory) {
  return directory.empty() ? "the journal" : "the journal in " + directory;
}

bool failJournal(const std::string& directory, int result, std::string& error) {
  error =
      "cannot read " + journalName(directory) + ": " + std::strerror(-result);
  return false;
}

/// The journal of this machine, or that in a directory. Null and `error` if it
/// cannot be opened.
Journal openJournal(const std::string& directory, std::string& error) {
  if (!loadLibsystemd(error)) return nullptr;
  sd_journal* journal = nullptr;
  const int result =
      directory.empty()
          ? libsystemd().open(&journal, Libsystemd::kLocalOnly)
          : libsystemd().open_directory(&journal, directory.c_str(), 0);
  if (result < 0) {
    (void)failJournal(directory, result, error);
    return nullptr;
  }
  (void)libsystemd().set_data_threshold(journal, kMaxLogLine);
  return Journal(journal);
}

/// The value of a field of the current entry; empty if it has none. Valid until
/// the next call for this journal.
std::string_view valueOf(sd_journal* journal, const char* field) {
  const void* data = nullptr;
  size_t size = 0;
  if (libsystemd().get_data(journal, field, &data, &size) < 0) return {};
  const size_t prefix = std::strlen(field) + 1;  // "FIELD="
  return std::string_view(static_cast<const char*>(data), size)
      .substr(std::min(prefix, size));
}

/// When the current entry was received, in microseconds since the epoch.
int64_t timeOf(sd_journal* journal) {
  uint64_t time = 0;
  (void)libsystemd().get_realtime_usec(journal, &time);
  return static_cast<int64_t>(time);
}

void addMatches(sd_journal* journal, const std::vector<std::string>& matches) {
  for (const std::string& match : matches) {
    (void)libsystemd().add_match(journal, match.data(), match.size());
  }
}

/// Moves to the last entry with these fields; false if there is none.
bool findLast(sd_journal* journal, const std::vector<std::string>& matches) {
  libsystemd().flush_matches(journal);
  addMatches(journal, matches);
  return libsystemd().seek_tail(journal) >= 0 &&
         libsystemd().previous(journal) > 0;
}

bool endsWith(std::string_view text, std::string_view ending) {
  return text.size() >= ending.size() &&
         text.substr(text.size() - ending.size()) == ending;
}

/// "FIELD=value" for the field of the current entry.
std::string matchOf(sd_journal* journal, const std::string& field) {
  return field + '=' + std::string(valueOf(journal, field.c_str()));
}

/// The fields of all entries of the service, or of the stream, to which the
/// current entry belongs.
std::vector<std::string> matchesLike(sd_journal* journal) {
  constexpr std::string_view kService = ".service";
  if (endsWith(valueOf(journal, "_SYSTEMD_USER_UNIT"), kService)) {
    return {matchOf(journal, "_SYSTEMD_USER_UNIT"), matchOf(journal, "_UID")};
  }
  if (endsWith(valueOf(journal, "_SYSTEMD_UNIT"), kService)) {
    return {matchOf(journal, "_SYSTEMD_UNIT")};
  }
  // A session has other programs than the launcher.
  if (!valueOf(journal, "_STREAM_ID").empty()) {
    return {matchOf(journal, "_STREAM_ID")};
  }
  return {matchOf(journal, "_PID"), matchOf(journal, "_BOOT_ID")};
}

/// The service in the cgroup of a process; empty if it is not in one.
std::string serviceOf(pid_t pid) {
  std::istringstream lines(readProcFile(procFile(pid, "cgroup")).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    std::string name = line.substr(line.rfind('/') + 1);
    if (endsWith(name, ".service")) return name;
  }
  return "";
}

std::string bootMatch() {
  std::string id = readProcFile("/proc/sys/kernel/random/boot_id").value_or("");
  id.erase(std::remove_if(id.begin(), id.end(),
                          [](char c) { return c == '-' || c == '\n'; }),
           id.end());
  return "_BOOT_ID=" + id;
}

LogLocation locationOf(const std::string& directory,
                       std::vector<std::string> matches) {
  LogLocation location;
  location.kind = LogLocation::Kind::JOURNAL;
  location.name = journalName(directory);
  location.path = directory;
  location.matches = std::move(matches);
  return location;
}

/// The fields of the entries of the launcher and its nodes; empty if the
/// journal has no entry of it.
std::vector<std::string> matchesOf(sd_journal* journal,
                                   const LauncherProcess& launcher) {
  const std::string pid = "_PID=" + std::to_string(launcher.pid);
  if (findLast(journal, {pid, bootMatch()})) {
    // An earlier process may have had the same pid.
    constexpr int64_t kTolerance = 5;
    if (timeOf(journal) / 1'000'000 + kTolerance >= launcher.startSeconds) {
      return matchesLike(journal);
    }
  }
  const std::string service = serviceOf(launcher.pid);
  for (const char* const field : {"_SYSTEMD_USER_UNIT=", "_SYSTEMD_UNIT="}) {
    if (!service.empty() && findLast(journal, {field + service})) {
      return matchesLike(journal);
    }
  }
  return {};
}

/// Reads the current entry: a record for each line of its message, or none if
/// it has no message. False if the reader has stopped.
bool passEntry(sd_journal* journal, const LogReader& reader) {
  LogRecord record;
  record.timeUs = timeOf(journal);
  const std::string pid(valueOf(journal, "_PID"));
  record.pid = static_cast<pid_t>(std::strtol(pid.c_str(), nullptr, 10));
  const std::string identifier(valueOf(journal, "SYSLOG_IDENTIFIER"));
  record.identifier = identifier;
  LineSplitter splitter([&](std::string_view line) {
    record.text = line;
    return reader(record);
  });
  return splitter.add(valueOf(journal, "MESSAGE")) && splitter.finish();
}

void storePosition(sd_journal* journal, LogPosition* end) {
  char* cursor = nullptr;
  if (end == nullptr || libsystemd().get_cursor(journal, &cursor) < 0) return;
  end->cursor = cursor;
  std::free(cursor);  // NOLINT: allocated by libsystemd with malloc()
}

/// Reads the entries after the current position to the end.
bool readOn(const LogLocation& location, sd_journal* journal, int64_t since_us,
            const LogReader& reader, std::string& error, LogPosition* end,
            bool& is_stopped) {
  for (;;) {
    const int result = libsystemd().next(journal);
    if (result < 0) return failJournal(location.path, result, error);
    if (result == 0) return true;
    storePosition(journal, end);
    if (timeOf(journal) < since_us) continue;
    is_stopped = !passEntry(journal, reader);
    if (is_stopped) return true;
  }
}

/// Moves to the last entry before `since_us`, and stores its position.
bool seekBefore(sd_journal* journal, int64_t since_us, LogPosition* end) {
  const auto time = static_cast<uint64_t>(since_us);
  if (since_us != 0 && libsystemd().seek_realtime_usec(journal, time) >= 0) {
    while (libsystemd().previous(journal) > 0) {
      if (timeOf(journal) >= since_us) continue;  // an entry of that very time
      storePosition(journal, end);
      return true;
    }
  }
  return libsystemd().seek_head(journal) >= 0;
}

/// Moves to the last entry that has been read.
bool seekTo(sd_journal* journal, const LogPosition& position) {
  const char* const cursor = position.cursor.c_str();
  if (position.cursor.empty()) return libsystemd().seek_head(journal) >= 0;
  if (libsystemd().seek_cursor(journal, cursor) < 0) return false;
  const int result = libsystemd().next(journal);
  // The next entry, if the journal has deleted that of the cursor.
  if (result > 0 && libsystemd().test_cursor(journal, cursor) == 0) {
    return libsystemd().previous(journal) >= 0;
  }
  return result >= 0;
}

/// Waits for new entries; false if `cancel_fd` is readable.
bool waitForEntries(sd_journal* journal, int cancel_fd) {
  pollfd watched[] = {{libsystemd().get_fd(journal), POLLIN, 0},
                      {cancel_fd, POLLIN, 0}};
  // Also new files in a directory that the kernel does not watch.
  constexpr int kLimitMs = 1000;
  (void)::poll(watched, 2, kLimitMs);
  (void)libsystemd().process(journal);
  return watched[1].revents == 0;
}

}  // namespace

std::optional<LogLocation> findJournal(const LauncherProcess& launcher,
                                       std::string& error) {
  const Journal journal = openJournal("", error);
  if (!journal) return std::nullopt;
  std::vector<std::string> matches = matchesOf(journal.get(), launcher);
  if (matches.empty()) {
    error = "the journal has no entries of launcher " +
            std::to_string(launcher.pid) + " that this user can read" +
            kHowToRead;
    return std::nullopt;
  }
  return locationOf("", std::move(matches));
}

std::optional<LogLocation> findJournalIn(const std::string& directory,
                                         const LauncherProcess& launcher,
                                         std::string& error) {
  const Journal journal = openJournal(directory, error);
  if (!journal) return std::nullopt;
  std::vector<std::string> matches;
  if (launcher.pid != 0) matches = matchesOf(journal.get(), launcher);
  if (matches.empty() && findLast(journal.get(), {"_COMM=vornlaunch"})) {
    matches = matchesLike(journal.get());
  }
  if (matches.empty()) {
    error = "the journal in " + directory +
            " has no entries of a launcher that this user can read; copy the "
            "*.journal files into it and make them readable";
    return std::nullopt;
  }
  return locationOf(directory, std::move(matches));
}

bool readJournal(const LogLocation& location, int64_t since_us,
                 const LogReader& reader, std::string& error,
                 LogPosition* end) {
  const Journal journal = openJournal(location.path, error);
  if (!journal) return false;
  addMatches(journal.get(), location.matches);
  if (!seekBefore(journal.get(), since_us, end)) {
    return failJournal(location.path, -EBADMSG, error);
  }
  bool is_stopped = false;
  return readOn(location, journal.get(), since_us, reader, error, end,
                is_stopped);
}

bool readJournalEnd(const LogLocation& location, uint64_t count,
                    int64_t since_us, const LogReader& reader, bool& is_all,
                    std::string& error, LogPosition* end) {
  const Journal journal = openJournal(location.path, error);
  if (!journal) return false;
  addMatches(journal.get(), location.matches);
  int result = libsystemd().seek_tail(journal.get());
  if (result >= 0) {
    // One more than `count`: the entry before the first one that is read.
    result = libsystemd().previous_skip(journal.get(), count + 1);
  }
  if (result < 0) return failJournal(location.path, result, error);
  is_all = static_cast<uint64_t>(result) <= count;
  if (is_all) {
    result = libsystemd().seek_head(journal.get());
    if (result < 0) return failJournal(location.path, result, error);
  } else {
    is_all = timeOf(journal.get()) < since_us;
    storePosition(journal.get(), end);
  }
  bool is_stopped = false;
  return readOn(location, journal.get(), since_us, reader, error, end,
                is_stopped);
}

bool followJournal(const LogLocation& location, LogPosition& position,
                   int cancel_fd, const LogReader& reader, std::string& error) {
  const Journal journal = openJournal(location.path, error);
  if (!journal) return false;
  // The first call only starts the watch of the files.
  (void)libsystemd().get_fd(journal.get());
  addMatches(journal.get(), location.matches);
  if (!seekTo(journal.get(), position)) {
    return failJournal(location.path, -EBADMSG, error);
  }
  bool is_stopped = false;
  do {
    if (!readOn(location, journal.get(), 0, reader, error, &position,
                is_stopped)) {
      return false;
    }
  } while (!is_stopped && waitForEntries(journal.get(), cancel_fd));
  return true;
}

}  // namespace vorn::launch
