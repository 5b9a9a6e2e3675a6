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

void Health::noteExecuted(int64_t now_ms) {
  state_.isExecuted = true;
  state_.executedMs = now_ms;
  state_.delayedUntil = 0;
  // A fast program is ready before the monitor runs.
  if (state_.isReady) return;
  setPhase(state_.expectsReadiness ? Phase::STARTING : Phase::RUNNING);
}

void Health::noteReady(int64_t now_ms) {
  if (!state_.expectsReadiness || state_.isReady || state_.isStopping) return;
  state_.isReady = true;
  state_.readyMs = now_ms;
  if (state_.phase != Phase::UNHEALTHY) setPhase(Phase::READY);
}

void Health::noteMessage(const NotifyMessage& message, int64_t now_ms) {
  if (message.hasStatus)
    copyPrintable(message.status, state_.status, sizeof(state_.status));
  if (message.isAlive) state_.watchdogLastMs = now_ms;
  if (message.isReady && settings_.ready &&
      settings_.ready->kind == Condition::Kind::NOTIFY)
    noteReady(now_ms);
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
      deadline = std::min(deadline, next_readiness_ms_);
  }
  if (probe_) {
    deadline = std::min(deadline, probe_->deadline());
    if (isWatched() && !probe_->isBusy())
      deadline = std::min(deadline, next_probe_ms_);
  }
  return deadline;
}

void Health::proceed(const PollSet& polls, int64_t now_ms) {
  if (readiness_) proceedReadiness(polls, now_ms);
  if (probe_) proceedProbe(polls, now_ms);
  if (now_ms >= watchdogDeadline())
    fail("--watchdog: no WATCHDOG=1 within " +
         durationText(state_.watchdogPeriodMs));
}

void Health::proceedReadiness(const PollSet& polls, int64_t now_ms) {
  const auto result = readiness_->proceed(polls, now_ms);
  if (result && result->isOk) noteReady(now_ms);
  if (!state_.isExecuted || state_.isReady || state_.isStopping ||
      readiness_->isBusy() || now_ms < next_readiness_ms_)
    return;
  next_readiness_ms_ = now_ms + kReadinessPauseMs;
  readiness_->begin(now_ms, settings_.probeTimeout.count());
}

void Health::proceedProbe(const PollSet& polls, int64_t now_ms) {
  const auto result = probe_->proceed(polls, now_ms);
  if (!isWatched()) return;
  if (result) noteProbe(*result);
  const int64_t first = watchedSinceMs() + settings_.probeDelay.count();
  next_probe_ms_ = std::max(next_probe_ms_, first);
  if (!isWatched() || probe_->isBusy() || now_ms < next_probe_ms_) return;
  next_probe_ms_ = now_ms + settings_.probePeriod.count();
  probe_->begin(now_ms, settings_.probeTimeout.count());
}

void Health::noteProbe(const CheckResult& result) {
  state_.hasProbeResult = true;
  state_.isProbeOk = result.isOk;
  state_.probeTime = unixSeconds();
  copyPrintable(result.message, state_.probeMessage,
                sizeof(state_.probeMessage));
  failed_probes_ = result.isOk ? 0 : failed_probes_ + 1;
  if (failed_probes_ >= settings_.probeFailures)
    fail("--probe: " + std::to_string(failed_probes_) +
         (failed_probes_ == 1 ? " failure" : " failures in a row") + ": " +
         state_.probeMessage);
}

void Health::stop() {
  if (readiness_) readiness_->stop();
  if (probe_) probe_->stop();
}

}  // namespace vorn::run
