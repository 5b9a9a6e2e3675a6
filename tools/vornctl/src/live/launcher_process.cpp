#include "live/launcher_process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <sstream>

#include "descriptor.h"
#include "launchfile/parser.h"
#include "live/launcher_file.h"
#include "live/proc_file.h"
#include "live/process_table.h"

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

constexpr char kHowToName[] =
    "; name it with --launch-file or VORNCTL_LAUNCH_FILE";

/// The path prefix of the launcher's root directory, empty if it is ours.
/// Without the permission to examine it, it is assumed to be ours. A launcher
/// in another pid namespace is an exception, since a container has its own
/// files: nothing.
std::optional<std::string> rootAsWeReachIt(pid_t pid) {
  struct stat own {};
  struct stat its {};
  std::string root = procFile(pid, "root");
  // The slash at the end follows the link.
  if (::stat("/", &own) != 0 || ::stat((root + '/').c_str(), &its) != 0) {
    if (isInOurPidNamespace(pid)) return "";
    return std::nullopt;
  }
  const bool is_same = own.st_dev == its.st_dev && own.st_ino == its.st_ino;
  const auto namespace_of = [](const std::string& process) {
    return readProcLink("/proc/" + process + "/ns/mnt");
  };
  if (is_same && namespace_of("self") == namespace_of(std::to_string(pid))) {
    return "";
  }
  return root;
}

LauncherEnvironment environmentOf(pid_t pid) {
  LauncherEnvironment environment;
  if (const auto text = readProcFile(procFile(pid, "environ"))) {
    for (const std::string& entry : splitAtNuls(*text)) {
      const size_t sign = entry.find('=');
      if (sign == std::string::npos) continue;
      const std::string value = entry.substr(sign + 1);
      if (entry.compare(0, sign, kBinPathVariable) == 0) {
        environment.binPath = value;
      }
      if (entry.compare(0, sign, kRootVariable) == 0) environment.root = value;
    }
  }
  if (const auto executable = readProcLink(procFile(pid, "exe"))) {
    environment.executableRoot =
        fs::path(*executable).parent_path().parent_path().string();
  }
  return environment;
}

/// Whether the file was changed after the launcher `pid` started.
bool hasChangedSince(const struct stat& file, pid_t pid) {
  const auto process = readProcess(pid);
  const double changed = static_cast<double>(file.st_mtim.tv_sec) +
                         static_cast<double>(file.st_mtim.tv_nsec) / 1e9;
  // The kernel rounds the start down to its own ticks, 10 ms.
  constexpr double kTolerance = 0.05;
  return process && changed > startOf(*process) + kTolerance;
}

/// The launcher's argument as it was given; empty if unknown.
std::string argumentOf(pid_t pid) {
  const auto arguments = argumentsOf(pid);
  // The launch file is the last argument, after the program and, for instance,
  // ld.so.
  return arguments.size() >= 2 ? arguments.back() : "";
}

/// The absolute path; `path` unchanged if the working directory is unknown,
/// which is then empty.
std::string absolute(const std::string& path, const std::string& directory) {
  if (path.empty() || path.front() == '/' || directory.empty()) return path;
  const fs::path whole = fs::path(directory) / path;
  // The directory before ".." may be a link to another directory.
  const bool has_parent =
      std::find(whole.begin(), whole.end(), "..") != whole.end();
  return has_parent ? whole.string() : whole.lexically_normal().string();
}

/// The working directory of the launcher as the launcher sees it; empty if it
/// cannot be known.
std::string workingDirectoryOf(pid_t pid) {
  const std::string path = readProcLink(procFile(pid, "cwd")).value_or("");
  const std::string root = readProcLink(procFile(pid, "root")).value_or("/");
  const bool is_inside = root != "/" && path.rfind(root + '/', 0) == 0;
  return is_inside ? path.substr(root.size()) : path;
}

/// The reason why the file that is the launcher's argument cannot be searched;
/// empty if it can. The argument is empty if the launcher has exited.
std::string obstacleTo(const LauncherProcess& launcher,
                       const std::string& argument) {
  if (launcher.pid == 0) {
    return "cannot determine the launch file: the launcher is in another pid "
           "namespace";
  }
  const std::string process = "process " + std::to_string(launcher.pid);
  if (argument.empty()) {
    return "cannot determine the launch file of " + process;
  }
  const std::string where = ", where its launch file " + argument + " is";
  const bool is_absolute = argument.front() == '/';
  if (!launcher.root && is_absolute) {
    return "cannot access the launcher's root directory (" + process +
           " in another pid namespace)" + where;
  }
  const std::string directory = procFile(launcher.pid, "cwd");
  if (!launcher.root ||
      (!is_absolute && ::access(directory.c_str(), X_OK) != 0)) {
    return "cannot access the launcher's working directory (" + process + ")" +
           where;
  }
  return "";
}

std::string reasonOf(int error) {
  if (error == ELOOP || error == EXDEV) {
    return "it is a link to a descriptor of the launcher, or in a loop of "
           "links";
  }
  if (error == ENOSYS) {
    return "the launcher has another root directory, and this system lacks "
           "openat2(2), which opens files there safely";
  }
  return std::strerror(error);
}

/// Reads the file that is the launcher's argument, and sets `hasChanged`.
/// Nothing if it cannot be read; `error` is then a sentence with the reason.
std::optional<SourceText> readItsArgument(LauncherProcess& launcher,
                                          std::string& error) {
  const std::string argument = argumentOf(launcher.pid);
  error = obstacleTo(launcher, argument);
  if (!error.empty()) return std::nullopt;
  const Descriptor file(openAsLauncher(launcher.pid, *launcher.root, argument,
                                       O_RDONLY | O_NONBLOCK));
  struct stat status {};
  std::string reason;
  std::optional<SourceText> document;
  if (file.number() < 0 || ::fstat(file.number(), &status) != 0) {
    reason = reasonOf(errno);
  } else if (!S_ISREG(status.st_mode)) {
    reason = "it is not a regular file";
  } else {
    document = readSourceText(launcher.launchFile, file.number(), reason);
    launcher.hasChanged = hasChangedSince(status, launcher.pid);
  }
  if (!document) {
    error =
        "cannot read the launch file " + launcher.launchFile + ": " + reason;
  }
  return document;
}

/// Reads `launcher.launchFile` as a file in our root directory.
std::optional<SourceText> readOurs(LauncherProcess& launcher,
                                   std::string& error) {
  struct stat status {};
  launcher.hasChanged = launcher.pid != 0 &&
                        ::stat(launcher.launchFile.c_str(), &status) == 0 &&
                        hasChangedSince(status, launcher.pid);
  return readSourceText(launcher.launchFile, error);
}

}  // namespace

LauncherProcess identifyLauncher(pid_t pid, const std::string& launch_file) {
  LauncherProcess launcher;
  launcher.pid = pid;
  if (pid != 0) {
    launcher.sharesPids = isInOurPidNamespace(pid);
    launcher.root = rootAsWeReachIt(pid);
    const auto process = readProcess(pid);
    if (process)
      launcher.startSeconds = static_cast<int64_t>(startOf(*process));
  }
  if (!launch_file.empty()) {
    std::error_code error;
    launcher.launchFile =
        absolute(launch_file, fs::current_path(error).string());
  } else if (pid != 0) {
    launcher.launchFile = absolute(argumentOf(pid), workingDirectoryOf(pid));
  }
  return launcher;
}

std::optional<LauncherProcess> inspectLauncher(pid_t pid,
                                               const std::string& launch_file,
                                               std::string& error) {
  LauncherProcess launcher = identifyLauncher(pid, launch_file);
  const auto document = readLaunchFile(launcher, launch_file, error);
  if (!document) return std::nullopt;
  auto file = loadLaunchFile(*document, environmentOf(pid), error);
  if (!file) {
    if (launch_file.empty()) error += kHowToName;
    return std::nullopt;
  }
  launcher.file = std::move(*file);
  return launcher;
}

std::optional<SourceText> readLaunchFile(LauncherProcess& launcher,
                                         const std::string& launch_file,
                                         std::string& error) {
  if (!launch_file.empty()) return readOurs(launcher, error);
  auto document = readItsArgument(launcher, error);
  if (!document) error += kHowToName;
  return document;
}

LauncherEnvironment launcherEnvironment(pid_t pid) {
  return pid == 0 ? ownEnvironment() : environmentOf(pid);
}

std::optional<bool> executableExists(const LauncherProcess& launcher,
                                     const LaunchFile::Node& node) {
  if (launcher.pid == 0 || node.executable.empty() || !launcher.root) {
    return std::nullopt;
  }
  const Descriptor file(
      openAsLauncher(launcher.pid, *launcher.root, node.executable, O_PATH));
  if (file.number() >= 0) return true;
  if (errno == ENOENT || errno == ENOTDIR) return false;
  return std::nullopt;
}

std::optional<std::vector<pid_t>> childrenOf(pid_t launcher) {
  const std::string id = std::to_string(launcher);
  const auto text = readProcFile("/proc/" + id + "/task/" + id + "/children");
  if (!text) return std::nullopt;
  std::istringstream words(*text);
  return std::vector<pid_t>(std::istream_iterator<pid_t>(words), {});
}

std::optional<std::string> nodeOf(pid_t process) {
  const auto environment = readProcFile(procFile(process, "environ"));
  return environment ? nodeNameIn(*environment) : std::nullopt;
}

bool isProcessAlive(const LauncherProcess& launcher, pid_t pid) {
  if (!launcher.sharesPids) return true;
  const auto process = readProcess(pid);
  // A /proc with hidepid shows no processes of other users.
  return process ? process->isAlive() : ::kill(pid, 0) == 0 || errno == EPERM;
}

}  // namespace vorn::launch
