#include "live/node_lines.h"

#include <algorithm>

#include "live/launcher_process.h"
#include "live/process_table.h"

namespace vorn::launch {
namespace {

constexpr std::string_view kLauncher = "vornlaunch";
// The journal stores a line some time after it was written, and the clock of a
// process's start is not that of the journal.
constexpr int64_t kJournalDelayUs = 5'000'000;
constexpr int64_t kClockToleranceUs = 1'000'000;
// The time that the launcher takes at most to report an exit.
constexpr int64_t kReportUs = 1'000'000;

bool hasPrefix(std::string_view text, const std::string& prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

std::optional<LogLine> launcherLineIn(const LogRecord& record) {
  // Most lines of a log are those of nodes.
  if (record.text.find(kLauncher) == std::string_view::npos) {
    return std::nullopt;
  }
  auto line = parseLogLine(record.text);
  if (!line || line->program != kLauncher) return std::nullopt;
  if (record.pid != 0 && record.pid != line->pid) return std::nullopt;
  return line;
}

bool isAboutNode(std::string_view text, const std::string& name,
                 const std::string& executable) {
  if (text.find('\'' + name + '\'') != std::string_view::npos) return true;
  if (hasPrefix(text, name + " sleep ")) return true;
  if (text == "name: " + name || text == "name: " + name + " fork failed.") {
    return true;
  }
  return !executable.empty() && (text == "Can't find file: " + executable ||
                                 text == "Can't execv " + executable);
}

LineWriters::LineWriters(bool sees_processes)
    : sees_processes_(sees_processes),
      history_([this](const HistoryEvent& event) { add(event); }) {}

void LineWriters::add(const HistoryEvent& event) {
  if (event.kind == HistoryEvent::Kind::STARTED) {
    const auto last = last_runs_.find(event.node);
    if (last == last_runs_.end()) return;
    Run& run = last->second;
    run.reportEndUs =
        std::max(run.endUs, std::min(run.reportEndUs, event.timeUs - 1));
  } else if (event.kind == HistoryEvent::Kind::EXITED) {
    const int64_t start = event.runUs < 0 ? 0 : event.timeUs - event.runUs;
    const Run run{event.node, start, event.timeUs, event.timeUs + kReportUs};
    runs_.emplace(event.pid, run);
    last_runs_[event.node] = run;
    // The pid can belong to another process from now on.
    processes_.erase(event.pid);
  }
}

void LineWriters::learn(const LogRecord& record) {
  history_.add(record.timeUs, record.pid, record.text);
}

const LineWriters::Run* LineWriters::lastRunOf(const std::string& node) const {
  const auto found = last_runs_.find(node);
  return found == last_runs_.end() ? nullptr : &found->second;
}

std::string LineWriters::nodeOf(const LogRecord& record) {
  if (record.pid == 0) return "";
  std::string node = endedNodeOf(record);
  if (node.empty() && sees_processes_) node = runningNodeOf(record);
  // The launcher gives its own identifier to its nodes.
  if (node.empty() && record.identifier != kLauncher) {
    node = nameInLog(record.identifier);
  }
  return node;
}

std::string LineWriters::endedNodeOf(const LogRecord& record) const {
  const auto [begin, end] = runs_.equal_range(record.pid);
  for (auto found = begin; found != end; ++found) {
    const Run& run = found->second;
    if (record.timeUs >= run.startUs - kClockToleranceUs &&
        record.timeUs <= run.endUs + kJournalDelayUs) {
      return run.node;
    }
  }
  return "";
}

std::string LineWriters::runningNodeOf(const LogRecord& record) {
  const auto known = processes_.find(record.pid);
  if (known == processes_.end()) {
    const auto process = readProcess(record.pid);
    const auto name = process ? vorn::launch::nodeOf(record.pid) : std::nullopt;
    if (!name) return "";
    const auto start = static_cast<int64_t>(startOf(*process) * 1e6);
    processes_[record.pid] = {nameInLog(*name), start};
  }
  const Process& process = processes_[record.pid];
  const bool is_older = record.timeUs < process.startUs - kClockToleranceUs;
  return is_older ? "" : process.node;
}

}  // namespace vorn::launch
