#include "live/action_log.h"

#include <fcntl.h>
#include <pwd.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>

#include "descriptor.h"
#include "output/output_text.h"

namespace vorn::launch {
namespace {

constexpr char kDoneWord[] = "done";
constexpr char kSystemLog[] = "/dev/log";
constexpr size_t kMaxSentenceNodes = 1024;  // bytes of names in a sentence
// Only root can open this file, so that other users cannot hold the lock.
constexpr char kLockFile[] = "lock";
constexpr int kLockTries = 100;
constexpr useconds_t kLockPauseUs = 10'000;
constexpr char kNotOfRoot[] =
    "it, or its directory, can be written by users other than root";

int64_t nowUs() {
  using std::chrono::duration_cast;
  using std::chrono::microseconds;
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return duration_cast<microseconds>(now).count();
}

/// The word for an outcome; null if no request was sent.
const char* outcomeWord(Outcome outcome) {
  switch (outcome) {
    case Outcome::DONE:
      return kDoneWord;
    case Outcome::FAILED:
      return "failed";
    case Outcome::NOT_FOUND:
      return "no such node";
    case Outcome::UNKNOWN:
    case Outcome::PROTOCOL_ERROR:
      return "unknown";
    default:
      return nullptr;
  }
}

std::string userName(uid_t uid) {
  const passwd* const entry = ::getpwuid(uid);
  return entry == nullptr ? "" : entry->pw_name;
}

/// The terminal of one of the standard streams, without "/dev/".
std::string terminalName() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    std::array<char, 128> name{};
    if (::ttyname_r(fd, name.data(), name.size()) != 0) continue;
    constexpr std::string_view kDevices = "/dev/";
    const std::string path = name.data();
    return path.rfind(kDevices, 0) == 0 ? path.substr(kDevices.size()) : path;
  }
  return "";
}

/// Whether only root can change this file or directory.
bool isOfRoot(const struct stat& status) {
  return status.st_uid == 0 && (status.st_mode & (S_IWGRP | S_IWOTH)) == 0;
}

/// Opens the directory of the records, and creates it if it does not exist.
int openDirectory() {
  constexpr int kFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
  const int existing = ::open(kActionDirectory, kFlags);
  if (existing >= 0 || errno != ENOENT) return existing;
  if (::mkdir(kActionDirectory, 0755) != 0) return -1;
  const int created = ::open(kActionDirectory, kFlags);
  // Whatever the umask is, other users may read the records.
  if (created >= 0) (void)::fchmod(created, 0755);
  return created;
}

/// Opens a file in the directory for appending, and creates it if it does not
/// exist. -1 and errno if that fails or the file has another name elsewhere.
int openFileIn(int directory, const char* name, mode_t mode) {
  const int fd = ::openat(directory, name,
                          O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW |
                              O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                          mode);
  struct stat status {};
  if (fd < 0) return -1;
  if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) &&
      isOfRoot(status) && status.st_nlink == 1) {
    (void)::fchmod(fd, mode);
    return fd;
  }
  (void)::close(fd);
  errno = EPERM;
  return -1;
}

std::string reasonFor(int error) {
  return error == EPERM ? kNotOfRoot : std::strerror(error);
}

bool takeLock(int fd) {
  for (int i = 0; i < kLockTries; ++i) {
    if (::flock(fd, LOCK_EX | LOCK_NB) == 0) return true;
    (void)::usleep(kLockPauseUs);
  }
  return false;
}

/// Renames the file of records if this line has no room in it.
void rotate(int directory, const std::string& name, size_t line_size) {
  struct stat status {};
  if (::fstatat(directory, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      static_cast<size_t>(status.st_size) + line_size > kMaxActionFile) {
    (void)::renameat(directory, name.c_str(), directory,
                     (name + kOlderSuffix).c_str());
  }
}

/// Appends the line as a whole or not at all. The caller holds the lock.
std::string appendTo(int directory, const std::string& line) {
  const std::string name = std::filesystem::path(kActionFile).filename();
  rotate(directory, name, line.size());
  const Descriptor file(openFileIn(directory, name.c_str(), 0644));
  struct stat before {};
  if (file.number() < 0 || ::fstat(file.number(), &before) != 0) {
    return reasonFor(errno);
  }
  errno = ENOSPC;  // for a short write, which does not set it
  const ssize_t written = ::write(file.number(), line.data(), line.size());
  if (written == static_cast<ssize_t>(line.size())) return "";
  const int error = errno;
  (void)!::ftruncate(file.number(), before.st_size);
  return std::strerror(error);
}

/// Appends the line to the file of records; returns the reason for a failure.
std::string append(const std::string& line) {
  // A limit on the size of files must not terminate this process.
  (void)::signal(SIGXFSZ, SIG_IGN);
  const Descriptor directory(openDirectory());
  struct stat status {};
  if (directory.number() < 0 || ::fstat(directory.number(), &status) != 0) {
    return std::strerror(errno);
  }
  if (!isOfRoot(status)) return kNotOfRoot;
  const Descriptor lock(openFileIn(directory.number(), kLockFile, 0600));
  if (lock.number() < 0) return reasonFor(errno);
  if (!takeLock(lock.number())) return "another process has locked it for 1 s";
  return appendTo(directory.number(), line);
}

/// Sends the text to the system log as syslog(3) does, except that syslog(3)
/// blocks while the reader of the log is suspended. Returns whether it was
/// sent.
bool sendToSystemLog(const std::string& text, int64_t time_us) {
  const Descriptor log(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::copy_n(kSystemLog, sizeof(kSystemLog), address.sun_path);
  const std::time_t seconds = time_us / 1'000'000;
  std::tm local{};
  (void)::localtime_r(&seconds, &local);
  std::array<char, 32> date{};
  (void)std::strftime(date.data(), date.size(), "%b %e %H:%M:%S", &local);
  const std::string message = '<' + std::to_string(LOG_AUTHPRIV | LOG_NOTICE) +
                              '>' + date.data() + " vornctl[" +
                              std::to_string(::getpid()) + "]: " + text;
  return ::sendto(log.number(), message.data(), message.size(),
                  MSG_DONTWAIT | MSG_NOSIGNAL,
                  reinterpret_cast<const sockaddr*>(&address),
                  sizeof(address)) >= 0;
}

/// " camera lidar and 3 more".
std::string namesIn(const ActionRecord& record) {
  std::string text;
  size_t i = 0;
  for (; i < record.nodes.size() && text.size() < kMaxSentenceNodes; ++i) {
    text += ' ' + record.nodes[i];
  }
  const size_t left = record.nodes.size() - i + record.omittedNodes;
  return left == 0 ? text : text + " and " + std::to_string(left) + " more";
}

}  // namespace

ActionRecorder::ActionRecorder(const std::string& command,
                               const std::string& reason, pid_t launcher_pid) {
  constexpr size_t kMaxUserName = 256;
  record_.timeUs = nowUs();
  record_.uid = ::getuid();
  record_.user = userName(record_.uid);
  const char* const sudo_user = std::getenv("SUDO_USER");
  if (sudo_user != nullptr) {
    record_.sudoUser = std::string(sudo_user).substr(0, kMaxUserName);
  }
  record_.tty = terminalName();
  record_.command = command;
  record_.reason = reason;
  record_.outcome = kDoneWord;
  record_.launcherPid = launcher_pid;
}

void ActionRecorder::add(const std::string& name, Outcome outcome) {
  const char* const word = outcomeWord(outcome);
  if (word == nullptr) return;
  const auto& nodes = record_.nodes;
  if (std::find(nodes.begin(), nodes.end(), name) == nodes.end()) {
    record_.nodes.push_back(name);
  }
  if (outcome == Outcome::DONE) return;
  if (record_.failures.empty()) record_.outcome = word;
  record_.failures[name] = word;
}

std::string ActionRecorder::write() {
  if (record_.nodes.empty()) return "";
  record_.endUs = nowUs();
  const bool is_logged = sendToSystemLog(sentenceOf(record_), record_.endUs);
  const bool is_root = ::geteuid() == 0;
  if (is_logged && !is_root) return "";
  const std::string error =
      is_root ? append(lineOf(record_)) : "only root can write it";
  if (error.empty()) return "";
  return std::string("cannot write ") + kActionFile + ": " + error +
         (is_logged ? "" : "; no system log reads /dev/log");
}

std::string sentenceOf(const ActionRecord& record) {
  std::string text = record.command + namesIn(record) + ": " + record.outcome;
  if (!record.failures.empty()) {
    text += " (" + std::to_string(record.failures.size()) + " not done)";
  }
  text += "; user " + record.user + " (uid " + std::to_string(record.uid) + ')';
  if (!record.sudoUser.empty()) text += ", sudo of " + record.sudoUser;
  text += ", terminal " + (record.tty.empty() ? "none" : record.tty);
  text += ", launcher " + std::to_string(record.launcherPid);
  if (!record.reason.empty()) text += ", reason: " + record.reason;
  return terminalText(text).str();
}

}  // namespace vorn::launch
