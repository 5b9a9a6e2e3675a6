#include "context/context.h"

#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iostream>
#include <utility>

#include "context/node_patterns.h"
#include "live/busy_launcher.h"
#include "live/orphans.h"
#include "live/proc_file.h"
#include "output/output.h"

namespace vorn::launch {
namespace {

using std::chrono::milliseconds;

// The time after which a line shows that vornctl waits.
constexpr milliseconds kQuietTime{500};
constexpr milliseconds kStatusReplyLimit = std::chrono::minutes(5);

/// The sentence for a first request, which changes nothing, without a reply.
std::string explainNoAnswer(const ControlReply& reply, bool is_timed_out,
                            const std::string& socket_path) {
  if (reply.outcome == Outcome::NOT_SENT) {
    if (!is_timed_out) return reply.message;
    return reply.message + ": " + explainSilence(findListener(socket_path));
  }
  // Without "the request ... may still take effect".
  std::string text = reply.message.substr(0, reply.message.find(';'));
  text += "; nothing was changed";
  if (exitsSoon(reply.launcherPid)) {
    return text + ": launcher " + std::to_string(reply.launcherPid) +
           " has exited";
  }
  if (!is_timed_out) return text;
  return text + ": " + explainSilence(reply.launcherPid);
}

}  // namespace

ControlClient Context::client(milliseconds reply_limit,
                              const std::string& activity) const {
  ControlOptions options;
  if (!settings_.socketPath.empty()) options.socketPath = settings_.socketPath;
  options.trustAnyUser = settings_.trustAnyUser;
  options.replyLimit = settings_.replyLimit.value_or(reply_limit);
  options.connectLimit = options.replyLimit;
  options.cancelFd = settings_.cancelFd;
  if (settings_.isInteractive && !settings_.isQuiet && !activity.empty()) {
    options.onWait = [this, activity](milliseconds elapsed) {
      showActivity(activity, elapsed);
    };
  }
  return ControlClient(options);
}

ExitStatus Context::findLauncher() {
  ControlOptions options =
      client(kStatusReplyLimit, "waiting for the launcher").options();
  if (settings_.connectLimit) {
    options.connectLimit = *settings_.connectLimit;
    options.replyLimit = *settings_.connectLimit;
    options.totalLimit = *settings_.connectLimit;
  }
  // The status itself is not needed, so the name may be that of no node.
  const StatusReply reply = statusBefore(options, "");
  if (reply.isDone() || reply.outcome == Outcome::NOT_FOUND) {
    pid_ = reply.launcherPid;
    return kDone;
  }
  printError(reply.message);
  return exitStatusOf(reply.outcome);
}

ExitStatus Context::findLauncherProcess() {
  const pid_t pid =
      findListener(client(kStatusReplyLimit).options().socketPath);
  struct stat status {};
  const bool is_known =
      pid != 0 && ::stat(procFile(pid, "").c_str(), &status) == 0;
  const bool is_trusted = settings_.trustAnyUser || status.st_uid == 0 ||
                          status.st_uid == ::geteuid();
  if (!is_known || !is_trusted) return findLauncher();
  pid_ = pid;
  return kDone;
}

StatusReply Context::statusBefore(const ControlOptions& options,
                                  const std::string& name) const {
  const auto begin = std::chrono::steady_clock::now();
  StatusReply reply = ControlClient(options).status(name);
  const auto elapsed = std::chrono::steady_clock::now() - begin;
  clearActivity();
  if (reply.outcome == Outcome::UNKNOWN || reply.outcome == Outcome::NOT_SENT) {
    reply.message = explainNoAnswer(reply, elapsed >= options.replyLimit,
                                    options.socketPath);
  }
  return reply;
}

const LauncherProcess* Context::launcher(std::string& error) {
  if (launcher_) return &*launcher_;
  launcher_ = inspectLauncher(pid_, settings_.launchFile, error);
  if (!launcher_) return nullptr;
  if (launcher_->hasChanged) {
    printWarning(
        "the launch file " + launcher_->launchFile +
        " was changed after the launcher started; its nodes may differ "
        "from those that run");
  }
  return &*launcher_;
}

LauncherProcess Context::launcherWithoutFile() const {
  return identifyLauncher(pid_, settings_.launchFile);
}

std::optional<ProcessTable> Context::readProcesses() const {
  ProcessTable table = ProcessTable::read();
  if (!table.all().empty()) return table;
  printError(std::string("cannot read the processes in /proc: ") +
             std::strerror(errno));
  return std::nullopt;
}

bool Context::isCancelled() const {
  pollfd watched{settings_.cancelFd, POLLIN, 0};
  return ::poll(&watched, 1, 0) > 0;
}

bool Context::confirm(const std::string& action) const {
  if (!settings_.isInteractive) {
    printError("refusing to " + action + " without confirmation; add --yes");
    return false;
  }
  standardError() << terminalText(action) << "? [y/N] ";
  std::string answer;
  std::getline(std::cin, answer);
  return answer == "y" || answer == "Y" || answer == "yes";
}

void Context::warnAboutOrphans() const {
  if (settings_.isQuiet) return;
  const std::string warning =
      warningAbout(findOrphans(ProcessTable::read(), pid_));
  if (!warning.empty()) printWarning(warning);
}

void Context::printError(const std::string& text) const {
  printMessage(JournalLevel::ERROR, text);
}

void Context::printWarning(const std::string& text) const {
  printMessage(JournalLevel::WARNING, text);
}

void Context::printMessage(JournalLevel level, const std::string& text) const {
  clearActivity();
  standardError() << journalPrefix(STDERR_FILENO, level)
                  << "vornctl: " << terminalText(text) << "\n";
}

void Context::printRequestError(const std::string& name,
                                const ControlReply& reply,
                                const LaunchFile& file) const {
  std::string text = reply.message;
  if (reply.outcome == Outcome::NOT_FOUND) {
    text = "no such node";
    const std::string nearest = nearestName(file, name);
    if (!nearest.empty() && nearest != name) {
      text += "; did you mean '" + nearest + "'?";
    }
  }
  printError(name + ": " + text);
}

void Context::showActivity(const std::string& activity,
                           milliseconds elapsed) const {
  if (elapsed < kQuietTime) return;
  constexpr std::string_view kTurns = "|/-\\";
  const auto turn = static_cast<size_t>(elapsed.count() / 100) % kTurns.size();
  const std::string text = kTurns[turn] + (' ' + activity) + ' ' +
                           std::to_string(elapsed.count() / 1000) + 's';
  standardError() << "\r\x1b[K" << terminalText(text);
  is_activity_shown_ = true;
}

void Context::clearActivity() const {
  if (is_activity_shown_) standardError() << "\r\x1b[K";
  is_activity_shown_ = false;
}

}  // namespace vorn::launch
