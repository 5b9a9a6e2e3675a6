#include "commands/start_stop.h"

#include <signal.h>

#include <algorithm>
#include <optional>

#include "context/targets.h"
#include "launchfile/required_graph.h"
#include "live/action_log.h"
#include "live/node_commands.h"
#include "output/output.h"

namespace vorn::launch {
namespace {

using Cmd = ControlRequest::Cmd;
using std::chrono::milliseconds;

/// Whether to continue with the next node after this outcome.
bool mayGoOn(Outcome outcome) {
  return outcome == Outcome::DONE || outcome == Outcome::FAILED ||
         outcome == Outcome::NOT_FOUND || outcome == Outcome::INVALID_NAME;
}

class Action {
 public:
  Action(Context& context, const ActOptions& options)
      : context_(context), options_(options) {}

  ExitStatus run() {
    // Act on all nodes even if the reader of the output has exited.
    (void)::signal(SIGPIPE, SIG_IGN);
    targets_ = findTargets(context_, options_.nodes);
    // Only the status request was sent.
    if (targets_.status == kUnknown) return kTimedOut;
    if (targets_.status != kDone) return targets_.status;
    if (targets_.isFileKnown) graph_.emplace(targets_.launcher.file);
    names_ = targets_.names;
    if (options_.isAll && !mayActOnAll()) return kUsage;
    if (options_.cmd == Cmd::STOP || options_.cmd == Cmd::DISABLE) {
      std::reverse(names_.begin(), names_.end());
    }
    std::string command = wordsFor(options_.cmd).command;
    if (options_.isStartedToo) command += " --now";
    recorder_.emplace(command, options_.reason, targets_.launcher.pid);
    const ExitStatus status = actOnEach();
    const std::string error = recorder_->write();
    if (!error.empty() && !options_.reason.empty()) {
      context_.printError("the reason was not recorded: " + error);
    }
    return status;
  }

 private:
  bool mayActOnAll() const {
    const bool is_harmless =
        options_.cmd != Cmd::STOP && options_.cmd != Cmd::DISABLE;
    if (is_harmless || options_.isConfirmed) return true;
    return context_.confirm(std::string(wordsFor(options_.cmd).command) +
                            " all " + std::to_string(names_.size()) + " nodes");
  }

  ExitStatus actOnEach() {
    ExitStatus first_failure = kDone;
    for (size_t i = 0; i < names_.size(); ++i) {
      const Outcome outcome = actOn(names_[i], options_.cmd);
      if (outcome != Outcome::DONE && first_failure == kDone) {
        first_failure = exitStatusOf(outcome);
      }
      if (!mayGoOn(outcome)) {
        if (const size_t left = names_.size() - i - 1; left > 0) {
          context_.printError(std::to_string(left) +
                              " more nodes were not tried");
        }
        break;
      }
      if (options_.isStartedToo && outcome == Outcome::DONE) {
        const Outcome started = actOn(names_[i], Cmd::START);
        if (started != Outcome::DONE && first_failure == kDone) {
          first_failure = exitStatusOf(started);
        }
        if (!mayGoOn(started)) break;
      }
    }
    return first_failure;
  }

  milliseconds replyLimit(const std::string& name, Cmd cmd) const {
    return graph_ ? graph_->replyLimit(cmd, name) : ControlOptions().replyLimit;
  }

  void report(const std::string& name, Cmd cmd,
              const StatusReply& before) const {
    if (context_.settings().isQuiet) return;
    const bool is_started_next = cmd == Cmd::ENABLE && options_.isStartedToo;
    const std::string text =
        is_started_next ? wordsFor(cmd).done
                        : describeDone(cmd, targets_.launcher, name, before);
    Output out = standardOutput();
    out << terminalText(name + ": " + text) << "\n";
    out.flush();
  }

  Outcome actOn(const std::string& name, Cmd cmd) {
    const OperationWords words = wordsFor(cmd);
    ControlClient client = context_.client(
        replyLimit(name, cmd), std::string(words.doing) + ' ' + name);
    // Only the report of success needs the previous status.
    const bool needs_status =
        !context_.settings().isQuiet && cmd != Cmd::RESTART;
    const StatusReply before =
        needs_status ? context_.statusBefore(client.options(), name)
                     : StatusReply();
    // A launcher that does not answer the status request would not answer the
    // command either.
    if (needs_status && (before.outcome == Outcome::UNKNOWN ||
                         before.outcome == Outcome::NOT_SENT)) {
      context_.printRequestError(name, before, targets_.launcher.file);
      return Outcome::NOT_SENT;
    }
    const ControlReply reply = client.command(cmd, name);
    recorder_->add(name, reply.outcome);
    context_.clearActivity();
    if (reply.isDone()) {
      report(name, cmd, before);
    } else if (reply.outcome == Outcome::FAILED) {
      context_.printError(name + ": " + words.command + " failed: " +
                          explainFailure(client, targets_.launcher, name, cmd));
    } else {
      context_.printRequestError(name, reply, targets_.launcher.file);
    }
    return reply.outcome;
  }

  Context& context_;
  const ActOptions& options_;
  Targets targets_;
  std::optional<ActionRecorder> recorder_;
  std::optional<RequiredGraph> graph_;  // of the launch file if that is known
  std::vector<std::string> names_;  // in the order in which they are acted on
};

}  // namespace

ExitStatus act(Context& context, const ActOptions& options) {
  return Action(context, options).run();
}

}  // namespace vorn::launch
