#include "monitor/health.h"

#include <algorithm>

#include "monitor/clock.h"

namespace vorn::run {
namespace {

constexpr int64_t kReadinessPauseMs = 200;

bool isChecked(const Condition& condition) {
  return condition.kind != Condition::Kind::NOTIFY &&
         condition.kind != Condition::Kind::FD;
}

}  // namespace

Health::Health(const RunSettings& settings, const MonitoredNode& node,
               NodeState& state)
    : settings_(settings), state_(state) {
  state_.expectsReadiness = settings.ready.has_value();
  state_.watchdogPeriodMs = settings.watchdog.count();
  if (settings.ready && isChecked(*settings.ready))
    readiness_.emplace(*settings.ready, node, settings.directory);
  if (settings.probe) probe_.emplace(*settings.probe, node, settings.directory);
}

void Health::setPhase(Phase phase) {
  state_.phase = phase;
  state_.phaseSince = unixSeconds();
}

void Health::noteExecuted(int64_t nowMs) {
  state_.isExecuted = true;
  state_.executedMs = nowMs;
  state_.delayedUntil = 0;
  // A fast program is ready before the monitor runs.
  if (state_.isReady) return;
  setPhase(state_.expectsReadiness ? Phase::STARTING : Phase::RUNNING);
}

void Health::noteReady(int64_t nowMs) {
  if (!state_.expectsReadiness || state_.isReady || state_.isStopping) return;
  state_.isReady = true;
  state_.readyMs = nowMs;
  if (state_.phase != Phase::UNHEALTHY) setPhase(Phase::READY);
}

void Health::noteMessage(const NotifyMessage& message, int64_t nowMs) {
  if (message.hasStatus)
    copyPrintable(message.status, state_.status, sizeof(state_.status));
  if (message.isAlive) state_.watchdogLastMs = nowMs;
  if (message.isReady && settings_.ready &&
      settings_.ready->kind == Condition::Kind::NOTIFY)
    noteReady(nowMs);
  if (message.isStopping) {
    state_.isStopping = true;
    state_.isReady = false;
  }
  if (message.requestsAbort && isWatched() && state_.watchdogPeriodMs > 0)
    fail("--watchdog: WATCHDOG=trigger");
}

bool Health::isWatched() const {
  return state_.isExecuted && !state_.isStopping &&
         (!state_.expectsReadiness || state_.isReady) &&
         state_.phase != Phase::UNHEALTHY;
}

int64_t Health::watchedSinceMs() const {
  return state_.expectsReadiness ? state_.readyMs : state_.executedMs;
}

int64_t Health::watchdogDeadline() const {
  if (state_.watchdogPeriodMs == 0 || !isWatched()) return kNever;
  return std::max(state_.watchdogLastMs, watchedSinceMs()) +
         state_.watchdogPeriodMs;
}

void Health::fail(const std::string& reason) {
  setPhase(Phase::UNHEALTHY);
  failure_ = reason;
}

std::optional<std::string> Health::takeFailure() {
  std::optional<std::string> failure;
  failure.swap(failure_);
  return failure;
}

void Health::addPolls(PollSet& polls) const {
  if (readiness_) readiness_->addPolls(polls);
  if (probe_) probe_->addPolls(polls);
}

int64_t Health::deadline() const {
  int64_t deadline = watchdogDeadline();
  if (readiness_) {
    deadline = std::min(deadline, readiness_->deadline());
    if (state_.isExecuted && !state_.isReady && !state_.isStopping &&
        !readiness_->isBusy())
      deadline = std::min(deadline, nextReadinessMs_);
  }
  if (probe_) {
    deadline = std::min(deadline, probe_->deadline());
    if (isWatched() && !probe_->isBusy())
      deadline = std::min(deadline, nextProbeMs_);
  }
  return deadline;
}

void Health::proceed(const PollSet& polls, int64_t nowMs) {
  if (readiness_) proceedReadiness(polls, nowMs);
  if (probe_) proceedProbe(polls, nowMs);
  if (nowMs >= watchdogDeadline())
    fail("--watchdog: no WATCHDOG=1 within " +
         durationText(state_.watchdogPeriodMs));
}

void Health::proceedReadiness(const PollSet& polls, int64_t nowMs) {
  const auto result = readiness_->proceed(polls, nowMs);
  if (result && result->isOk) noteReady(nowMs);
  if (!state_.isExecuted || state_.isReady || state_.isStopping ||
      readiness_->isBusy() || nowMs < nextReadinessMs_)
    return;
  nextReadinessMs_ = nowMs + kReadinessPauseMs;
  readiness_->begin(nowMs, settings_.probeTimeout.count());
}

void Health::proceedProbe(const PollSet& polls, int64_t nowMs) {
  const auto result = probe_->proceed(polls, nowMs);
  if (!isWatched()) return;
  if (result) noteProbe(*result);
  const int64_t first = watchedSinceMs() + settings_.probeDelay.count();
  nextProbeMs_ = std::max(nextProbeMs_, first);
  if (!isWatched() || probe_->isBusy() || nowMs < nextProbeMs_) return;
  nextProbeMs_ = nowMs + settings_.probePeriod.count();
  probe_->begin(nowMs, settings_.probeTimeout.count());
}

void Health::noteProbe(const CheckResult& result) {
  state_.hasProbeResult = true;
  state_.isProbeOk = result.isOk;
  state_.probeTime = unixSeconds();
  copyPrintable(result.message, state_.probeMessage,
                sizeof(state_.probeMessage));
  failedProbes_ = result.isOk ? 0 : failedProbes_ + 1;
  if (failedProbes_ >= settings_.probeFailures)
    fail("--probe: " + std::to_string(failedProbes_) +
         (failedProbes_ == 1 ? " failure" : " failures in a row") + ": " +
         state_.probeMessage);
}

void Health::stop() {
  if (readiness_) readiness_->stop();
  if (probe_) probe_->stop();
}

}  // namespace vorn::run
