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
/// A client that connects and sends nothing holds the whole launcher until it
/// sends or goes.
class ControlNode {
 public:
  /// The single instance, created on the first call, never destroyed. A
  /// constructor that throws is tried again by the next call.
  static ControlNode& getInstance();

  /// Creates the socket's directory if it is missing; throws
  /// std::filesystem::filesystem_error when that fails. Opens nothing.
  ControlNode();
  ~ControlNode();
  ControlNode(const ControlNode&) = delete;
  ControlNode& operator=(const ControlNode&) = delete;

  /// Opens the control socket and registers it in `epoll`, which must be open;
  /// this object must outlive the last wait of `epoll`. To be called once.
  /// False, after one ERROR line, when that fails; everything is as before
  /// then, but the socket file may be left.
  bool init(Epoll* epoll);

  /// Creates the UNIX-domain socket `name` of `type` in the control directory,
  /// in place of an old one, with the permissions `mode`. Returns its
  /// descriptor, the caller's to close, or -1 after one ERROR line. It is
  /// blocking and not close-on-exec. A path beyond 107 bytes is cut; a mode
  /// that cannot be set is one WARN line and no failure.
  int createSocket(const char* name, int type, unsigned int mode);

  /// Serves one pending connection: accept, one request, one reply, close.
  void controlHandler();

  // The six commands on the node `name`, which ends with a NUL. Never null. A
  // name of no node is NOT_FOUND, an operation that returned false FAILED.

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
