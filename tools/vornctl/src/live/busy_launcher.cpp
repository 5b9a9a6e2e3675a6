#include "live/busy_launcher.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <vector>

#include "live/proc_file.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

// A launcher that starts ps(1) during a stop is between two sleeps at times.
constexpr int kLooks = 20;
constexpr useconds_t kPauseUs = 10'000;
constexpr char kSocketLink[] = "socket:[";

/// The inode of the socket that this link in a process's fd directory names.
std::optional<uint32_t> socketInode(const std::string& link) {
  const auto target = readProcLink(link);
  if (!target || target->rfind(kSocketLink, 0) != 0) return std::nullopt;
  const char* const number = target->c_str() + sizeof(kSocketLink) - 1;
  return static_cast<uint32_t>(std::strtoul(number, nullptr, 10));
}

/// The inodes of the sockets of a process; none without the permission.
std::vector<uint32_t> socketsOf(const std::string& pid) {
  std::vector<uint32_t> inodes;
  std::error_code error;
  fs::directory_iterator links("/proc/" + pid + "/fd", error);
  for (; !error && links != fs::directory_iterator(); links.increment(error)) {
    if (const auto inode = socketInode(links->path())) inodes.push_back(*inode);
  }
  return inodes;
}

/// The inode at the other end of a Unix socket, which only the kernel's socket
/// diagnosis knows.
std::optional<uint32_t> peerOf(int diagnosis, uint32_t inode) {
  struct {
    nlmsghdr header;
    unix_diag_req request;
  } question{};
  question.header.nlmsg_len = sizeof(question);
  question.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  question.header.nlmsg_flags = NLM_F_REQUEST;
  question.request.sdiag_family = AF_UNIX;
  question.request.udiag_states = ~0U;
  question.request.udiag_ino = inode;
  question.request.udiag_show = UDIAG_SHOW_PEER;
  question.request.udiag_cookie[0] = ~0U;
  question.request.udiag_cookie[1] = ~0U;
  if (::send(diagnosis, &question, sizeof(question), 0) < 0) {
    return std::nullopt;
  }
  alignas(nlmsghdr) char buffer[1024];
  const ssize_t got = ::recv(diagnosis, buffer, sizeof(buffer), 0);
  const auto* const header = reinterpret_cast<const nlmsghdr*>(buffer);
  if (got < static_cast<ssize_t>(NLMSG_LENGTH(sizeof(unix_diag_msg))) ||
      header->nlmsg_type != SOCK_DIAG_BY_FAMILY) {
    return std::nullopt;
  }
  const size_t begin = NLMSG_LENGTH(sizeof(unix_diag_msg));
  const auto* attribute = reinterpret_cast<const rtattr*>(buffer + begin);
  auto left = static_cast<unsigned>(got) - static_cast<unsigned>(begin);
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    if (attribute->rta_type != UNIX_DIAG_PEER) continue;
    uint32_t peer = 0;
    std::memcpy(&peer, RTA_DATA(attribute), sizeof(peer));
    return peer;
  }
  return std::nullopt;
}

/// The inodes of the sockets to which those of the launcher are connected.
std::vector<uint32_t> peersOf(pid_t launcher) {
  std::vector<uint32_t> peers;
  const int diagnosis =
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG);
  if (diagnosis < 0) return peers;
  for (const uint32_t inode : socketsOf(std::to_string(launcher))) {
    if (const auto peer = peerOf(diagnosis, inode)) peers.push_back(*peer);
  }
  (void)::close(diagnosis);
  return peers;
}

/// ", process 42 (nc)", which holds the connection that the launcher reads;
/// empty if that cannot be known.
std::string holderOf(pid_t launcher) {
  const std::vector<uint32_t> peers = peersOf(launcher);
  std::error_code error;
  fs::directory_iterator processes("/proc", error);
  for (; !peers.empty() && !error && processes != fs::directory_iterator();
       processes.increment(error)) {
    const std::string pid = processes->path().filename();
    if (pid.find_first_not_of("0123456789") != std::string::npos) continue;
    for (const uint32_t inode : socketsOf(pid)) {
      if (std::find(peers.begin(), peers.end(), inode) == peers.end()) continue;
      std::string name = readProcFile("/proc/" + pid + "/comm").value_or("?\n");
      name.pop_back();
      return std::string(", process ").append(pid) + " (" + name + ')';
    }
  }
  return "";
}

bool isIn(const std::string& kernel_function, const char* part) {
  return kernel_function.find(part) != std::string::npos;
}

/// What the kernel function says in which the launcher sleeps; empty if it runs
/// just now, or without the permission to look.
std::string reasonOf(pid_t pid) {
  const std::string place = readProcFile(procFile(pid, "wchan")).value_or("");
  if (isIn(place, "unix_stream")) {
    return " waits for the request of another client" + holderOf(pid);
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
