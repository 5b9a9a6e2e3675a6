#include "session.h"

#include <algorithm>
#include <utility>

#include "output.h"
#include "selection.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

// What lasts shorter needs no word.
constexpr milliseconds kQuietTime{500};
constexpr milliseconds kStatusReplyLimit = std::chrono::minutes(5);

}  // namespace

ControlClient Session::client(milliseconds reply_limit,
                              const std::string& activity) const {
  ControlOptions options;
  if (!settings_.socketPath.empty()) options.socketPath = settings_.socketPath;
  options.trustAnyUser = settings_.trustAnyUser;
  options.replyLimit = settings_.replyLimit.value_or(reply_limit);
  options.connectLimit = settings_.connectLimit.value_or(options.replyLimit);
  options.cancelFd = settings_.cancelFd;
  if (settings_.isInteractive && !settings_.isQuiet && !activity.empty()) {
    options.onWait = [this, activity](milliseconds elapsed) {
      showActivity(activity, elapsed);
    };
  }
  return ControlClient(options);
}

ExitStatus Session::findLauncher() {
  // No node, or one whose status is of no interest.
  const StatusReply reply =
      client(kStatusReplyLimit, "waiting for the launcher").status("");
  clearActivity();
  if (!reply.isDone() && reply.outcome != Outcome::NOT_FOUND) {
    std::string text = reply.message;
    if (reply.outcome == Outcome::UNKNOWN) {
      text.resize(std::min(text.size(), text.find(';')));
      text += " to a first question; nothing was changed";
    }
    complain(text);
    return exitStatusOf(reply.outcome);
  }
  pid_ = reply.launcherPid;
  return kDone;
}

const RunningLauncher* Session::launcher(std::string& error) {
  if (launcher_) return &*launcher_;
  launcher_ = inspectLauncher(pid_, settings_.launchFile, error);
  if (!launcher_) return nullptr;
  if (launcher_->hasChanged) {
    complain("the launch file " + launcher_->launchFile +
             " was changed after the launcher started; what is shown of it "
             "may not be what runs");
  }
  return &*launcher_;
}

RunningLauncher Session::launcherWithoutFile() const {
  RunningLauncher launcher;
  launcher.pid = pid_;
  return launcher;
}

void Session::complain(const std::string& text) const {
  clearActivity();
  standardError() << "vornctl: " << terminalText(text) << "\n";
}

void Session::complainAbout(const std::string& name, const ControlReply& reply,
                            const LaunchFile& file) const {
  std::string text = reply.message;
  if (reply.outcome == Outcome::NOT_FOUND) {
    text = "no such node";
    const std::string nearest = nearestName(file, name);
    if (!nearest.empty() && nearest != name) {
      text += "; did you mean '" + nearest + "'?";
    }
  }
  complain(name + ": " + text);
}

void Session::showActivity(const std::string& activity,
                           milliseconds elapsed) const {
  if (elapsed < kQuietTime) return;
  constexpr std::string_view kTurns = "|/-\\";
  const auto turn = static_cast<size_t>(elapsed.count() / 100) % kTurns.size();
  const std::string text = kTurns[turn] + (' ' + activity) + ' ' +
                           std::to_string(elapsed.count() / 1000) + 's';
  standardError() << "\r\x1b[K" << terminalText(text);
  is_activity_shown_ = true;
}

void Session::clearActivity() const {
  if (is_activity_shown_) standardError() << "\r\x1b[K";
  is_activity_shown_ = false;
}

}  // namespace vorn::launch
