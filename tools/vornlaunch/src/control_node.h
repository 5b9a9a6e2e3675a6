#pragma once

#include <functional>
#include <map>
#include <memory>

#include "vorn/control_protocol.h"
#include "vornlib/time.h"

namespace vorn::launch {

class Epoll;
class NodeManager;

/// The control socket: lets local clients act on the nodes, one connection at a
/// time, each served completely by one call of controlHandler(). Owns the
/// listening socket; the socket file outlives the process. Main thread only.
///
/// A client that connects and sends nothing blocks the whole launcher until it
/// sends a request or disconnects.
class ControlNode {
 public:
  /// The single instance, created on the first call, never destroyed. If the
  /// constructor throws, the next call tries again.
  static ControlNode& getInstance();

  /// Creates the socket's directory if it is missing; throws
  /// std::filesystem::filesystem_error if that fails. Opens no descriptor.
  ControlNode();
  ~ControlNode();
  ControlNode(const ControlNode&) = delete;
  ControlNode& operator=(const ControlNode&) = delete;

  /// Opens the control socket and registers it in `epoll`, which must be open;
  /// this object must outlive the last wait of `epoll`. Call it once. False,
  /// after one ERROR line, if that fails; then nothing has changed, except that
  /// the socket file can exist.
  bool init(Epoll* epoll);

  /// Creates the UNIX-domain socket `name` of `type` in the control directory,
  /// replacing an old one, with the permissions `mode`. Returns its descriptor,
  /// which the caller must close, or -1 after one ERROR line. It is blocking
  /// and not close-on-exec. A path of more than 107 bytes is truncated; a mode
  /// that cannot be set is one WARN line, but not a failure.
  int createSocket(const char* name, int type, unsigned int mode);

  /// Serves one pending connection: accept, one request, one reply, close.
  void controlHandler();

  // The six commands on the node `name`, which ends with a NUL. Never null. An
  // unknown name is NOT_FOUND, an operation that returned false is FAILED.

  std::shared_ptr<ControlResponse> nodeStart(const char* name);
  std::shared_ptr<ControlResponse> nodeStop(const char* name);
  std::shared_ptr<ControlResponse> nodeRestart(const char* name);
  std::shared_ptr<ControlResponse> nodeStatus(const char* name);
  std::shared_ptr<ControlResponse> nodeDisable(const char* name);
  std::shared_ptr<ControlResponse> nodeEnable(const char* name);

 private:
  using Command =
      std::function<std::shared_ptr<ControlResponse>(const char* name)>;

  int socket_fd_ = -1;         // listening; -1 until init() succeeds
  NodeManager* node_manager_;  // not owned
  std::map<ControlRequest::Cmd, Command> handlers_;  // filled by init()
};

}  // namespace vorn::launch
