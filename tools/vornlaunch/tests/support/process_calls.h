#pragma once

#include <signal.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "support/system_calls.h"

namespace vorn::test {

using Calls = std::vector<std::string>;

/// Fakes the calls with which a node controls processes, and records them in
/// their order: no process is created or signalled, no time passes. By default
/// every file exists, every fork succeeds and every signalled child is a zombie
/// at the first check.
class ProcessCalls {
 public:
  /// The output of a command; none if it cannot be started.
  using Answer = std::optional<std::string>;

  ProcessCalls() {
    systemCalls().stat = [this](const char* path, struct stat*) {
      record(std::string("stat ") + path);
      return file_missing ? failWith(ENOENT) : 0;
    };
    systemCalls().usleep = [this](useconds_t time) {
      record("usleep " + std::to_string(time));
      return 0;
    };
    systemCalls().fork = [this] {
      record("fork");
      return fork_fails ? failWith(EAGAIN) : next_pid++;
    };
    systemCalls().kill = [this](pid_t pid, int signal) {
      record("kill " + std::to_string(pid) + ' ' + ::sigabbrev_np(signal));
      if (signal == SIGTERM) pass_ = 0;
      const int error = kill_error(pid, signal);
      return error == 0 ? 0 : failWith(error);
    };
    systemCalls().popen = [this](const char* command, const char* mode) {
      return open(command, mode);
    };
    systemCalls().pclose = [this](FILE* stream) {
      record(streams_.erase(stream) == 1 ? "pclose" : "pclose of no stream");
      return std::fclose(stream);
    };
  }
  ~ProcessCalls() { systemCalls() = {}; }
  ProcessCalls(const ProcessCalls&) = delete;
  ProcessCalls& operator=(const ProcessCalls&) = delete;

  /// Every call so far: "stat FILE", "usleep MICROSECONDS", "fork",
  /// "kill PID TERM", "popen MODE COMMAND", "pclose".
  const Calls& calls() const { return calls_; }

  /// The number of times `call` was made.
  size_t count(const std::string& call) const {
    size_t number = 0;
    for (const std::string& made : calls_) number += made == call ? 1 : 0;
    return number;
  }

  bool file_missing = false;
  bool fork_fails = false;
  pid_t next_pid = 5001;  // the next fork's result
  /// The error of a kill(pid, signal), 0 for none.
  std::function<int(pid_t, int)> kill_error = [](pid_t, int) { return 0; };
  /// The answers to the zombie check and the presence check of a pass; passes
  /// count from 1 after each SIGTERM.
  std::function<Answer(int)> zombie = [](int) { return "1\n"; };
  std::function<Answer(int)> presence = [](int) { return "1\n"; };
  /// Runs inside each call, after it was written down.
  std::function<void(const std::string&)> on_call;

 private:
  void record(const std::string& call) {
    calls_.push_back(call);
    if (on_call) on_call(call);
  }

  FILE* open(const std::string& command, const char* mode) {
    const bool is_zombie_check = command.find("[zZ]") != std::string::npos;
    if (is_zombie_check) ++pass_;
    record(std::string("popen ") + mode + ' ' + command);
    const Answer answer = is_zombie_check ? zombie(pass_) : presence(pass_);
    if (!answer) return nullptr;
    FILE* const stream = ::fmemopen(nullptr, answer->size() + 1, "w+");
    (void)std::fputs(answer->c_str(), stream);
    std::rewind(stream);
    streams_.insert(stream);
    return stream;
  }

  Calls calls_;
  std::set<FILE*> streams_;  // the open ones
  int pass_ = 0;
};

inline std::string zombieCheckCall(pid_t pid) {
  return "popen r ps -A -o stat,pid| grep  '^[zZ]' | grep -c \"" +
         std::to_string(pid) + '"';
}

inline std::string presenceCheckCall(pid_t pid) {
  return "popen r ps -A -o stat,pid | grep -c \"" + std::to_string(pid) + '"';
}

/// A stop whose child is a zombie at the first check.
inline Calls stopCalls(pid_t pid) {
  const std::string number = std::to_string(pid);
  return {"kill " + number + " TERM", zombieCheckCall(pid), "pclose",
          "kill " + number + " KILL"};
}

/// `parts` one after the other.
inline Calls sequence(const std::vector<Calls>& parts) {
  Calls all;
  for (const Calls& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

}  // namespace vorn::test
