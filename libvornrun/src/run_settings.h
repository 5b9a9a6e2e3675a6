#pragma once

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

// The settings with which vornrun executes the program of a node: plain values
// that do not depend on the machine.

namespace vorn::run {

using std::chrono::milliseconds;

/// A condition outside of the program, which vornrun waits for or checks.
struct Condition {
  enum class Kind {
    PATH,    // a file exists: its path
    TCP,     // a connection is accepted: HOST:PORT
    UNIX,    // a connection to a socket is accepted: its path
    EXEC,    // a shell command exits with 0: the command
    HTTP,    // a request succeeds: the whole URL, http:// or https://
    FILE,    // a file changes within the period of the probe: its path
    NOTIFY,  // the program sends READY=1: empty
    FD,      // the program writes a line end to this descriptor: its number
  };
  Kind kind = Kind::PATH;
  std::string value;
};

/// One resource limit of setrlimit(2).
struct Limit {
  int resource = 0;  // RLIMIT_*
  rlim_t soft = 0;
  rlim_t hard = 0;
};

/// A scheduling policy of sched_setscheduler(2).
struct Scheduling {
  int policy = 0;  // SCHED_*
  int priority = 0;
};

/// An I/O priority of ioprio_set(2).
struct IoPriority {
  int ioClass = 0;  // 1 realtime, 2 best-effort, 3 idle
  int level = 0;    // 0 (highest) to 7
};

/// The delays of quick restarts: `first`, then twice as long each time, up to
/// `longest`.
struct Backoff {
  milliseconds first{0};
  milliseconds longest{0};
};

/// The number of starts within a period that is a crash loop.
struct GiveUp {
  unsigned count = 0;
  milliseconds period{0};
};

/// One member per option. Empty texts and lists, absent optionals and zero
/// durations without another default leave the setting unchanged.
// The order is that of the topics.
// NOLINTNEXTLINE(clang-analyzer-optin.performance.Padding)
struct RunSettings {
  // Identity and surroundings.
  std::string user;   // name or number
  std::string group;  // name or number; empty: the user's own
  std::string directory;
  std::optional<mode_t> umask;
  std::vector<std::pair<std::string, std::string>> environment;
  std::vector<std::string> environmentFiles;  // "-" before one: may be missing
  bool clearEnvironment = false;
  std::vector<Limit> limits;
  std::optional<int> nice;
  std::optional<int> oomScoreAdjust;
  std::optional<Scheduling> scheduling;
  std::vector<int> cpus;
  std::optional<IoPriority> ioPriority;
  bool noNewPrivileges = false;
  bool closesDescriptors = true;
  int parentDeathSignal = 0;
  bool usesControlGroup = false;

  // Logs; sizes in bytes.
  bool logPrefix = false;
  bool logJournal = false;
  std::string logDirectory;
  uint64_t logSize = uint64_t{10} << 20;
  unsigned logKeep = 5;  // files besides the current one
  uint64_t logTotal = uint64_t{100} << 20;
  bool logCompress = false;
  bool pty = false;

  // Readiness and health.
  std::vector<Condition> waitFor;
  milliseconds waitTimeout{0};  // 0: none
  std::optional<Condition> ready;
  milliseconds watchdog{0};
  int watchdogSignal = 0;  // 0: SIGTERM, then SIGKILL
  std::optional<Condition> probe;
  milliseconds probePeriod = std::chrono::seconds(10);
  milliseconds probeTimeout = std::chrono::seconds(1);
  milliseconds probeDelay{0};
  unsigned probeFailures = 3;

  // Crash loops.
  std::optional<Backoff> backoff;
  milliseconds resetAfter = std::chrono::seconds(60);
  std::optional<GiveUp> giveUp;
  std::string stateDirectory = "/run/vornrun";

  // The program and its arguments.
  bool expandsVariables = false;
  std::vector<std::string> program;
};

}  // namespace vorn::run
