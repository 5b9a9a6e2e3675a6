#include "live/node_verdict.h"

#include <signal.h>

#include "live/event_text.h"
#include "output/duration.h"
#include "output/quantity.h"

namespace vorn::launch {
namespace {

using Kind = HistoryEvent::Kind;
using Cause = HistoryEvent::Cause;

std::string agoText(const NodeFacts& facts, int64_t time_us) {
  const int64_t seconds = (facts.nowUs - time_us) / kSecondUs;
  return formatSpan(seconds < 0 ? 0 : seconds) + " ago";
}

bool isKilledByKernel(const NodeFacts& facts) {
  return facts.isMemoryKill || facts.memoryKills != 0;
}

/// "it exited with status 3", with the reason if it is known.
std::string exitClause(const NodeFacts& facts, const HistoryEvent& exit) {
  std::string text = "it " + exitText(exit);
  const bool is_kill =
      exit.isSignal() && exit.status == SIGKILL && exit.cause == Cause::ITSELF;
  if (is_kill && facts.isMemoryKill) {
    text += " by the kernel for lack of memory";
  } else if (is_kill && isKilledByKernel(facts)) {
    text += ", probably by the kernel for lack of memory";
  }
  return text;
}

/// The recorded action that has caused an event, with the reason and the user.
std::string actionClause(const NodeFacts& facts,
                         const std::string& without_record) {
  if (!facts.action) return without_record;
  return actionText(*facts.action) + ", " +
         agoText(facts, facts.action->timeUs);
}

bool isStopAction(const ActionRecord& action) {
  return action.command == "stop" || action.command == "disable";
}

bool hasObstacle(const NodeFacts& facts, Kind kind) {
  return facts.history && facts.history->obstacle &&
         facts.history->obstacle->kind == kind;
}

/// Sets the summary and, for a node that is not healthy, remedies.
class Judge {
 public:
  explicit Judge(const NodeFacts& facts)
      : facts_(facts),
        view_(facts.view),
        exit_(facts.history ? facts.history->exit : std::nullopt) {}

  NodeVerdict verdict() {
    judgeCondition();
    addSurroundings();
    addDetails();
    return verdict_;
  }

 private:
  void say(const std::string& summary) { verdict_.summary = summary; }

  void fail(const std::string& summary, const std::string& remedy) {
    verdict_.summary = summary;
    verdict_.isAsWanted = false;
    verdict_.remedies.push_back(remedy);
  }

  std::string command(const std::string& command) const {
    return "vornctl " + command + ' ' + view_.name;
  }

  void judgeCondition() {
    if (!facts_.hasLauncher) return judgeWithoutLauncher();
    switch (view_.condition) {
      case Condition::RUNNING:
      case Condition::EXITING:
        return judgeRunning();
      case Condition::STOPPING:
        return say("is stopping: " +
                   actionClause(facts_, "a command has stopped it"));
      case Condition::STOPPED:
        return judgeStopped();
      case Condition::NEVER_STARTED:
        return say(facts_.isDisabledInFile == true
                       ? "has never started: it is disabled in the launch file"
                       : "has never started: its autostart is false");
      case Condition::RESTARTING:
        return judgeRestarting();
      case Condition::FAILED:
        return fail("has failed: " + exitClause(facts_, *exit_),
                    "run it again: " + command("enable --now"));
      case Condition::DISABLED:
        return judgeDisabled();
      case Condition::UNKNOWN_NODE:
        return fail(
            "is unknown to the launcher: it was added to the launch "
            "file after the launcher started",
            "restart the launcher");
    }
  }

  void judgeWithoutLauncher() {
    if (facts_.orphans.empty()) {
      return fail("does not run: no launcher is running", "start the launcher");
    }
    fail("runs without a launcher: its launcher was killed or has crashed",
         "terminate the processes with 'vornctl orphans --kill', then start "
         "the launcher");
  }

  void judgeRunning() {
    const std::string since =
        "has been running since " + formatTime(view_.startSeconds);
    if (view_.run.state && !view_.run.state->isUp()) return judgePhase();
    if (view_.isCrashLoop && exit_) return failInLoop();
    if (view_.isStale == true) {
      return fail(since +
                      " with an executable that was replaced after its "
                      "start",
                  "use the new executable: " + command("restart"));
    }
    if (view_.restarts > 0 && exit_ && exit_->cause == Cause::ITSELF) {
      return say(since + ", after " + countOfRestarts() + ": " +
                 exitClause(facts_, *exit_));
    }
    say(since);
  }

  /// For a node that runs and is not ready.
  void judgePhase() {
    const RunState& run = *view_.run.state;
    const std::string since = " since " + formatTime(run.phaseSince);
    if (run.phase == "waiting") {
      return fail("waits for " + run.status + " of its --wait-for" + since,
                  "make the condition hold, or correct it in the launch file");
    }
    if (run.phase == "delayed") {
      return fail("is delayed by its --backoff until " +
                      formatTime(run.delayedUntil.value_or(0)) +
                      (exit_ ? ": " + exitClause(facts_, *exit_) : ""),
                  "see its output: " + command("logs --previous"));
    }
    if (run.phase == "unhealthy") {
      return fail("is unhealthy" + since + failedProbe(": "),
                  "see its output: " + command("logs"));
    }
    if (run.hasGivenUp()) return failAfterGivingUp();
    say("has not been ready" + since);
  }

  void failAfterGivingUp() {
    fail("has given up after too many restarts",
         "fix the cause, then: " + command("enable --now"));
  }

  /// The message of the last check by vornrun, if that has failed.
  std::string failedProbe(const std::string& before) const {
    const auto& probe = view_.run.state->lastProbe;
    return probe && !probe->isOk ? before + probe->message : "";
  }

  void judgeStopped() {
    if (view_.isForkFailed) {
      return fail("is stopped: the launcher could not create a process for it",
                  "free memory or processes, then: " + command("start"));
    }
    const bool is_recorded = facts_.action && isStopAction(*facts_.action);
    say("is stopped: " +
        (is_recorded ? actionClause(facts_, "") : "a command has stopped it"));
    verdict_.remedies.push_back("start it: " + command("start"));
  }

  void judgeRestarting() {
    if (view_.isCrashLoop && exit_) return failInLoop();
    const std::string text =
        "restarts in " + formatSpan(view_.restartInSeconds);
    fail(exit_ ? text + ": " + exitClause(facts_, *exit_)
               : text + ": it exited by itself",
         "see its output: " + command("logs --previous"));
  }

  void failInLoop() {
    fail("is in a crash loop: " + exitClause(facts_, *exit_) + "; " +
             countOfRestarts(),
         "see its output: " + command("logs --previous"));
    verdict_.remedies.push_back("end the loop: " + command("disable"));
  }

  std::string countOfRestarts() const {
    return std::to_string(view_.restarts) +
           (view_.restarts == 1 ? " restart" : " restarts") +
           " in the last hour";
  }

  void judgeDisabled() {
    if (view_.isExecutableMissing ||
        hasObstacle(facts_, Kind::EXECUTABLE_MISSING)) {
      return fail(
          "is disabled: its executable " + view_.executable +
              (view_.isExecutableMissing ? " does not exist"
                                         : " did not exist at its last start"),
          "install the executable, then: " + command("enable --now"));
    }
    if (view_.run.state && view_.run.state->hasGivenUp()) {
      return failAfterGivingUp();
    }
    const bool is_own_exit = exit_ && exit_->cause == Cause::ITSELF;
    if (facts_.isOneshot && is_own_exit) {
      return say("has finished: it is a oneshot, and " +
                 exitClause(facts_, *exit_));
    }
    if (facts_.action && isStopAction(*facts_.action)) {
      say("is disabled: " + actionClause(facts_, ""));
    } else if (facts_.isOneshot) {
      say("is disabled: it is a oneshot" +
          (exit_
               ? ", and " + exitClause(facts_, *exit_) +
                     (exit_->cause == Cause::OPERATOR ? ", stopped by a command"
                                                      : "")
               : " that has run"));
    } else {
      say(facts_.isDisabledInFile == true && view_.startSeconds == 0
              ? "is disabled in the launch file"
              : "is disabled: a command has disabled it");
    }
    verdict_.remedies.push_back("start it: " + command("enable --now"));
  }

  void addSurroundings() {
    for (const std::string& path : facts_.fullFileSystems) {
      verdict_.summary += "; the file system of " + path + " is full";
      verdict_.isAsWanted = false;
    }
    if (!facts_.fullFileSystems.empty()) {
      verdict_.remedies.emplace_back("free space on the full file system");
    }
    if (facts_.orphans.empty() || !facts_.hasLauncher) return;
    verdict_.summary += "; process " + std::to_string(facts_.orphans.front()) +
                        " of an earlier run is alive without a launcher";
    verdict_.isAsWanted = false;
    verdict_.remedies.emplace_back(
        "terminate the earlier processes: vornctl orphans --kill");
  }

  void addDetail(const std::string& label, const std::string& text) {
    if (!text.empty()) verdict_.details.emplace_back(label, text);
  }

  void addDetails() {
    std::string state = wordFor(view_.condition);
    if (view_.pid != 0) state += ", pid " + std::to_string(view_.pid);
    if (facts_.hasLauncher) addDetail("State", state);
    if (!facts_.hasLauncher && !facts_.orphans.empty()) {
      addDetail("Process", std::to_string(facts_.orphans.front()));
    }
    if (view_.run.state) addRun(*view_.run.state);
    if (exit_) addExit();
    if (facts_.action) addDetail("Last action", actionClause(facts_, ""));
    if (view_.restarts > 0) addDetail("Restarts", countOfRestarts());
    if (!facts_.logError.empty()) addDetail("Log", facts_.logError);
  }

  void addRun(const RunState& run) {
    addDetail("Phase", run.phase + " since " + formatTime(run.phaseSince));
    addDetail("Status", run.status);
    if (run.lastProbe) {
      addDetail("Last check", (run.lastProbe->isOk ? "passed" : "failed") +
                                  failedProbe(": ") + ", at " +
                                  formatTime(run.lastProbe->time));
    }
    if (run.droppedBytes > 0) {
      addDetail("Lost output",
                formatBytes(run.droppedBytes) + " that reached no log");
    }
  }

  void addExit() {
    std::string text = exitText(*exit_) + ", " + agoText(facts_, exit_->timeUs);
    if (exit_->pid != 0) text += ", pid " + std::to_string(exit_->pid);
    if (exit_->runUs >= 0) {
      text += ", after " + formatSpan(exit_->runUs / kSecondUs);
    }
    addDetail("Last exit", text);
    if (!exit_->isCoreDumped()) return;
    const bool is_stored =
        facts_.coreHandler.find("systemd-coredump") != std::string::npos;
    addDetail("Core dump",
              is_stored ? "coredumpctl info " + std::to_string(exit_->pid)
                        : "the kernel has written it to '" +
                              facts_.coreHandler + "', see core(5)");
  }

  const NodeFacts& facts_;
  const NodeView& view_;
  const std::optional<HistoryEvent> exit_;
  NodeVerdict verdict_;
};

}  // namespace

NodeVerdict judge(const NodeFacts& facts) { return Judge(facts).verdict(); }

}  // namespace vorn::launch
