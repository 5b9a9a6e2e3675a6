#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "vorn/control_protocol.h"

// How a program controls a running launcher:
//
//   vorn::launch::ControlClient launcher;
//   const auto camera = launcher.status("camera");
//   if (!camera.isDone()) std::cerr << camera.message << '\n';
//   else if (camera.state == vorn::launch::NodeState::STOPPED)
//     launcher.start("camera");

namespace vorn::launch {

/// What became of a request.
enum class Outcome {
  DONE,            // the launcher did it, or answered
  FAILED,          // the launcher could not do it; its log says why
  NOT_FOUND,       // the launcher has no node of that name
  INVALID_NAME,    // not a name that can be sent; nothing was sent
  NO_LAUNCHER,     // no process listens, or no permission; nothing was sent
  UNTRUSTED,       // the listener, or a symbolic link at the socket's path,
                   // belongs to another user; nothing was sent
  NOT_SENT,        // given up before the request was sent: it has no effect
  UNKNOWN,         // sent, but no reply came: it may have, or still take effect
  PROTOCOL_ERROR,  // sent, but the reply makes no sense: as UNKNOWN
};

/// What every call returns.
struct ControlReply {
  Outcome outcome = Outcome::NOT_SENT;

  /// What went wrong, for people: one sentence without a full stop or line end,
  /// in which the node is not named. Empty when DONE, FAILED or NOT_FOUND.
  std::string message;

  /// Who listens on the socket, as the kernel says: the process and the user
  /// that called listen(). The pid is 0 if there is no connection, or if the
  /// process is in a pid namespace out of our sight.
  pid_t launcherPid = 0;
  uid_t launcherUid = 0;

  bool isDone() const { return outcome == Outcome::DONE; }
};

/// What status() returns. The fields hold data only when DONE.
struct StatusReply : ControlReply {
  NodeState state = NodeState::STOPPED;
  pid_t pid = 0;             // the node's process in the launcher's pid
                             // namespace; 0 without one
  int64_t startSeconds = 0;  // last start, since the Unix epoch; 0 if never
};

/// How a ControlClient goes about it.
struct ControlOptions {
  /// The launcher's socket; at most 107 bytes.
  std::string socketPath =
      std::string(kControlDirectory) + "/" + kControlSocketName;

  /// How long to try to connect. The launcher serves one request at a time, and
  /// few more can wait; a stop before ours may last minutes.
  std::chrono::milliseconds connectLimit = std::chrono::seconds(30);

  /// How long to wait for the reply after the request was sent. A stop lasts up
  /// to 10 s and more, and again for each node in the chain of `required`.
  std::chrono::milliseconds replyLimit = std::chrono::minutes(5);

  /// How long a call may last altogether, if that is shorter; 0: no limit.
  std::chrono::milliseconds totalLimit{0};

  /// Connect to a launcher of any user, and through a symbolic link of any
  /// user, not only of root and our own. Any user can create the directory of
  /// the socket before the launcher does.
  bool trustAnyUser = false;

  /// A descriptor, borrowed; a call gives up as soon as it is readable, and
  /// sends nothing if it is so from the beginning. -1: none.
  int cancelFd = -1;

  /// Called about ten times a second while a call waits, with the time since it
  /// began. Never between connecting and sending.
  std::function<void(std::chrono::milliseconds)> onWait;
};

/// Asks a launcher on this machine to do something, one connection a call; it
/// keeps nothing open between calls. Blocks up to both limits of the options.
/// Failures are outcomes; std::bad_alloc is the only exception. Calls on
/// different objects may run at the same time, calls on one may not.
///
/// From connecting to sending, a few microseconds, every signal is blocked in
/// the calling thread: a client that is stopped just there holds the launcher.
/// SIGSTOP cannot be blocked, and in a program with several threads the others
/// still take SIGTSTP; such a program blocks it itself.
class ControlClient {
 public:
  explicit ControlClient(ControlOptions options = {});

  /// Starts the node. DONE when it is running afterwards, as it may have been.
  /// FAILED if it is disabled, its executable is missing, no process could be
  /// made, or this was the one start that `autostart: false` skips.
  ControlReply start(std::string_view name);

  /// Stops the node; it stays down. The running nodes that it requires are
  /// restarted.
  ControlReply stop(std::string_view name);

  /// Stops the node if it runs, and starts it.
  ControlReply restart(std::string_view name);

  /// Stops the node and refuses its starts from then on. FAILED tells of the
  /// stop; the node is disabled all the same.
  ControlReply disable(std::string_view name);

  /// Allows starts again; starts nothing.
  ControlReply enable(std::string_view name);

  /// Reads the status of the node.
  StatusReply status(std::string_view name);

  /// Sends one of the commands above; the fields of a status are not returned.
  ControlReply command(ControlRequest::Cmd cmd, std::string_view name);

  const ControlOptions& options() const { return options_; }

 private:
  ControlOptions options_;
};

}  // namespace vorn::launch
