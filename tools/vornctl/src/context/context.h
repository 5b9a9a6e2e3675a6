#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <vector>

#include "context/exit_status.h"
#include "control_client.h"
#include "live/launcher_process.h"
#include "live/process_table.h"
#include "output/journal_prefix.h"

namespace vorn::launch {

/// The settings of every command: the launcher, and the form of the output.
struct Settings {
  std::string socketPath;  // empty: the launcher's own
  std::string launchFile;  // empty: the running launcher's
  std::string logFile;     // empty: where the launcher writes its log
  bool trustAnyUser = false;
  std::optional<std::chrono::milliseconds> connectLimit;
  std::optional<std::chrono::milliseconds> replyLimit;
  bool isQuiet = false;
  bool hasColours = false;     // on standard output
  size_t terminalWidth = 0;    // of standard output; 0: not a terminal
  bool isInteractive = false;  // standard input and error are a terminal
  int cancelFd = -1;           // readable once a stop signal has arrived
};

/// One run of vornctl: its launcher, and its messages on standard error.
class Context {
 public:
  explicit Context(Settings settings) : settings_(std::move(settings)) {}

  const Settings& settings() const { return settings_; }

  /// A client with `reply_limit` for each reply, unless the settings have
  /// another limit. While it waits, it shows a line with `activity` and the
  /// elapsed time on a terminal, if `activity` is not empty.
  ControlClient client(std::chrono::milliseconds reply_limit,
                       const std::string& activity = "") const;

  /// Checks that a launcher answers a status request, for a node that probably
  /// does not exist. Prints an error if it does not, and returns an exit status
  /// other than kDone.
  ExitStatus findLauncher();

  /// As findLauncher(), but searches for the process that listens on the
  /// socket, which may be unable to answer. Sends a request only if /proc does
  /// not show it, or if it belongs to an untrusted user.
  ExitStatus findLauncherProcess();

  /// Sends a status request for `name` before a request that changes something.
  /// If the outcome is UNKNOWN or NOT_SENT, the message contains the reason and
  /// that nothing was changed.
  StatusReply statusBefore(const ControlOptions& options,
                           const std::string& name) const;

  /// After findLauncher(): the launcher with the nodes of its launch file. Null
  /// if they cannot be read; `error` is then the reason. The first call prints
  /// a warning if the file was changed after the launcher started.
  const LauncherProcess* launcher(std::string& error);

  /// The launcher without its nodes, if they cannot be read.
  LauncherProcess launcherWithoutFile() const;

  /// All processes of the machine. Nothing if none can be read, after an error
  /// message.
  std::optional<ProcessTable> readProcesses() const;

  /// Whether a stop signal has arrived.
  bool isCancelled() const;

  /// Asks on the terminal whether to do this, such as "stop all 3 nodes".
  /// Without a terminal, prints an error that mentions the option --yes.
  bool confirm(const std::string& action) const;

  /// Prints a warning if processes of earlier launchers or runs of nodes exist,
  /// unless the settings have isQuiet. Reads all processes.
  void warnAboutOrphans() const;

  /// Write "vornctl: TEXT" to standard error.
  void printError(const std::string& text) const;
  void printWarning(const std::string& text) const;

  /// Removes the line that a waiting client has shown.
  void clearActivity() const;

  /// As printError(), for a failed request about a node. For NOT_FOUND, the
  /// message suggests the nearest name in `file`.
  void printRequestError(const std::string& name, const ControlReply& reply,
                         const LaunchFile& file) const;

 private:
  void printMessage(JournalLevel level, const std::string& text) const;
  void showActivity(const std::string& activity,
                    std::chrono::milliseconds elapsed) const;

  Settings settings_;
  pid_t pid_ = 0;
  std::optional<LauncherProcess> launcher_;
  mutable bool is_activity_shown_ = false;
};

}  // namespace vorn::launch
