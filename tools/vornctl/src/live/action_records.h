#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

// The record of the actions of operators: a file with one line of JSON for each
// invocation of an action, the oldest first.

namespace vorn::launch {

constexpr char kActionDirectory[] = "/run/vornctl";
constexpr char kActionFile[] = "/run/vornctl/actions.jsonl";
/// The end of the name of the file before the current one.
constexpr char kOlderSuffix[] = ".1";
constexpr size_t kMaxActionFile = size_t{1024} * 1024;  // bytes, of each file
constexpr size_t kMaxActionLine =
    size_t{64} * 1024;  // bytes, with the line end

/// One invocation of an action on nodes.
struct ActionRecord {
  int64_t timeUs = 0;  // before the first request, since the Unix epoch
  int64_t endUs = 0;   // after the last reply
  uid_t uid = 0;
  std::string user;      // empty: the uid has no name
  std::string sudoUser;  // the user of sudo; empty: none
  std::string tty;       // "pts/0"; empty: none
  std::string command;   // "stop", "enable --now" and so on
  std::string reason;    // of the operator; empty: none
  // "done", or the outcome of the first node that differs: "failed", "no such
  // node", or "unknown" if there was no valid reply.
  std::string outcome;
  std::vector<std::string> nodes;  // to which a request was sent, in this order
  std::map<std::string, std::string> failures;  // nodes that are not "done"
  size_t omittedNodes = 0;  // that a line of the longest size has no room for
  pid_t launcherPid = 0;    // 0: unknown
};

/// "2026-11-22T07:30:00.123456Z".
std::string formatUtc(int64_t time_us);

/// The line of a record, with its end. Omits the last nodes and failures if it
/// were longer than `max_bytes`.
std::string lineOf(ActionRecord record, size_t max_bytes = kMaxActionLine);

/// The record in a line; nothing if the line is torn or has another form.
std::optional<ActionRecord> parseActionRecord(const std::string& line);

/// The records of actions that ended at or after `sinceUs`, from the file at
/// `path` and the older one, sorted by their start. Lines that are not records
/// are ignored, and so is a file that cannot be read.
std::vector<ActionRecord> readActionRecords(const std::string& path,
                                            int64_t since_us);

}  // namespace vorn::launch
