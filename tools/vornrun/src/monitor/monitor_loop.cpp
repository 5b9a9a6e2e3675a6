#include "monitor/monitor_loop.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

#include "monitor/journal_sink.h"
#include "monitor/log_directory.h"
#include "monitor/notify_socket.h"
#include "monitor/prefix_sink.h"
#include "monitor/process_handle.h"
#include "option_values.h"

namespace vorn::run {
namespace {

constexpr char kJournalSocket[] = "/run/systemd/journal/stdout";
constexpr int kPriorityInfo = 6;
constexpr int kPriorityNotice = 5;
constexpr int64_t kKillAfterMs = 10000;
constexpr int64_t kStatePauseMs = 1000;
constexpr int kMostReads = 16;  // before other descriptors have their turn

bool holdsPartialLines(const RunSettings& settings) {
  return loggedStreams(settings).areSeparate || settings.logPrefix ||
         settings.logJournal;
}

}  // namespace

LoggedStreams loggedStreams(const RunSettings& settings) {
  LoggedStreams streams;
  const bool has_lines = settings.logPrefix || settings.logJournal;
  streams.isLogged =
      has_lines || !settings.logDirectory.empty() || settings.pty;
  streams.areSeparate = has_lines && !settings.pty;
  return streams;
}

MonitorLoop::MonitorLoop(const RunSettings& settings, const MonitoredNode& node,
                         const NodeIdentity& identity,
                         const MonitorDescriptors& own, NodeState& state)
    : settings_(settings),
      identity_(identity),
      own_(own),
      state_(state),
      standard_error_(STDERR_FILENO),
      readers_{
          {Stream::OUTPUT, own.output, holdsPartialLines(settings),
           held_output_},
          {Stream::ERROR, own.error, holdsPartialLines(settings), held_error_}},
      health_(settings, node, state),
      state_file_(settings.stateDirectory, node.name, state.fileInode) {
  if (state_.monitorStarts > 1) {
    state_.droppedBytes += state_.heldBytes;
    report("the monitor was killed and is running again");
  }
  addSinks(settings);
}

void MonitorLoop::addSinks(const RunSettings& settings) {
  const std::string& name = identity_.name;
  uint64_t& dropped = state_.droppedBytes;
  const bool has_error = loggedStreams(settings).areSeparate;
  if (!settings.logDirectory.empty())
    sinks_.push_back(std::make_unique<LogDirectory>(
        LogDirectorySettings{settings.logDirectory, settings.logSize,
                             settings.logTotal, settings.logKeep,
                             settings.logCompress},
        dropped));
  if (settings.logJournal) {
    sinks_.push_back(std::make_unique<JournalSink>(
        Stream::OUTPUT, kJournalSocket, name, kPriorityInfo, dropped));
    if (has_error)
      sinks_.push_back(std::make_unique<JournalSink>(
          Stream::ERROR, kJournalSocket, name, kPriorityNotice, dropped));
  }
  // A terminal without a log replaces the original output.
  const bool is_plain_terminal = settings.pty && sinks_.empty();
  if (settings.logPrefix || is_plain_terminal)
    sinks_.push_back(std::make_unique<PrefixSink>(
        Stream::OUTPUT, STDOUT_FILENO,
        settings.logPrefix ? name + " stdout: " : "", dropped));
  if (settings.logPrefix && has_error)
    sinks_.push_back(std::make_unique<PrefixSink>(Stream::ERROR, STDERR_FILENO,
                                                  name + " stderr: ", dropped));
}

void MonitorLoop::report(const std::string& text) const {
  (void)standard_error_.write("vornrun: " + identity_.name + ": " + text +
                              "\n");
}

void MonitorLoop::run() {
  updateState(monotonicMs());
  while (step()) {
  }
  finish();
}

int64_t MonitorLoop::deadline() const {
  int64_t deadline = health_.deadline();
  for (const LogReader& reader : readers_)
    deadline = std::min(deadline, reader.deadline());
  for (const auto& sink : sinks_)
    deadline = std::min(deadline, sink->deadline());
  if (has_news_) deadline = std::min(deadline, next_state_ms_);
  if (state_.killAtMs > 0) deadline = std::min(deadline, state_.killAtMs);
  return deadline;
}

/// One turn; returns whether the node still runs.
bool MonitorLoop::step() {
  PollSet polls;
  polls.add(own_.node, POLLIN);
  polls.add(own_.phases, POLLIN);
  polls.add(own_.notify, POLLIN);
  polls.add(own_.ready, POLLIN);
  for (const LogReader& reader : readers_)
    polls.add(reader.descriptor(), POLLIN);
  for (const auto& sink : sinks_) sink->addPolls(polls);
  health_.addPolls(polls);

  const int64_t end = deadline();
  const int64_t before = monotonicMs();
  constexpr int64_t kLongestMs = 3'600'000;
  polls.wait(end == kNever ? -1
                           : static_cast<int>(std::clamp<int64_t>(
                                 end - before, 0, kLongestMs)));
  const int64_t now = monotonicMs();
  const Phase phase = state_.phase;

  // Before the watchdog: a monitor that was stopped for a while must see the
  // messages that have arrived.
  if (polls.hasEvent(own_.phases)) readPhases(now);
  if (polls.hasEvent(own_.notify)) readNotifications(now);
  if (polls.hasEvent(own_.ready)) readReadiness(now);
  for (LogReader& reader : readers_) {
    if (polls.hasEvent(reader.descriptor())) readLog(reader, now);
    reader.flushPartialLine(sinks_, now);
  }
  for (const auto& sink : sinks_) sink->proceed(polls, now);
  noteHeldBytes();
  proceedHealth(polls, now);
  if (state_.phase != phase) next_state_ms_ = 0;
  updateState(now);
  return !polls.hasEvent(own_.node);
}

void MonitorLoop::readLog(LogReader& reader, int64_t now_ms) {
  for (int i = 0; i < kMostReads && reader.read(sinks_, now_ms, SIZE_MAX) > 0;
       ++i)
    noteHeldBytes();
}

void MonitorLoop::noteHeldBytes() {
  uint64_t held = held_output_ + held_error_;
  for (const auto& sink : sinks_) held += sink->heldBytes();
  state_.heldBytes = held;
}

void MonitorLoop::readPhases(int64_t now_ms) {
  PhaseMessage message;
  constexpr auto kSize = static_cast<ssize_t>(sizeof(message));
  const auto next = [&] {
    return ::read(own_.phases, &message, sizeof(message));
  };
  ssize_t size = next();
  for (; size == kSize; size = next()) {
    state_.phase = message.phase;
    state_.phaseSince = unixSeconds();
    state_.restarts = message.restarts;
    state_.delayedUntil = message.delayedUntil;
    copyPrintable(message.phase == Phase::WAITING
                      ? conditionText(settings_.waitFor.at(message.condition))
                      : "",
                  state_.status, sizeof(state_.status));
  }
  if (size < 0) return;
  own_.phases = -1;  // closed by exec, or by the end without it
  if (state_.phase == Phase::GAVE_UP) return;
  if (!state_.isExecuted) health_.noteExecuted(now_ms);
}

void MonitorLoop::readNotifications(int64_t now_ms) {
  constexpr int kMostMessages = 64;
  for (int i = 0; i < kMostMessages; ++i) {
    const auto datagram = receiveNotifyDatagram(own_.notify);
    if (!datagram) return;
    // The descriptor that came with it is closed, which was the answer; the
    // sender may have exited since.
    if (datagram->text == "BARRIER=1") continue;
    if (datagram->isCut || !isDescendantOf(datagram->sender, identity_.pid)) {
      ++state_.ignoredMessages;
      continue;
    }
    health_.noteMessage(parseNotifyMessage(datagram->text), now_ms);
  }
}

void MonitorLoop::readReadiness(int64_t now_ms) {
  char text[64];
  const ssize_t size = ::read(own_.ready, text, sizeof(text));
  if (size < 0) return;
  if (size == 0 || std::memchr(text, '\n', static_cast<size_t>(size))) {
    if (size > 0) health_.noteReady(now_ms);
    own_.ready = -1;
  }
}

void MonitorLoop::proceedHealth(const PollSet& polls, int64_t now_ms) {
  health_.proceed(polls, now_ms);
  if (const auto failure = health_.takeFailure()) {
    const int number =
        settings_.watchdogSignal != 0 ? settings_.watchdogSignal : SIGTERM;
    report(*failure + ": sending SIG" + ::sigabbrev_np(number));
    (void)signalProcess(own_.node, number);  // it may have ended
    state_.killAtMs = now_ms + kKillAfterMs;
  }
  if (state_.killAtMs > 0 && now_ms >= state_.killAtMs) {
    state_.killAtMs = 0;
    report("still running after " + durationText(kKillAfterMs) +
           ": sending SIGKILL");
    (void)signalProcess(own_.node, SIGKILL);
  }
}

/// Phases are written at once, counters at most once per second.
void MonitorLoop::updateState(int64_t now_ms) {
  if (now_ms < next_state_ms_) {
    has_news_ = true;
    return;
  }
  has_news_ = false;
  next_state_ms_ = now_ms + kStatePauseMs;
  std::string text = stateText(state_, identity_);
  if (text == written_state_) return;
  const std::string reason = state_file_.write(text);
  if (reason.empty()) {
    written_state_ = std::move(text);
  } else if (!has_reported_state_error_) {
    has_reported_state_error_ = true;
    report("--state-dir: " + reason);
  }
}

void MonitorLoop::finish() {
  // More than a pipe holds; descendants of the node may write forever.
  constexpr size_t kMostBytes = size_t{1} << 20;
  const int64_t now = monotonicMs();
  for (LogReader& reader : readers_) {
    size_t total = 0;
    while (total < kMostBytes && reader.descriptor() >= 0) {
      const size_t size = reader.read(sinks_, now, kMostBytes - total);
      if (size == 0) break;
      total += size;
    }
    reader.flushPartialLine(sinks_, kNever);
  }
  for (const auto& sink : sinks_) sink->finish();
  health_.stop();
  // vornctl reads the file until the next start.
  if (state_.phase != Phase::GAVE_UP) state_file_.remove();
}

}  // namespace vorn::run
