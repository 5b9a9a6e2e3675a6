#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

#include "live/health.h"
#include "live/process_table.h"

namespace vorn::launch {

/// The standard error of a launcher.
struct LogFacts {
  enum class Kind {
    NO_PERMISSION,  // to examine it
    CLOSED,
    FILE,
    PIPE,
    JOURNAL,
    SOCKET,  // another one
    TERMINAL,
    NULL_DEVICE,
    OTHER,
  };

  Kind kind = Kind::OTHER;
  std::string target;            // path, or "pipe:[1234]"
  bool isDeleted = false;        // FILE
  bool isDiskFull = false;       // FILE
  bool areReadersKnown = false;  // PIPE: all processes could be examined
  // PIPE: the processes that read it. JOURNAL: the journal service, if it can
  // be seen.
  std::vector<Process> readers;
};

LogFacts examineLog(pid_t launcher, const ProcessTable& processes);

Finding logFinding(const LogFacts& facts);

/// The limit of a journal for the lines of one service.
struct JournalLimit {
  std::string interval = "30s";  // the default
  std::string burst = "10000";   // lines

  bool isOff() const;
};

/// The limit that configuration files set; later ones override earlier ones.
JournalLimit parseJournalLimit(const std::vector<std::string>& texts);

/// The limit of this machine.
JournalLimit readJournalLimit();

/// The last message of the journal since this time that lines of a service of
/// the launcher were suppressed; empty if there is none, or it cannot be read.
std::string readSuppression(int64_t since_us);

Finding journalFinding(const JournalLimit& limit,
                       const std::string& suppression);

}  // namespace vorn::launch
