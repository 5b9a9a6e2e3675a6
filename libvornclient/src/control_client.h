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

/// The outcome of a request.
enum class Outcome {
  DONE,            // the launcher carried out or answered the request
  FAILED,          // the launcher could not do it; its log contains the reason
  NOT_FOUND,       // the launcher has no node of that name
  INVALID_NAME,    // not a name that can be sent; nothing was sent
  NO_LAUNCHER,     // no process listens, or no permission; nothing was sent
  UNTRUSTED,       // the listener, or a symbolic link at the socket's path,
                   // belongs to another user; nothing was sent
  NOT_SENT,        // given up before the request was sent: it has no effect
  UNKNOWN,         // sent without a reply: it may have or may still take effect
  PROTOCOL_ERROR,  // sent, but the reply is invalid: as UNKNOWN
};

/// The result of a request.
struct ControlReply {
  Outcome outcome = Outcome::NOT_SENT;

  /// The error for users: one sentence without a full stop or line end, and
  /// without the name of the node. Empty when DONE, FAILED or NOT_FOUND.
  std::string message;

  /// The process and the user that called listen() on the socket, according to
  /// the kernel. The pid is 0 without a connection, or if the process is in a
  /// pid namespace that is not visible to this process.
  pid_t launcherPid = 0;
  uid_t launcherUid = 0;

  bool isDone() const { return outcome == Outcome::DONE; }
};

/// The result of status(). The fields are valid only when DONE.
struct StatusReply : ControlReply {
  NodeState state = NodeState::STOPPED;
  pid_t pid = 0;             // the node's process in the launcher's pid
                             // namespace; 0 without one
  int64_t startSeconds = 0;  // last start, since the Unix epoch; 0 if never
};

/// The settings of a ControlClient.
struct ControlOptions {
  /// The launcher's socket; at most 107 bytes.
  std::string socketPath =
      std::string(kControlDirectory) + "/" + kControlSocketName;

  /// The time limit for connecting. The launcher serves one request at a time,
  /// and few others fit into its queue; an earlier stop can last minutes.
  std::chrono::milliseconds connectLimit = std::chrono::seconds(30);

  /// The time limit for the reply after the request was sent. A stop lasts up
  /// to 10 s, and the same for each node that `required` restarts.
  std::chrono::milliseconds replyLimit = std::chrono::minutes(5);

  /// The time limit for the whole call if it is shorter; 0: none.
  std::chrono::milliseconds totalLimit{0};

  /// Whether to connect to a launcher of any user, and through a symbolic link
  /// of any user, instead of only those of root and of the calling user. Any
  /// user can create the directory of the socket before the launcher does.
  bool trustAnyUser = false;

  /// A borrowed descriptor, -1 for none. A call gives up as soon as it is
  /// readable, and sends nothing if it is readable from the start.
  int cancelFd = -1;

  /// Called about ten times per second while a call waits, with the time since
  /// the call started. Never called between connecting and sending.
  std::function<void(std::chrono::milliseconds)> onWait;
};

/// Sends requests to a launcher on this machine, each on a connection of its
/// own; no descriptor is open between calls. A call blocks up to the limits of
/// the options. Failures are outcomes; std::bad_alloc is the only exception.
/// Different objects can be used at the same time, one object cannot.
///
/// From connecting to sending, a few microseconds, every signal is blocked in
/// the calling thread: a client that is suspended at that point blocks the
/// launcher. SIGSTOP cannot be blocked, and in a program with several threads
/// the others still receive SIGTSTP; such a program has to block it.
class ControlClient {
 public:
  explicit ControlClient(ControlOptions options = {});

  /// Starts the node. DONE if it runs afterwards, also if it ran before. FAILED
  /// if it is disabled, its executable is missing, no process could be created,
  /// or this was the one start that `autostart: false` skips.
  ControlReply start(std::string_view name);

  /// Stops the node until it is started again. The running nodes that it
  /// requires are restarted.
  ControlReply stop(std::string_view name);

  /// Stops the node if it runs, and starts it.
  ControlReply restart(std::string_view name);

  /// Stops the node and refuses its starts from then on. FAILED is the result
  /// of the stop; the node is disabled in any case.
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
