#include "live/control_sockets.h"

#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <linux/sock_diag.h>
#include <linux/unix_diag.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>

#include "descriptor.h"
#include "live/proc_file.h"
#include "vorn/control_protocol.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

constexpr char kSocketLink[] = "socket:[";

/// The inode of the socket that this link in a process's fd directory names.
std::optional<uint32_t> socketInode(const std::string& link) {
  const auto target = readProcLink(link);
  if (!target || target->rfind(kSocketLink, 0) != 0) return std::nullopt;
  const char* const number = target->c_str() + sizeof(kSocketLink) - 1;
  return static_cast<uint32_t>(std::strtoul(number, nullptr, 10));
}

/// Requests the name, the file and the peer of every Unix socket.
bool requestAll(int diagnosis) {
  struct {
    nlmsghdr header;
    unix_diag_req request;
  } message{};
  message.header.nlmsg_len = sizeof(message);
  message.header.nlmsg_type = SOCK_DIAG_BY_FAMILY;
  message.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  message.request.sdiag_family = AF_UNIX;
  message.request.udiag_states = ~0U;
  message.request.udiag_show =
      UDIAG_SHOW_NAME | UDIAG_SHOW_VFS | UDIAG_SHOW_PEER;
  return ::send(diagnosis, &message, sizeof(message), 0) == sizeof(message);
}

template <typename T>
T payloadOf(const rtattr* attribute) {
  T payload{};
  std::memcpy(&payload, RTA_DATA(attribute),
              std::min(sizeof(payload), size_t{RTA_PAYLOAD(attribute)}));
  return payload;
}

/// The socket that this message describes, if it has the control socket's name.
std::optional<ControlSocket> parse(const nlmsghdr* header) {
  const auto* const description =
      static_cast<const unix_diag_msg*>(NLMSG_DATA(header));
  ControlSocket socket;
  socket.inode = description->udiag_ino;
  socket.isListening = description->udiag_state == TCP_LISTEN;
  std::string name;
  const auto* attribute = reinterpret_cast<const rtattr*>(description + 1);
  auto left =
      static_cast<unsigned>(NLMSG_PAYLOAD(header, sizeof(*description)));
  for (; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left)) {
    if (attribute->rta_type == UNIX_DIAG_NAME) {
      const auto* const text = static_cast<const char*>(RTA_DATA(attribute));
      // The terminating NUL belongs to the attribute.
      name.assign(text, ::strnlen(text, RTA_PAYLOAD(attribute)));
    } else if (attribute->rta_type == UNIX_DIAG_VFS) {
      socket.fileInode = payloadOf<unix_diag_vfs>(attribute).udiag_vfs_ino;
    } else if (attribute->rta_type == UNIX_DIAG_PEER) {
      socket.peer = payloadOf<uint32_t>(attribute);
    }
  }
  const std::string path =
      std::string(kControlDirectory) + '/' + kControlSocketName;
  return name == path ? std::optional(socket) : std::nullopt;
}

/// Adds the control sockets in the next part of the answer to `sockets`; false
/// after the last part.
bool receivePart(int diagnosis, std::vector<ControlSocket>& sockets) {
  alignas(nlmsghdr) char buffer[32 * 1024];
  const ssize_t got = ::recv(diagnosis, buffer, sizeof(buffer), 0);
  if (got <= 0) return false;
  auto left = static_cast<size_t>(got);
  const auto* header = reinterpret_cast<const nlmsghdr*>(buffer);
  for (; NLMSG_OK(header, left); header = NLMSG_NEXT(header, left)) {
    if (header->nlmsg_type != SOCK_DIAG_BY_FAMILY ||
        header->nlmsg_len < NLMSG_LENGTH(sizeof(unix_diag_msg))) {
      return false;
    }
    if (const auto socket = parse(header)) sockets.push_back(*socket);
  }
  return true;
}

}  // namespace

std::vector<ControlSocket> controlSockets() {
  std::vector<ControlSocket> sockets;
  const Descriptor diagnosis(
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_SOCK_DIAG));
  if (diagnosis.number() < 0 || !requestAll(diagnosis.number())) return sockets;
  while (receivePart(diagnosis.number(), sockets)) {
  }
  return sockets;
}

std::vector<uint32_t> socketsOf(pid_t pid) {
  std::vector<uint32_t> inodes;
  std::error_code error;
  fs::directory_iterator links(procFile(pid, "fd"), error);
  for (; !error && links != fs::directory_iterator(); links.increment(error)) {
    if (const auto inode = socketInode(links->path())) inodes.push_back(*inode);
  }
  return inodes;
}

pid_t ownerOf(const std::vector<uint32_t>& inodes) {
  std::error_code error;
  fs::directory_iterator processes("/proc", error);
  for (; !inodes.empty() && !error && processes != fs::directory_iterator();
       processes.increment(error)) {
    const std::string name = processes->path().filename();
    if (name.find_first_not_of("0123456789") != std::string::npos) continue;
    const auto pid = static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10));
    const std::vector<uint32_t> open = socketsOf(pid);
    if (std::find_first_of(open.begin(), open.end(), inodes.begin(),
                           inodes.end()) != open.end()) {
      return pid;
    }
  }
  return 0;
}

}  // namespace vorn::launch
