#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "live/log_source.h"

// Logs in the journal of systemd. Without libsystemd on this machine, finding
// one fails with an explanation.

namespace vorn::launch {

/// The log of a launcher whose standard error is a stream of the journal: the
/// entries of its service, or those of the stream if it is not a service.
std::optional<LogLocation> findJournal(const LauncherProcess& launcher,
                                       std::string& error);

/// As findJournal(), in a directory with journal files, which may be from
/// another machine. Without entries of this launcher's service: the service of
/// the launcher that has written the last entry.
std::optional<LogLocation> findJournalIn(const std::string& directory,
                                         const LauncherProcess& launcher,
                                         std::string& error);

/// As readLog().
bool readJournal(const LogLocation& location, int64_t since_us,
                 const LogReader& reader, std::string& error, LogPosition* end);

/// Reads the last `count` entries. `is_all` is set if these are all from
/// `since_us`.
bool readJournalEnd(const LogLocation& location, uint64_t count,
                    int64_t since_us, const LogReader& reader, bool& is_all,
                    std::string& error, LogPosition* end);

/// As followLog().
bool followJournal(const LogLocation& location, LogPosition& position,
                   int cancel_fd, const LogReader& reader, std::string& error);

}  // namespace vorn::launch
