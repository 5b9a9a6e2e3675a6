#pragma once

#include <sys/types.h>

#include <cstdint>
#include <string>
#include <vector>

// The Unix sockets of a launcher and of its clients, as the kernel's socket
// diagnosis (sock_diag(7)) and /proc show them.

namespace vorn::launch {

/// A socket that has the name of the control socket: one on which a launcher
/// listens, or the launcher's end of a connection.
struct ControlSocket {
  uint32_t inode = 0;
  bool isListening = false;
  uint32_t fileInode = 0;  // of the file at the socket's path; 0: unknown
  uint32_t peer = 0;       // inode of the client's end; 0: none
};

/// The control sockets in the network namespace of this process; empty if the
/// kernel does not provide the diagnosis.
std::vector<ControlSocket> controlSockets();

/// The inodes of the open sockets of a process; empty without the permission.
std::vector<uint32_t> socketsOf(pid_t pid);

/// The process with the lowest pid that has one of these sockets open; 0 if
/// there is none, or without the permission.
pid_t ownerOf(const std::vector<uint32_t>& inodes);

}  // namespace vorn::launch
