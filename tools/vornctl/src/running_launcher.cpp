#include "running_launcher.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>

namespace vorn::launch {
namespace {

namespace fs = std::filesystem;

constexpr char kHowToName[] =
    "; name it by --launch-file or VORNCTL_LAUNCH_FILE";

std::string procFile(pid_t pid, const char* file) {
  return "/proc/" + std::to_string(pid) + '/' + file;
}

/// The whole of a file below /proc; nothing if it cannot be read.
std::optional<std::string> readAll(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  if (!file) return std::nullopt;
  try {
    return std::string((std::istreambuf_iterator<char>(file)), {});
  } catch (const std::ios_base::failure&) {
    return std::nullopt;  // the process has ended since the file was opened
  }
}

/// The strings of a file such as cmdline, each of which ends with a NUL.
std::vector<std::string> splitAtNuls(const std::string& text) {
  std::vector<std::string> strings;
  size_t begin = 0;
  for (size_t end = text.find('\0'); end != std::string::npos;
       end = text.find('\0', begin)) {
    strings.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return strings;
}

/// The target of a link below /proc; nothing without the permission.
std::optional<std::string> readLink(const std::string& path) {
  std::error_code error;
  const fs::path target = fs::read_symlink(path, error);
  if (error) return std::nullopt;
  return target.string();
}

/// Whether the process is in the pid namespace of our /proc.
bool isInOurPidNamespace(pid_t pid) {
  // Anyone may read this file, unlike the link ns/pid.
  std::istringstream lines(readAll(procFile(pid, "status")).value_or(""));
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("NSpid:", 0) != 0) continue;
    // Its pid in our namespace, and in each that is nested in ours.
    std::istringstream words(line);
    return std::distance(std::istream_iterator<std::string>(words), {}) <= 2;
  }
  return true;  // more likely than not
}

/// Where we reach the launcher's root folder: an empty text to put in front of
/// a path when it is our own. When we may not look, we take it for that, but
/// not in another pid namespace: that is nothing, a container with files of its
/// own.
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
    return readLink("/proc/" + process + "/ns/mnt");
  };
  if (is_same && namespace_of("self") == namespace_of(std::to_string(pid))) {
    return "";
  }
  return root;
}

LauncherSurroundings surroundingsOf(pid_t pid) {
  LauncherSurroundings surroundings;
  if (const auto text = readAll(procFile(pid, "environ"))) {
    for (const std::string& entry : splitAtNuls(*text)) {
      const size_t sign = entry.find('=');
      if (sign == std::string::npos) continue;
      const std::string value = entry.substr(sign + 1);
      if (entry.compare(0, sign, "VORN_BIN_PATH") == 0) {
        surroundings.binPath = value;
      }
      if (entry.compare(0, sign, "VORN_ROOT") == 0) surroundings.root = value;
    }
  }
  if (const auto executable = readLink(procFile(pid, "exe"))) {
    surroundings.executableRoot =
        fs::path(*executable).parent_path().parent_path().string();
  }
  return surroundings;
}

/// When the process was started; nothing if it cannot be known.
std::optional<double> startOf(pid_t pid) {
  const auto text = readAll(procFile(pid, "stat"));
  if (!text) return std::nullopt;
  // The name, in parentheses, may contain anything.
  const size_t name_end = text->rfind(')');
  if (name_end == std::string::npos) return std::nullopt;
  std::istringstream fields(text->substr(name_end + 1));
  constexpr int kStartTime = 20;  // counted from the state, the third field
  std::string field;
  for (int i = 0; i < kStartTime; ++i) fields >> field;
  timespec wall{};
  timespec boot{};
  if (!fields || ::clock_gettime(CLOCK_REALTIME, &wall) != 0 ||
      ::clock_gettime(CLOCK_BOOTTIME, &boot) != 0) {
    return std::nullopt;
  }
  const auto seconds = [](const timespec& time) {
    return static_cast<double>(time.tv_sec) +
           static_cast<double>(time.tv_nsec) / 1e9;
  };
  const double since_boot = static_cast<double>(std::stoull(field)) /
                            static_cast<double>(::sysconf(_SC_CLK_TCK));
  return seconds(wall) - seconds(boot) + since_boot;
}

/// Whether the file at `path` was changed after the launcher `pid` started.
bool hasChangedSince(const std::string& path, pid_t pid) {
  struct stat status {};
  const auto start = startOf(pid);
  if (!start || ::stat(path.c_str(), &status) != 0) return false;
  const double changed = static_cast<double>(status.st_mtim.tv_sec) +
                         static_cast<double>(status.st_mtim.tv_nsec) / 1e9;
  // The kernel rounds the start down to its own ticks, 10 ms.
  constexpr double kTolerance = 0.05;
  return changed > *start + kTolerance;
}

/// Where we reach the file that is the launcher's argument. Nothing if that
/// cannot be known; `error` is then a sentence that tells why.
std::optional<std::string> pathOfItsArgument(const RunningLauncher& launcher,
                                             std::string& error) {
  const std::string process = "process " + std::to_string(launcher.pid);
  if (launcher.pid == 0) {
    error =
        "cannot tell the launch file: the launcher is in another pid namespace";
    return std::nullopt;
  }
  if (launcher.launchFile.empty()) {
    error = "cannot tell the launch file of " + process;
    return std::nullopt;
  }
  const std::string where =
      ", where its launch file " + launcher.launchFile + " is";
  if (launcher.launchFile.front() == '/') {
    if (launcher.root) return *launcher.root + launcher.launchFile;
    error = "cannot look into the root folder of the launcher, " + process +
            " in another pid namespace" + where;
    return std::nullopt;
  }
  if (::access(launcher.folder.c_str(), X_OK) == 0) {
    return launcher.folder + '/' + launcher.launchFile;
  }
  error =
      "cannot look into the working folder of the launcher, " + process + where;
  return std::nullopt;
}

}  // namespace

std::optional<RunningLauncher> inspectLauncher(pid_t pid,
                                               const std::string& launch_file,
                                               std::string& error) {
  RunningLauncher launcher;
  launcher.pid = pid;
  std::string path = launch_file;
  if (pid != 0) {
    launcher.root = rootAsWeReachIt(pid);
    launcher.folder = procFile(pid, "cwd");
    const auto text = readAll(procFile(pid, "cmdline"));
    const auto arguments = splitAtNuls(text.value_or(""));
    // It has one argument; before it may stand more, as when ld.so runs it.
    if (arguments.size() >= 2) launcher.launchFile = arguments.back();
  }
  if (path.empty()) {
    const auto its = pathOfItsArgument(launcher, error);
    if (!its) {
      error += kHowToName;
      return std::nullopt;
    }
    path = *its;
  } else {
    launcher.launchFile = launch_file;
  }
  auto file = readLaunchFile(path, surroundingsOf(pid), error);
  if (!file) {
    if (launch_file.empty()) error += kHowToName;
    return std::nullopt;
  }
  launcher.file = std::move(*file);
  launcher.hasChanged = pid != 0 && hasChangedSince(path, pid);
  return launcher;
}

std::optional<bool> executableExists(const RunningLauncher& launcher,
                                     const LaunchNode& node) {
  if (launcher.pid == 0 || node.executable.empty()) return std::nullopt;
  const bool is_absolute = node.executable.front() == '/';
  if (is_absolute && !launcher.root) return std::nullopt;
  const std::string path = is_absolute
                               ? *launcher.root + node.executable
                               : launcher.folder + '/' + node.executable;
  struct stat status {};
  if (::stat(path.c_str(), &status) == 0) return true;
  if (errno == ENOENT || errno == ENOTDIR) return false;
  return std::nullopt;
}

std::optional<std::vector<pid_t>> childrenOf(pid_t launcher) {
  const std::string id = std::to_string(launcher);
  const auto text = readAll("/proc/" + id + "/task/" + id + "/children");
  if (!text) return std::nullopt;
  std::istringstream words(*text);
  return std::vector<pid_t>(std::istream_iterator<pid_t>(words), {});
}

std::optional<std::string> nodeOf(pid_t process) {
  const auto text = readAll(procFile(process, "environ"));
  if (!text) return std::nullopt;
  const std::string variable = "__VORN_NODE_NAME__=";
  const std::string ending = "(vornlaunch)";
  for (const std::string& entry : splitAtNuls(*text)) {
    if (entry.rfind(variable, 0) != 0) continue;
    std::string name = entry.substr(variable.size());
    if (name.size() < ending.size() ||
        name.compare(name.size() - ending.size(), ending.size(), ending) != 0) {
      continue;
    }
    name.resize(name.size() - ending.size());
    return name;
  }
  return std::nullopt;
}

bool sharesPids(const RunningLauncher& launcher) {
  return launcher.pid != 0 && isInOurPidNamespace(launcher.pid);
}

bool isProcessAlive(const RunningLauncher& launcher, pid_t pid) {
  if (!sharesPids(launcher)) return true;
  const auto text = readAll(procFile(pid, "stat"));
  // A /proc that hides the processes of others tells nothing of a living one.
  if (!text) return ::kill(pid, 0) == 0 || errno == EPERM;
  const size_t name_end = text->rfind(')');
  return name_end == std::string::npos || name_end + 2 >= text->size() ||
         (*text)[name_end + 2] != 'Z';
}

}  // namespace vorn::launch
