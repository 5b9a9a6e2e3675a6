#include "live/busy_launcher.h"

#include <signal.h>
#include <sys/stat.h>
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
constexpr int kSamples = 20;
constexpr useconds_t kPauseUs = 10'000;

bool hasExited(pid_t pid) {
  return processState(pid).value_or(' ') == 'Z' ||
         (::kill(pid, 0) != 0 && errno == ESRCH);
}

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

BusyReason reasonOf(const std::string& kernel_function) {
  // Before the other functions of pipes. The second one is that of sockets.
  if (isIn(kernel_function, "pipe_write") ||
      isIn(kernel_function, "sock_alloc_send")) {
    return BusyReason::WRITING_LOG;
  }
  if (isIn(kernel_function, "unix_stream")) return BusyReason::READING_REQUEST;
  if (isIn(kernel_function, "futex")) return BusyReason::LOCKED;
  // A stop sleeps, and reads the output of ps(1) and waits for it.
  if (isIn(kernel_function, "nanosleep") || isIn(kernel_function, "pipe") ||
      isIn(kernel_function, "do_wait")) {
    return BusyReason::STOPPING_NODE;
  }
  return BusyReason::UNKNOWN;
}

std::vector<std::string> sampleKernelFunctions(pid_t pid) {
  std::vector<std::string> samples;
  for (int i = 0; i < kSamples; ++i) {
    if (i > 0) (void)::usleep(kPauseUs);
    samples.push_back(readProcFile(procFile(pid, "wchan")).value_or(""));
  }
  return samples;
}

/// The part of the sentence after "launcher 42 ".
std::string describe(BusyReason reason, pid_t pid) {
  switch (reason) {
    case BusyReason::READING_REQUEST:
      return "waits for the request of another client" + describeClient(pid);
    case BusyReason::WRITING_LOG:
      return "is blocked writing to its standard output or error: the process "
             "that reads it has stopped reading";
    case BusyReason::LOCKED:
      return "is blocked forever, probably by a cycle of 'required', which "
             "'vornctl check' finds; restart it";
    case BusyReason::STOPPING_NODE:
      return "is stopping a node, which takes up to 10 s, or waits for the "
             "'sleep' of a node";
    case BusyReason::UNKNOWN:
      break;
  }
  return "may be stopping a node, which takes up to 10 s, or waiting for the "
         "'sleep' of a node or for another client";
}

}  // namespace

BusyReason busyReason(const std::vector<std::string>& kernel_functions) {
  if (kernel_functions.empty()) return BusyReason::UNKNOWN;
  const BusyReason first = reasonOf(kernel_functions.front());
  bool is_constant = true;
  for (const std::string& kernel_function : kernel_functions) {
    const BusyReason reason = reasonOf(kernel_function);
    if (reason == BusyReason::READING_REQUEST ||
        reason == BusyReason::STOPPING_NODE) {
      return reason;
    }
    is_constant = is_constant && reason == first;
  }
  return is_constant ? first : BusyReason::UNKNOWN;
}

pid_t findListener(const std::string& socket_path) {
  struct stat status {};
  if (::stat(socket_path.c_str(), &status) != 0) return 0;
  std::vector<uint32_t> listeners;
  for (const ControlSocket& socket : controlSockets()) {
    // Launchers in several containers can use the same path.
    if (socket.isListening &&
        socket.fileInode == static_cast<uint32_t>(status.st_ino)) {
      listeners.push_back(socket.inode);
    }
  }
  return ownerOf(listeners);
}

bool exitsSoon(pid_t pid) {
  if (pid == 0) return false;
  for (int i = 0; !hasExited(pid); ++i) {
    if (i == kSamples) return false;
    ::usleep(kPauseUs);
  }
  return true;
}

std::string explainSilence(pid_t pid) {
  const std::string name =
      pid == 0 ? "the launcher" : "launcher " + std::to_string(pid);
  const char state = processState(pid).value_or(' ');
  if (state == 'T' || state == 't') {
    return name + " is suspended (state " + state + "); 'kill -CONT " +
           std::to_string(pid) + "' resumes it";
  }
  return name + ' ' + describe(busyReason(sampleKernelFunctions(pid)), pid);
}

}  // namespace vorn::launch
