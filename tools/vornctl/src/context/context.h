#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "context/exit_status.h"
#include "control_client.h"
#include "live/launcher_process.h"

namespace vorn::launch {

/// What holds for every command: where the launcher is and how to speak to the
/// person or script that has called.
struct Settings {
  std::string socketPath;  // empty: the launcher's own
  std::string launchFile;  // empty: the running launcher's
  bool trustAnyUser = false;
  std::optional<std::chrono::milliseconds> connectLimit;
  std::optional<std::chrono::milliseconds> replyLimit;
  bool isQuiet = false;
  bool hasColours = false;     // on standard output
  size_t terminalWidth = 0;    // of standard output; 0: not a terminal
  bool isInteractive = false;  // a person sits at standard input and error
  int cancelFd = -1;           // readable once a stop signal has come
};

/// One run of vornctl: its connection to a launcher, and its words on standard
/// error.
class Context {
 public:
  explicit Context(Settings settings) : settings_(std::move(settings)) {}

  const Settings& settings() const { return settings_; }

  /// A client for commands that may last `reply_limit`, unless the settings say
  /// otherwise. While it waits on a terminal, a line with `activity` and the
  /// elapsed time is shown; none if that is empty.
  ControlClient client(std::chrono::milliseconds reply_limit,
                       const std::string& activity = "") const;

  /// Asks the launcher for a node that it hardly has, which changes nothing.
  /// Tells on standard error what is wrong, and returns the exit status; kDone
  /// if there is a launcher.
  ExitStatus findLauncher();

  /// Sends a status request for `name` before a request that changes something.
  /// If the outcome is UNKNOWN or NOT_SENT, the message contains the reason and
  /// that nothing was changed.
  StatusReply statusBefore(const ControlOptions& options,
                           const std::string& name) const;

  /// After findLauncher(): its nodes by its launch file. Null if they cannot be
  /// known; `error` then tells why. If the file was changed after the launcher
  /// started, says so, once.
  const LauncherProcess* launcher(std::string& error);

  /// The launcher without its nodes, for when those are not known.
  LauncherProcess launcherWithoutFile() const;

  /// Whether a stop signal has arrived.
  bool isCancelled() const;

  /// Writes "vornctl: TEXT" to standard error.
  void printError(const std::string& text) const;

  /// Removes the line that a waiting client has shown.
  void clearActivity() const;

  /// As printError(), for what became of a request about a node; NOT_FOUND
  /// suggests the nearest name in `file`.
  void printRequestError(const std::string& name, const ControlReply& reply,
                         const LaunchFile& file) const;

 private:
  void showActivity(const std::string& activity,
                    std::chrono::milliseconds elapsed) const;

  Settings settings_;
  pid_t pid_ = 0;
  std::optional<LauncherProcess> launcher_;
  mutable bool is_activity_shown_ = false;
};

}  // namespace vorn::launch
