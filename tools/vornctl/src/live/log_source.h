#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "descriptor.h"
#include "live/launcher_process.h"

// Where the log of a launcher is, and how it is read.

namespace vorn::launch {

/// A line of a log. The texts are valid during the call.
struct LogRecord {
  // In microseconds since the epoch. 0: unknown, as for a line of a node in a
  // file, which is as old as the line before it.
  int64_t timeUs = 0;
  // Of the writer, as the journal knows them.
  pid_t pid = 0;                // 0: unknown
  std::string_view identifier;  // such as that of `systemd-cat -t`; or empty
  // Without the line end. At most kMaxLogLine bytes, any
  // bytes; the line may be torn.
  std::string_view text;
};

/// Receives the records of a log. False ends the reading, without an error.
using LogReader = std::function<bool(const LogRecord&)>;

/// A log that can be read.
struct LogLocation {
  enum class Kind { FILE, JOURNAL, STANDARD_INPUT };

  Kind kind = Kind::FILE;
  std::string name;  // for messages: a path, "the journal", "standard input"
  // FILE: the path, and the open file, which may have been renamed or deleted.
  // JOURNAL: the path of its directory, empty for that of this machine.
  std::string path;
  std::shared_ptr<const Descriptor> file;
  // FILE: the launcher that sees the path, in its root directory as
  // LauncherProcess has it; 0 if the path is ours.
  pid_t launcher = 0;
  std::string root;
  // JOURNAL: the entries that have all of these fields: "FIELD=value".
  std::vector<std::string> matches;
};

/// Where the standard error of the launcher goes. `override`, if not empty, is
/// the log instead: the path of a file, that of a directory with journal files,
/// or "-" for standard input. Nothing if the log cannot be read; `error` is
/// then a sentence with the reason and the remedy.
std::optional<LogLocation> findLog(const LauncherProcess& launcher,
                                   const std::string& override,
                                   std::string& error);

/// The end of the part of a log that has been read.
struct LogPosition {
  int64_t offset = 0;  // FILE: of the first byte that has not been read
  std::string cursor;  // JOURNAL: of the last entry; empty: none
};

/// Reads the records from `since_us` (0: all) to the end, the oldest first,
/// those in rotated files of the same name included. A record without a time
/// counts as being as old as the one before it. `end`, if not null, is set to
/// the end for followLog(), and a last line without a line end is left to that.
/// False and `error`, a sentence, if the log cannot be read.
bool readLog(const LogLocation& location, int64_t since_us,
             const LogReader& reader, std::string& error,
             LogPosition* end = nullptr);

/// As readLog(), for the last `count` records that `matches` accepts. Reads no
/// more of the log than necessary, from its end; `matches` may therefore get
/// the same record several times.
bool readLogEnd(const LogLocation& location, size_t count, int64_t since_us,
                const std::function<bool(const LogRecord&)>& matches,
                const LogReader& reader, std::string& error,
                LogPosition* end = nullptr);

/// Waits for records after `position`, which is updated, and passes them until
/// the reader returns false or `cancel_fd` is readable. After a rotation, the
/// records of the new file follow those of the old one. Returns at the end of
/// standard input. False and `error` if the log cannot be read any more.
bool followLog(const LogLocation& location, LogPosition& position,
               int cancel_fd, const LogReader& reader, std::string& error);

}  // namespace vorn::launch
