#include "live/busy_launcher.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <vector>

#include "live/control_sockets.h"
#include "live/proc_file.h"

namespace vorn::launch {
namespace {

// A launcher that starts ps(1) during a stop is between two sleeps at times.
constexpr int kLooks = 20;
constexpr useconds_t kPauseUs = 10'000;

/// ", process 42 (nc)", the client of the connection that the launcher reads;
/// empty if that cannot be known.
std::string describeClient(pid_t launcher) {
  const std::vector<uint32_t> own = socketsOf(launcher);
  std::vector<uint32_t> clients;
  for (const ControlSocket& socket : controlSockets()) {
    if (std::find(own.begin(), own.end(), socket.inode) == own.end()) continue;
    if (socket.peer != 0) clients.push_back(socket.peer);
  }
  const pid_t client = ownerOf(clients);
  if (client == 0) return "";
  std::string name = readProcFile(procFile(client, "comm")).value_or("?\n");
  name.pop_back();
  return ", process " + std::to_string(client) + " (" + name + ')';
}

bool isIn(const std::string& kernel_function, const char* part) {
  return kernel_function.find(part) != std::string::npos;
}

/// What the kernel function says in which the launcher sleeps; empty if it runs
/// just now, or without the permission to look.
std::string reasonOf(pid_t pid) {
  const std::string place = readProcFile(procFile(pid, "wchan")).value_or("");
  if (isIn(place, "unix_stream")) {
    return " waits for the request of another client" + describeClient(pid);
  }
  if (isIn(place, "futex")) {
    return " is blocked forever, probably by a cycle of 'required', which "
           "'vornctl check' finds; restart it";
  }
  // A stop sleeps, and reads the output of ps(1) and waits for it.
  if (isIn(place, "nanosleep") || isIn(place, "pipe") ||
      isIn(place, "do_wait")) {
    return " is stopping a node, which takes up to 10 s, or waits for the "
           "'sleep' of a node";
  }
  return "";
}

}  // namespace

bool hasExited(pid_t pid) {
  if (pid == 0) return false;
  return processState(pid).value_or(' ') == 'Z' ||
         (::kill(pid, 0) != 0 && errno == ESRCH);
}

std::string explainSilence(pid_t pid) {
  const std::string name =
      pid == 0 ? "the launcher" : "launcher " + std::to_string(pid);
  const char state = processState(pid).value_or(' ');
  if (state == 'T' || state == 't') {
    return name + " is suspended (state " + state + "); 'kill -CONT " +
           std::to_string(pid) + "' resumes it";
  }
  for (int look = 0; look < kLooks; ++look) {
    const std::string reason = reasonOf(pid);
    if (!reason.empty()) return name + reason;
    (void)::usleep(kPauseUs);
  }
  return name +
         " may be stopping a node, which takes up to 10 s, or waiting for the "
         "'sleep' of a node or for another client";
}

}  // namespace vorn::launch
