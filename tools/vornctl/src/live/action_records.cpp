#include "live/action_records.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <limits>
#include <sstream>

#include "descriptor.h"
#include "live/log_time.h"
#include "output/duration.h"
#include "output/json.h"
#include "output/output_text.h"

namespace vorn::launch {
namespace {

constexpr int kRecordSchema = 1;

std::optional<int64_t> parseUtc(const std::string& text) {
  if (text.size() != kLogTimeLength) return std::nullopt;
  return parseLogTime(text + ' ');
}

Json jsonOf(const ActionRecord& record) {
  Json json = {
      {"schema", kRecordSchema},
      {"time", formatUtc(record.timeUs)},
      {"end", formatUtc(record.endUs)},
      {"command", record.command},
      {"outcome", record.outcome},
      {"nodes", record.nodes},
      {"failures", record.failures},
      {"omittedNodes", record.omittedNodes},
      {"uid", record.uid},
      {"user", record.user},
      {"sudoUser", record.sudoUser},
      {"tty", record.tty},
      {"launcherPid", orNull(record.launcherPid)},
      {"reason", record.reason},
  };
  return json;
}

/// The member if it is text; otherwise empty.
std::string textOf(const Json& json, const char* member) {
  const auto found = json.find(member);
  return found != json.end() && found->is_string() ? found->get<std::string>()
                                                   : "";
}

/// The member if it is a number that fits.
template <typename Number>
std::optional<Number> numberOf(const Json& json, const char* member) {
  const auto found = json.find(member);
  if (found == json.end() || !found->is_number_unsigned()) return std::nullopt;
  const auto value = found->get<uint64_t>();
  constexpr auto kMost =
      static_cast<uint64_t>(std::numeric_limits<Number>::max());
  if (value > kMost) return std::nullopt;
  return static_cast<Number>(value);
}

void readNodes(const Json& json, ActionRecord& record) {
  if (const auto nodes = json.find("nodes"); nodes != json.end()) {
    for (const Json& name : *nodes) {
      if (name.is_string()) record.nodes.push_back(name.get<std::string>());
    }
  }
  const auto failures = json.find("failures");
  if (failures == json.end() || !failures->is_object()) return;
  for (const auto& [name, outcome] : failures->items()) {
    if (outcome.is_string()) {
      record.failures[name] = outcome.get<std::string>();
    }
  }
}

/// The last bytes of the file, as many as a file of records may have; empty if
/// it cannot be read.
std::string readEnd(const std::string& path) {
  const Descriptor file(::open(
      path.c_str(), O_RDONLY | O_NONBLOCK | O_NOCTTY | O_NOFOLLOW | O_CLOEXEC));
  struct stat status {};
  if (file.number() < 0 || ::fstat(file.number(), &status) != 0 ||
      !S_ISREG(status.st_mode)) {
    return "";
  }
  const auto size = std::min<off_t>(status.st_size, kMaxActionFile);
  std::string text(static_cast<size_t>(size), '\0');
  size_t length = 0;
  while (length < text.size()) {
    const ssize_t got =
        ::pread(file.number(), text.data() + length, text.size() - length,
                status.st_size - size + static_cast<off_t>(length));
    if (got <= 0) break;
    length += static_cast<size_t>(got);
  }
  text.resize(length);
  return text;
}

void addRecords(const std::string& text, int64_t since_us,
                std::vector<ActionRecord>& records) {
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    auto record = parseActionRecord(line);
    if (record && record->endUs >= since_us) {
      records.push_back(std::move(*record));
    }
  }
}

}  // namespace

std::string formatUtc(int64_t time_us) {
  const std::time_t seconds = time_us / kSecondUs;
  std::tm utc{};
  (void)::gmtime_r(&seconds, &utc);
  std::array<char, 32> date{};
  (void)std::strftime(date.data(), date.size(), "%Y-%m-%dT%H:%M:%S", &utc);
  std::array<char, 48> text{};
  (void)std::snprintf(text.data(), text.size(), "%s.%06dZ", date.data(),
                      static_cast<int>(time_us % kSecondUs));
  return text.data();
}

std::string lineOf(ActionRecord record, size_t max_bytes) {
  for (;;) {
    std::string line = jsonText(jsonOf(record), -1).str();
    if (line.size() <= max_bytes || record.nodes.empty()) return line;
    // Half of them: a new length for every single node would take long.
    const size_t kept = record.nodes.size() / 2;
    for (size_t i = kept; i < record.nodes.size(); ++i) {
      record.failures.erase(record.nodes[i]);
    }
    record.omittedNodes += record.nodes.size() - kept;
    record.nodes.resize(kept);
  }
}

std::optional<ActionRecord> parseActionRecord(const std::string& line) {
  if (line.size() >= kMaxActionLine) return std::nullopt;
  const Json json = Json::parse(line, nullptr, /*allow_exceptions=*/false);
  if (!json.is_object()) return std::nullopt;
  const auto time = parseUtc(textOf(json, "time"));
  const auto end = parseUtc(textOf(json, "end"));
  const auto uid = numberOf<uid_t>(json, "uid");
  ActionRecord record;
  record.command = textOf(json, "command");
  if (!time || !end || !uid || record.command.empty() ||
      numberOf<int>(json, "schema") != kRecordSchema) {
    return std::nullopt;
  }
  record.timeUs = *time;
  record.endUs = *end;
  record.uid = *uid;
  record.user = textOf(json, "user");
  record.sudoUser = textOf(json, "sudoUser");
  record.tty = textOf(json, "tty");
  record.reason = textOf(json, "reason");
  record.outcome = textOf(json, "outcome");
  record.omittedNodes = numberOf<size_t>(json, "omittedNodes").value_or(0);
  record.launcherPid = numberOf<pid_t>(json, "launcherPid").value_or(0);
  readNodes(json, record);
  return record;
}

std::vector<ActionRecord> readActionRecords(const std::string& path,
                                            int64_t since_us) {
  std::vector<ActionRecord> records;
  addRecords(readEnd(path + kOlderSuffix), since_us, records);
  addRecords(readEnd(path), since_us, records);
  std::stable_sort(records.begin(), records.end(),
                   [](const ActionRecord& a, const ActionRecord& b) {
                     return a.timeUs < b.timeUs;
                   });
  return records;
}

}  // namespace vorn::launch
