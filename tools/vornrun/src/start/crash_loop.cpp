#include "start/crash_loop.h"

#include <poll.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>

#include "control_client.h"
#include "file_text.h"
#include "process/state_directory.h"
#include "report.h"
#include "state_file_name.h"
#include "vorn/launch_rules.h"

namespace vorn::run {
namespace {

constexpr char kBootId[] = "/proc/sys/kernel/random/boot_id";

RunError cannotRead(const std::string& path, const FileText& file) {
  return {"--state-dir", "cannot read " + path + ": " + file.error};
}

/// Milliseconds since the boot, with those of a suspended machine.
int64_t bootTime() {
  timespec now{};
  (void)::clock_gettime(CLOCK_BOOTTIME, &now);
  constexpr int64_t kMillisecond = 1'000'000;
  return int64_t{now.tv_sec} * 1000 + now.tv_nsec / kMillisecond;
}

std::string inSeconds(milliseconds time) {
  std::string text = std::to_string(time.count() / 1000);
  if (time.count() % 1000 != 0) {
    const std::string digits = std::to_string(1000 + time.count() % 1000);
    text += "." + digits.substr(1, digits.find_last_not_of('0'));
  }
  return text + " s";
}

/// Sleeps. SIGTERM has its default action: it ends this process at once.
void sleepFor(milliseconds time) {
  const int64_t end = bootTime() + time.count();
  constexpr int64_t kLongestPause = 60'000;
  for (int64_t left = time.count(); left > 0; left = end - bootTime()) {
    (void)::poll(nullptr, 0, static_cast<int>(std::min(left, kLongestPause)));
  }
}

/// Why this process still runs after the request to disable its node.
std::string whyNotStopped(const launch::ControlReply& reply) {
  if (!reply.message.empty()) return "cannot disable it: " + reply.message;
  if (reply.outcome == launch::Outcome::NOT_FOUND) {
    return "cannot disable it: the launcher has no node of this name";
  }
  return "the node is disabled";
}

}  // namespace

CrashLoop::CrashLoop(const RunSettings& settings, const std::string& node)
    : settings_(settings),
      node_(node),
      path_(settings.stateDirectory + "/" + fileNameOf(node) + ".starts") {}

std::optional<RunError> CrashLoop::open() {
  if (!isActive()) return std::nullopt;
  const std::string reason = createStateDirectory(settings_.stateDirectory);
  if (!reason.empty()) return RunError{"--state-dir", reason};
  const FileText boot_id = readFileText(kBootId);
  const FileText starts = readFileText(path_);
  if (!boot_id.error.empty()) return cannotRead(kBootId, boot_id);
  if (!starts.error.empty() && !starts.isMissing) {
    return cannotRead(path_, starts);
  }
  boot_id_ = boot_id.text;
  while (!boot_id_.empty() && boot_id_.back() == '\n') boot_id_.pop_back();
  history_ = StartHistory::parse(starts.text, boot_id_);
  now_ = bootTime();
  history_.beginStart(now_, settings_.resetAfter);
  return store();
}

std::optional<RunError> CrashLoop::beforeStart(
    const OnDelay& on_delay, const std::function<void()>& on_give_up) {
  if (!isActive()) return std::nullopt;
  if (settings_.giveUp && history_.isCrashLoop(*settings_.giveUp, now_)) {
    on_give_up();
    return giveUp();
  }
  if (!settings_.backoff) return std::nullopt;
  const milliseconds delay = history_.delay(*settings_.backoff);
  if (delay.count() == 0) return std::nullopt;
  on_delay(history_.size(), delay);
  reportLine(node_, "--backoff",
             "restart " + std::to_string(history_.size()) + ": starting in " +
                 inSeconds(delay));
  sleepFor(delay);
  return std::nullopt;
}

std::optional<RunError> CrashLoop::recordStart() {
  if (!isActive()) return std::nullopt;
  history_.add(bootTime());
  return store();
}

std::optional<RunError> CrashLoop::store() const {
  const std::string reason = writeStateFile(path_, history_.text(boot_id_));
  if (reason.empty()) return std::nullopt;
  return RunError{"--state-dir", reason};
}

RunError CrashLoop::giveUp() {
  // The next start, which an operator requests, is the first of a new series.
  history_ = StartHistory();
  (void)store();
  const std::string rate =
      "started " + std::to_string(settings_.giveUp->count) + " times within " +
      inSeconds(settings_.giveUp->period);
  // Otherwise the launcher could have another node of that name.
  if (std::getenv(launch::kNodeNameVariable) == nullptr) {
    return {"--give-up", rate + "; not disabled: no launcher started vornrun"};
  }
  reportLine(node_, "--give-up",
             rate +
                 "; disabling the node, which can be enabled and started by "
                 "vornctl");
  // The launcher answers after it has stopped this process, which SIGTERM ends.
  return {"--give-up", whyNotStopped(launch::ControlClient().disable(node_))};
}

}  // namespace vorn::run
