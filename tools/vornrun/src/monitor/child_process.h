#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

#include "monitor/monitor.h"

namespace vorn::run {

/// One child of the monitor: a probe or gzip(1). It is the leader of a session
/// of its own, and the kernel kills it with the monitor. kill() or isFinished()
/// must have ended it before the destruction.
class ChildProcess {
 public:
  struct Options {
    const MonitoredNode* node = nullptr;  // run as its user, in its environment
    std::string directory;                // empty: unchanged
    int output = -1;            // standard output and error; -1: /dev/null
    bool isBackground = false;  // lowest priority
    int deathSignal = 9;        // sent when the monitor exits
  };

  ChildProcess() = default;
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;
  ~ChildProcess();

  /// Searches the PATH of the child. Returns whether a child was created; an
  /// unusable program is reported by exit status 127.
  bool start(const std::vector<std::string>& arguments, const Options& options);

  bool isRunning() const { return pid_ > 0; }

  /// Readable after the end of the child; -1 if none is running.
  int descriptor() const { return pidfd_; }

  /// Collects the child if it has ended. Afterwards, waitStatus() is valid.
  bool isFinished();
  int waitStatus() const { return wait_status_; }

  /// Sends SIGKILL to the session; isFinished() collects the child.
  void kill() const;

 private:
  pid_t pid_ = 0;
  int pidfd_ = -1;
  int wait_status_ = 0;
};

}  // namespace vorn::run
