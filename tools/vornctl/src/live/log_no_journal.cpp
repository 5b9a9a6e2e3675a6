#include "live/log_journal.h"

namespace vorn::launch {
namespace {

constexpr char kNoJournal[] =
    "this vornctl was built without support for the journal; install the "
    "package of your distribution, or build with libsystemd-dev; until then "
    "use: journalctl -o cat -u UNIT | vornctl COMMAND --log -";

bool refuse(std::string& error) {
  error = kNoJournal;
  return false;
}

}  // namespace

std::optional<LogLocation> findJournal(const LauncherProcess& launcher,
                                       std::string& error) {
  (void)launcher;
  error = kNoJournal;
  return std::nullopt;
}

std::optional<LogLocation> findJournalIn(const std::string& directory,
                                         const LauncherProcess& launcher,
                                         std::string& error) {
  (void)directory;
  return findJournal(launcher, error);
}

bool readJournal(const LogLocation&, int64_t, const LogReader&,
                 std::string& error, LogPosition*) {
  return refuse(error);
}

bool readJournalEnd(const LogLocation&, uint64_t, int64_t, const LogReader&,
                    bool&, std::string& error, LogPosition*) {
  return refuse(error);
}

bool followJournal(const LogLocation&, LogPosition&, int, const LogReader&,
                   std::string& error) {
  return refuse(error);
}

}  // namespace vorn::launch
