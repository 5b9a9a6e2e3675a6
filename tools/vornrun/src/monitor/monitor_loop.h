#pragma once

#include <optional>

#include "monitor/health.h"
#include "monitor/log_reader.h"
#include "monitor/monitor.h"
#include "monitor/shared_output.h"
#include "monitor/state_file.h"

namespace vorn::run {

/// The monitor's ends of its connections; -1: not connected.
struct MonitorDescriptors {
  int node = -1;    // pidfd
  int output = -1;  // what the node writes
  int error = -1;
  int notify = -1;
  int ready = -1;
  int phases = -1;
};

/// Which streams of the node are connected to the monitor.
struct LoggedStreams {
  bool isLogged = false;
  bool areSeparate = false;  // standard error is a stream of its own
};
LoggedStreams loggedStreams(const RunSettings& settings);

/// The work of the monitor: one loop, which waits for nothing but poll(2). All
/// buffers have a fixed size.
class MonitorLoop {
 public:
  /// The references must outlive this object. Descriptors 1 and 2 are the
  /// original output and error of the node.
  MonitorLoop(const RunSettings& settings, const MonitoredNode& node,
              const NodeIdentity& identity, const MonitorDescriptors& own,
              NodeState& state);

  /// Returns after the end of the node.
  void run();

 private:
  void addSinks(const RunSettings& settings);
  int64_t deadline() const;
  bool step();
  void readLog(LogReader& reader, int64_t now_ms);
  void noteHeldBytes();
  void readPhases(int64_t now_ms);
  void readNotifications(int64_t now_ms);
  void readReadiness(int64_t now_ms);
  void proceedHealth(const PollSet& polls, int64_t now_ms);
  void updateState(int64_t now_ms);
  void finish();
  void report(const std::string& text) const;

  const RunSettings& settings_;
  const NodeIdentity& identity_;
  MonitorDescriptors own_;
  NodeState& state_;
  SharedOutput standard_error_;
  LogSinks sinks_;
  uint64_t held_output_ = 0;
  uint64_t held_error_ = 0;
  LogReader readers_[2];
  Health health_;
  StateFile state_file_;
  std::string written_state_;
  bool has_news_ = true;
  int64_t next_state_ms_ = 0;
  bool has_reported_state_error_ = false;
};

}  // namespace vorn::run
