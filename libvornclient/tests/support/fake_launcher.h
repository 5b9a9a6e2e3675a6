#pragma once

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "vorn/control_protocol.h"

namespace vorn::test {

/// A server in the launcher's place, for one connection after the other. It
/// listens from its construction to its destruction on a socket in a directory
/// of its own, in a thread of its own.
class FakeLauncher {
 public:
  /// Serves one accepted connection, which is closed when this returns.
  using Service = std::function<void(int connection)>;

  /// With `service` empty, no connection is accepted: connections stay in the
  /// queue, which takes `backlog` of them and one more.
  explicit FakeLauncher(Service service, int backlog = 5);
  ~FakeLauncher();
  FakeLauncher(const FakeLauncher&) = delete;
  FakeLauncher& operator=(const FakeLauncher&) = delete;

  const std::string& path() const { return path_; }

  /// Starts serving if it was constructed without a service.
  void serve(Service service);

  /// A service that reads a request and answers with these bytes.
  static Service replyWith(std::string bytes);

  /// The bytes of a reply.
  static std::string bytesOf(const vorn::launch::ControlResponse& response);

  /// All bytes of a connection up to its end.
  static std::string readToEnd(int connection);

 private:
  std::string folder_;
  std::string path_;
  int listening_fd_ = -1;
  int stop_fd_ = -1;
  std::thread thread_;
};

}  // namespace vorn::test
