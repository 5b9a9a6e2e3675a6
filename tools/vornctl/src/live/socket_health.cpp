#include "live/socket_health.h"

#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>

namespace vorn::launch {
namespace {

constexpr mode_t kSocketMode = 0666;  // as the launcher sets it
constexpr char kRestartLauncher[] =
    "restart the launcher, which creates its socket only when it starts";

std::string octal(mode_t mode) {
  std::array<char, 16> text{};
  (void)std::snprintf(text.data(), text.size(), "%04o", mode);
  return text.data();
}

std::string userText(uid_t uid) {
  return uid == 0 ? "root" : "user " + std::to_string(uid);
}

std::string nameOfLauncher(pid_t pid) {
  return "launcher " + std::to_string(pid);
}

Finding missingSocket(const SocketFacts& facts) {
  if (facts.launcher == 0) {
    return okFinding(facts.path + " does not exist because no launcher runs");
  }
  return {Verdict::ERROR,
          facts.path + " does not exist, although " +
              nameOfLauncher(facts.launcher) +
              " runs: it was removed, or could "
              "not be created",
          kRestartLauncher};
}

Finding directoryFinding(const SocketFacts& facts) {
  const std::string directory = std::filesystem::path(facts.path).parent_path();
  const bool is_trusted = facts.directoryOwner == 0 || facts.launcher == 0 ||
                          facts.directoryOwner == facts.launcherUid;
  if (!is_trusted) {
    return {Verdict::ERROR,
            "the directory " + directory + " belongs to " +
                userText(facts.directoryOwner) +
                ", who can replace the control socket",
            "remove the directory and restart the launcher"};
  }
  if ((facts.directoryMode & S_IWOTH) != 0) {
    return {Verdict::WARNING,
            "any user can replace the control socket: the directory " +
                directory + " has the mode " + octal(facts.directoryMode),
            "chmod 755 " + directory};
  }
  return okFinding(facts.path + " belongs to " + userText(facts.owner) +
                   " and has the mode " + octal(facts.mode));
}

}  // namespace

SocketFacts examineSocket(const std::string& path) {
  SocketFacts facts;
  facts.path = path;
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) {
    facts.error = errno;
    return facts;
  }
  facts.isSocket = S_ISSOCK(status.st_mode);
  facts.owner = status.st_uid;
  facts.mode = status.st_mode & 0777U;
  const std::string directory = std::filesystem::path(path).parent_path();
  if (::stat(directory.c_str(), &status) != 0) {
    facts.error = errno;
    return facts;
  }
  facts.directoryOwner = status.st_uid;
  facts.directoryMode = status.st_mode & 01777U;
  return facts;
}

Finding socketFinding(const SocketFacts& facts) {
  if (facts.error == ENOENT) return missingSocket(facts);
  if (facts.error != 0) {
    return unknownFinding(
        "cannot examine " + facts.path + ": " + std::strerror(facts.error),
        kRunAsRoot);
  }
  if (!facts.isSocket) {
    return {Verdict::ERROR, facts.path + " is not a socket",
            "remove it and restart the launcher"};
  }
  if (!facts.hasListener && facts.launcher == 0) {
    return okFinding(facts.path +
                     " is left from a launcher that has exited; the next one "
                     "replaces it");
  }
  if (!facts.hasListener) {
    return {Verdict::ERROR,
            facts.path + " is a stale socket: " +
                nameOfLauncher(facts.launcher) + " does not listen on it",
            kRestartLauncher};
  }
  if (facts.launcher != 0 && facts.owner != facts.launcherUid) {
    return {Verdict::ERROR,
            facts.path + " belongs to " + userText(facts.owner) +
                ", but the launcher to " + userText(facts.launcherUid),
            "remove it and restart the launcher"};
  }
  if ((facts.mode & kSocketMode) != kSocketMode) {
    return {Verdict::WARNING,
            "not every user can connect: " + facts.path + " has the mode " +
                octal(facts.mode),
            "chmod 666 " + facts.path +
                "; to restrict the users, restrict its directory"};
  }
  return directoryFinding(facts);
}

Finding answerFinding(Outcome outcome, const std::string& message,
                      bool is_launcher_running) {
  switch (outcome) {
    case Outcome::DONE:
    case Outcome::NOT_FOUND:
      return okFinding("the launcher answers");
    case Outcome::NO_LAUNCHER:
      if (!is_launcher_running) return unknownFinding("no launcher is running");
      return {Verdict::ERROR, message,
              "see the findings about the launcher and the socket"};
    case Outcome::UNTRUSTED:
      return {Verdict::ERROR, message,
              "use --trust-any-user if you trust that user"};
    case Outcome::PROTOCOL_ERROR:
      return {Verdict::ERROR, message,
              "install vornctl and vornlaunch of the same version"};
    default:
      return {Verdict::ERROR, message,
              "remove the cause; as a last resort, kill the launcher with "
              "SIGKILL and then the nodes that it leaves running"};
  }
}

}  // namespace vorn::launch
