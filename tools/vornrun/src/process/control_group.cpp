#include "process/control_group.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "file_text.h"
#include "state_file_name.h"

namespace vorn::run {
namespace {

RunError groupError(const std::string& reason) { return {"--cgroup", reason}; }

bool isDelegated(const std::string& directory) {
  // systemd sets the first one since version 251, the second one also before.
  for (const char* const name : {"user.delegate", "trusted.delegate"}) {
    char value = '0';
    if (::getxattr(directory.c_str(), name, &value, 1) == 1 && value == '1') {
      return true;
    }
  }
  return false;
}

/// The nearest delegated group at or above `path`; nothing if there is none.
std::optional<std::string> delegatedGroup(const std::string& mount,
                                          std::string path) {
  for (;;) {
    if (isDelegated(mount + path)) return path;
    const size_t slash = path.rfind('/');
    if (path.empty() || slash == std::string::npos) return std::nullopt;
    path.resize(slash);
  }
}

bool writeToFile(const std::string& path, const std::string& text) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
  if (fd < 0) return false;
  const bool is_written = ::write(fd, text.data(), text.size()) ==
                          static_cast<ssize_t>(text.size());
  const int error = errno;
  (void)::close(fd);
  errno = error;
  return is_written;
}

/// Kills all processes of the group and waits until they have exited. Returns
/// whether the group is empty.
bool emptyGroup(const std::string& directory) {
  constexpr int kPauseMs = 10;
  constexpr int kPauses = 500;
  for (int pause = 0; pause < kPauses; ++pause) {
    const FileText events = readFileText(directory + "/cgroup.events");
    if (!events.error.empty()) return false;
    if (events.text.find("populated 1") == std::string::npos) return true;
    // Kernels before 5.14 do not have the file; the processes then remain.
    if (!writeToFile(directory + "/cgroup.kill", "1")) return errno == ENOENT;
    (void)::poll(nullptr, 0, kPauseMs);
  }
  return false;
}

}  // namespace

std::string controlGroupMount(const std::string& mountinfo) {
  // A later mount can hide an earlier one.
  const size_t type = mountinfo.rfind(" - cgroup2 ");
  if (type == std::string::npos) return "";
  const size_t line = mountinfo.rfind('\n', type) + 1;  // 0 for the first line
  size_t field = line;  // of the mount point: the fifth
  for (int skipped = 0; skipped < 4; ++skipped) {
    field = mountinfo.find(' ', field) + 1;
  }
  return mountinfo.substr(field, mountinfo.find(' ', field) - field);
}

std::string controlGroupPath(const std::string& cgroup) {
  const std::string text = "\n" + cgroup;
  const size_t found = text.find("\n0::/");
  if (found == std::string::npos) return "";
  const size_t begin = found + 4;
  return text.substr(begin, text.find('\n', begin) - begin);
}

std::optional<RunError> enterControlGroup(const std::string& node) {
  const std::string mount =
      controlGroupMount(readFileText("/proc/self/mountinfo").text);
  const std::string own =
      controlGroupPath(readFileText("/proc/self/cgroup").text);
  if (mount.empty() || own.empty()) {
    return groupError("this machine has no cgroup v2 hierarchy");
  }
  const auto delegated = delegatedGroup(mount, own);
  if (!delegated) {
    return groupError("the control group " + own +
                      " is not delegated; set Delegate=yes in the unit");
  }
  const std::string directory =
      mount + *delegated + (*delegated == "/" ? "" : "/") + fileNameOf(node);
  if (directory == mount + own) {
    return groupError("the node has the name of the launcher's group " + own);
  }
  constexpr mode_t kMode = 0755;
  if (::mkdir(directory.c_str(), kMode) != 0 && errno != EEXIST) {
    return groupError("cannot create " + directory + ": " +
                      std::strerror(errno));
  }
  if (!emptyGroup(directory)) {
    return groupError("processes of an earlier run may still be in " +
                      directory);
  }
  if (writeToFile(directory + "/cgroup.procs", "0")) return std::nullopt;
  return groupError("cannot enter " + directory + ": " + std::strerror(errno));
}

}  // namespace vorn::run
