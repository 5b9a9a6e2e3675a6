#pragma once

#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <string>

namespace vorn::test {

/// Moves this process permanently into a mount namespace of its own with an
/// empty /tmp, so that only the test uses the launcher's fixed paths there.
/// Without privileges, uses a user namespace. Returns the empty text, or a
/// sentence with the reason for the refusal.
inline std::string enterPrivateTmp() {
  const auto refusal = [](const std::string& call) {
    return "A private /tmp needs " + call + ": " + std::strerror(errno) + '.';
  };
  const std::string uid_map = "0 " + std::to_string(::geteuid()) + " 1";
  const std::string gid_map = "0 " + std::to_string(::getegid()) + " 1";
  if (::unshare(CLONE_NEWNS) == -1) {
    if (::unshare(CLONE_NEWUSER | CLONE_NEWNS) == -1) {
      return refusal("a mount namespace");
    }
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << uid_map;
    std::ofstream("/proc/self/gid_map") << gid_map;
  }
  // Mounts must not propagate to the original namespace.
  if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == -1) {
    return refusal("private mount points");
  }
  if (::mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") == -1) {
    return refusal("a tmpfs on /tmp");
  }
  return "";
}

}  // namespace vorn::test
