#include "live/node_history.h"

#include <algorithm>

#include "output/duration.h"

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;

// How far to search for the exit of one run.
constexpr size_t kMaxRecords = 1'000'000;

size_t countSince(const std::deque<int64_t>& times, int64_t since_us) {
  return static_cast<size_t>(
      std::count_if(times.begin(), times.end(),
                    [since_us](int64_t time) { return time >= since_us; }));
}

LogHistory::Executables executablesOf(const LaunchFile& file) {
  LogHistory::Executables executables;
  for (const LaunchFile::Node& node : file.nodes) {
    executables.emplace(nameInLog(node.executable), nameInLog(node.name.value));
  }
  return executables;
}

bool isObstacle(Kind kind) {
  return kind == Kind::EXECUTABLE_MISSING || kind == Kind::FORK_FAILED ||
         kind == Kind::STOP_FAILED || kind == Kind::RESTART_CANCELLED;
}

/// Whether the log has the exit of the last run of the node.
bool hasLastExit(const NodeHistories& histories, const NodeView& view) {
  const NodeHistory* const history = histories.find(nameInLog(view.name));
  return history != nullptr && history->exit &&
         history->exit->timeUs >= view.startSeconds * kSecondUs;
}

/// Reads from the last start of the node until the log has its exit.
bool readLastExit(const LauncherProcess& launcher, const LogLocation& location,
                  const NodeView& view, NodeHistories& histories,
                  std::string& error) {
  const std::string name = nameInLog(view.name);
  size_t records = 0;
  return readEvents(
      launcher, location, view.startSeconds * kSecondUs,
      [&](const HistoryEvent& event) {
        if (event.node == name) histories.add(event);
      },
      [&](const LogRecord&) {
        return ++records < kMaxRecords && !hasLastExit(histories, view);
      },
      error);
}

/// Reads the last exits of the nodes that do not run and that `applies`
/// accepts.
bool readLastExits(const LauncherProcess& launcher, const LogLocation& location,
                   const std::vector<NodeView>& views,
                   const std::function<bool(const NodeView&)>& applies,
                   NodeHistories& histories, std::string& error) {
  return std::all_of(views.begin(), views.end(), [&](const NodeView& view) {
    const bool has_ended = view.startSeconds != 0 && view.pid == 0;
    return !has_ended || !applies(view) || hasLastExit(histories, view) ||
           readLastExit(launcher, location, view, histories, error);
  });
}

}  // namespace

size_t NodeHistory::restarts(int64_t now_us) const {
  return countSince(ownExits, now_us - kRecentUs);
}

bool NodeHistory::isCrashLoop(int64_t now_us) const {
  return countSince(ownExits, now_us - kCrashLoopUs) >= kCrashLoopExits;
}

void NodeHistories::add(const HistoryEvent& event) {
  if (event.node.empty()) return;
  NodeHistory& history = nodes_[event.node];
  if (event.kind == Kind::STARTED) {
    history.start = event;
    history.obstacle.reset();
  } else if (event.kind == Kind::EXITED) {
    history.exit = event;
    history.obstacle.reset();
    if (event.cause == Cause::ITSELF && !event.isOneshot) {
      history.ownExits.push_back(event.timeUs);
    }
    while (!history.ownExits.empty() &&
           history.ownExits.front() < event.timeUs - kRecentUs) {
      history.ownExits.pop_front();
    }
  } else if (isObstacle(event.kind)) {
    history.obstacle = event;
  }
}

const NodeHistory* NodeHistories::find(const std::string& name_in_log) const {
  const auto found = nodes_.find(name_in_log);
  return found == nodes_.end() ? nullptr : &found->second;
}

bool readEvents(const LauncherProcess& launcher, const LogLocation& location,
                int64_t since_us, const LogHistory::Receiver& receiver,
                const LogReader& reader, std::string& error) {
  LogHistory history(receiver, executablesOf(launcher.file));
  const bool is_read = readLog(
      location, since_us,
      [&](const LogRecord& record) {
        if (reader && !reader(record)) return false;
        history.add(record.timeUs, record.pid, record.text);
        return true;
      },
      error);
  history.finish();
  return is_read;
}

bool readRecent(const LauncherProcess& launcher, const LogLocation& location,
                int64_t now_us, const std::vector<NodeView>& views,
                NodeHistories& histories, std::string& error) {
  return readRecentAnd(launcher, location, now_us, now_us, {}, views, histories,
                       error);
}

bool readRecentAnd(const LauncherProcess& launcher, const LogLocation& location,
                   int64_t now_us, int64_t since_us,
                   const LogHistory::Receiver& receiver,
                   const std::vector<NodeView>& views, NodeHistories& histories,
                   std::string& error) {
  const bool is_read = readEvents(
      launcher, location, std::min(since_us, now_us - kRecentUs),
      [&](const HistoryEvent& event) {
        histories.add(event);
        if (receiver) receiver(event);
      },
      {}, error);
  return is_read && readLastExits(
                        launcher, location, views,
                        [](const NodeView&) { return true; }, histories, error);
}

bool readOneshotExits(const LauncherProcess& launcher,
                      const LogLocation& location,
                      const std::vector<NodeView>& views,
                      NodeHistories& histories, std::string& error) {
  return readLastExits(
      launcher, location, views,
      [&](const NodeView& view) {
        const LaunchFile::Node* const node = launcher.file.find(view.name);
        return node != nullptr && node->oneshot.value;
      },
      histories, error);
}

void addHistory(const NodeHistories& histories, int64_t now_us,
                std::vector<NodeView>& views) {
  for (NodeView& view : views) {
    const NodeHistory* const history = histories.find(nameInLog(view.name));
    view.restarts = 0;
    if (history == nullptr) continue;
    view.restarts = static_cast<int64_t>(history->restarts(now_us));
    view.isCrashLoop = history->isCrashLoop(now_us);
    view.lastExit = history->exit;
    view.isForkFailed = view.condition == Condition::STOPPED &&
                        history->obstacle &&
                        history->obstacle->kind == Kind::FORK_FAILED;
    const bool has_failed = view.condition == Condition::DISABLED &&
                            view.lastExit && view.lastExit->isOneshot &&
                            view.lastExit->isFailure();
    if (has_failed) view.condition = Condition::FAILED;
  }
}

}  // namespace vorn::launch
