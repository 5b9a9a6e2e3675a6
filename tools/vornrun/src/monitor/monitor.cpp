#include "monitor/monitor.h"

#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>

#include "monitor/monitor_loop.h"
#include "monitor/notify_socket.h"
#include "monitor/process_handle.h"
#include "monitor/process_stat.h"
#include "process/descriptors.h"
#include "vorn/launch_rules.h"

namespace vorn::run {
namespace {

constexpr int kPauseAfterFailureMs = 1000;

void closeIfOpen(int& fd) {
  if (fd >= 0) (void)::close(fd);
  fd = -1;
}

void closeAll(MonitorConnection& connection) {
  closeIfOpen(connection.standardOutput);
  closeIfOpen(connection.standardError);
  closeIfOpen(connection.ready);
  closeIfOpen(connection.phases);
}

void closeAll(MonitorDescriptors& own) {
  for (int* fd : {&own.node, &own.output, &own.error, &own.notify, &own.ready,
                  &own.phases})
    closeIfOpen(*fd);
}

bool openPipe(int& reading_end, int& writing_end) {
  int ends[2] = {-1, -1};
  if (::pipe2(ends, O_CLOEXEC) != 0) return false;
  reading_end = ends[0];
  writing_end = ends[1];
  return ::fcntl(reading_end, F_SETFL, O_NONBLOCK) == 0;
}

/// A larger pipe: under load, the node and the monitor wait less often for each
/// other. Without the right to it, the usual size remains.
bool openLogPipe(int& reading_end, int& writing_end) {
  constexpr int kSize = 256 << 10;
  if (!openPipe(reading_end, writing_end)) return false;
  (void)::fcntl(reading_end, F_SETPIPE_SZ, kSize);
  return true;
}

/// Gives the pipes or the terminal to the user of the node, who may open them
/// again as /dev/stderr.
bool changeOwner(const MonitorConnection& connection,
                 const MonitoredNode& node) {
  if (node.account == nullptr) return true;
  const auto is_owned = [&](int fd) {
    return fd < 0 || ::fchown(fd, node.account->user, node.account->group) == 0;
  };
  return is_owned(connection.standardOutput) &&
         is_owned(connection.standardError) && is_owned(connection.ready);
}

/// A terminal that passes on all bytes as they are.
bool openTerminal(int& master, int& slave) {
  master = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
  if (master < 0 || ::grantpt(master) != 0 || ::unlockpt(master) != 0)
    return false;
  char name[64];
  if (::ptsname_r(master, name, sizeof(name)) != 0) return false;
  slave = ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (slave < 0) return false;
  termios mode{};
  if (::tcgetattr(slave, &mode) != 0) return false;
  mode.c_oflag &= ~static_cast<tcflag_t>(OPOST | ONLCR);
  mode.c_lflag &= ~static_cast<tcflag_t>(ECHO);
  return ::tcsetattr(slave, TCSANOW, &mode) == 0;
}

bool openLogs(const RunSettings& settings, MonitorConnection& connection,
              MonitorDescriptors& own) {
  const LoggedStreams streams = loggedStreams(settings);
  if (!streams.isLogged) return true;
  if (settings.pty) {
    if (!openTerminal(own.output, connection.standardOutput)) return false;
  } else if (!openLogPipe(own.output, connection.standardOutput)) {
    return false;
  }
  if (streams.areSeparate)
    return openLogPipe(own.error, connection.standardError);
  connection.standardError =
      ::fcntl(connection.standardOutput, F_DUPFD_CLOEXEC, 0);
  return connection.standardError >= 0;
}

bool openConnections(const RunSettings& settings, MonitorConnection& connection,
                     MonitorDescriptors& own) {
  const auto kind =
      settings.ready ? settings.ready->kind : Condition::Kind::PATH;
  own.node = openProcess(::getpid());
  if (own.node < 0 || !openPipe(own.phases, connection.phases) ||
      !openLogs(settings, connection, own))
    return false;
  if (kind == Condition::Kind::FD && !openPipe(own.ready, connection.ready))
    return false;
  if (kind != Condition::Kind::NOTIFY && settings.watchdog.count() == 0)
    return true;
  own.notify = createNotifySocket(connection.notifySocket);
  return own.notify >= 0;
}

// -- In the guardian and the monitor.

/// Closes all descriptors but the first three and the monitor's own.
bool closeOthers(const MonitorDescriptors& own) {
  unsigned kept[] = {2,
                     static_cast<unsigned>(own.node),
                     static_cast<unsigned>(own.output),
                     static_cast<unsigned>(own.error),
                     static_cast<unsigned>(own.notify),
                     static_cast<unsigned>(own.ready),
                     static_cast<unsigned>(own.phases)};
  std::sort(std::begin(kept), std::end(kept));  // absent ones are the last
  for (size_t i = 0; i < std::size(kept); ++i) {
    if (kept[i] == UINT_MAX) break;
    const bool is_last = i + 1 == std::size(kept) || kept[i + 1] == UINT_MAX;
    const unsigned end = is_last ? UINT_MAX : kept[i + 1] - 1;
    if (kept[i] + 1 <= end && !closeDescriptors(kept[i] + 1, end)) return false;
  }
  return true;
}

/// Removes the name of the node from the environment that /proc shows: tools
/// find the processes of a node by it, and the monitor is not one of them.
void hideNodeName() {
  const size_t size = std::strlen(launch::kNodeNameVariable);
  for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry)
    if (std::strncmp(*entry, launch::kNodeNameVariable, size) == 0 &&
        (*entry)[size] == '=')
      std::memset(*entry, 0, std::strlen(*entry));
}

/// What the guardian and the monitor inherit. On failure, errno is set.
bool leaveNode(const RunSettings& settings, const MonitorDescriptors& own) {
  for (const int number : kIgnoredSignals) (void)::signal(number, SIG_IGN);
  (void)::signal(SIGCHLD, SIG_DFL);
  sigset_t none;
  (void)::sigemptyset(&none);
  (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
  (void)::prctl(PR_SET_NAME, "vornrun-monitor");
  (void)::umask(0);
  hideNodeName();
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  const bool keeps_output = settings.logPrefix || settings.pty;
  return null >= 0 && ::setsid() >= 0 &&
         ::chdir("/") == 0 &&  // always accessible
         ::dup2(null, STDIN_FILENO) >= 0 &&
         (keeps_output || ::dup2(null, STDOUT_FILENO) >= 0) && closeOthers(own);
}

struct GuardianArguments {
  const RunSettings& settings;
  const MonitoredNode& node;
  const NodeIdentity& identity;
  const MonitorDescriptors& own;
  NodeState& state;
};

/// Restarts the monitor until it has seen the end of the node.
[[noreturn]] void guard(const GuardianArguments& with) {
  // Collects everything that the monitor starts, so that it does not surprise
  // a launcher that is process 1.
  (void)::prctl(PR_SET_CHILD_SUBREAPER, 1);
  for (;;) {
    ++with.state.monitorStarts;
    const int64_t begin = monotonicMs();
    const pid_t monitor = ::fork();
    if (monitor == 0) {
      MonitorLoop(with.settings, with.node, with.identity, with.own, with.state)
          .run();
      ::_exit(0);
    }
    int status = -1;
    for (pid_t ended = 0; monitor > 0 && ended != monitor;)
      ended = ::waitpid(-1, &status, 0);
    if (monitor > 0 && WIFEXITED(status) && WEXITSTATUS(status) == 0) break;
    if (monotonicMs() - begin >= kPauseAfterFailureMs) continue;
    pollfd ended = {with.own.node, POLLIN, 0};
    (void)::poll(&ended, 1, kPauseAfterFailureMs);
  }
  ::_exit(0);
}

/// Creates the guardian, which is not a child of the caller. Returns 0 or the
/// error.
int startGuardian(const GuardianArguments& with) {
  const pid_t first = ::fork();
  if (first < 0) return errno;
  if (first == 0) {
    if (!leaveNode(with.settings, with.own)) ::_exit(errno);
    const pid_t second = ::fork();
    if (second == 0) guard(with);
    ::_exit(second < 0 ? errno : 0);
  }
  int status = 0;
  while (::waitpid(first, &status, 0) < 0)
    if (errno != EINTR) return 0;  // SIGCHLD is ignored: already collected
  return WIFEXITED(status) ? WEXITSTATUS(status) : EAGAIN;
}

RunError monitorError(const std::string& problem, int error) {
  return {"", problem + ": " + std::strerror(error)};
}

/// Whether an option needs the monitor.
bool needsMonitor(const RunSettings& settings) {
  return loggedStreams(settings).isLogged || settings.ready ||
         settings.watchdog.count() > 0 || settings.probe ||
         !settings.waitFor.empty() || settings.backoff || settings.giveUp;
}

}  // namespace

std::optional<RunError> startMonitor(const RunSettings& settings,
                                     const MonitoredNode& node,
                                     MonitorConnection& connection) {
  if (!needsMonitor(settings)) return std::nullopt;
  MonitorDescriptors own;
  int error = 0;
  void* const shared =
      ::mmap(nullptr, sizeof(NodeState), PROT_READ | PROT_WRITE,
             MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  if (shared == MAP_FAILED || !openConnections(settings, connection, own) ||
      !changeOwner(connection, node)) {
    error = errno;
  } else {
    auto* const state = new (shared) NodeState;
    state->phaseSince = unixSeconds();
    const NodeIdentity identity = {node.name, ::getpid(),
                                   readProcessStat(::getpid()).startTime};
    const GuardianArguments arguments = {settings, node, identity, own, *state};
    error = startGuardian(arguments);
  }
  if (shared != MAP_FAILED) (void)::munmap(shared, sizeof(NodeState));
  closeAll(own);
  if (error == 0) return std::nullopt;
  closeAll(connection);
  return monitorError("cannot start the monitor", error);
}

void addNotifyVariables(const RunSettings& settings,
                        const MonitorConnection& connection,
                        Environment& environment) {
  if (connection.notifySocket.empty()) return;
  environment.set("NOTIFY_SOCKET", connection.notifySocket);
  if (settings.watchdog.count() == 0) return;
  environment.set("WATCHDOG_USEC",
                  std::to_string(settings.watchdog.count() * 1000));
  environment.set("WATCHDOG_PID", std::to_string(::getpid()));
}

std::optional<RunError> connectProgram(const RunSettings& settings,
                                       const MonitorConnection& connection,
                                       int& original_error) {
  const int ready_number =
      connection.ready < 0 ? -1
                           : static_cast<int>(std::strtol(
                                 settings.ready->value.c_str(), nullptr, 10));
  bool is_done = true;
  if (connection.standardOutput >= 0) {
    original_error = ::fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, ready_number + 1);
    is_done = original_error >= 0 &&
              ::dup2(connection.standardOutput, STDOUT_FILENO) >= 0 &&
              ::dup2(connection.standardError, STDERR_FILENO) >= 0;
  }
  // The last one: its number may be that of another connection.
  if (is_done && connection.ready >= 0)
    is_done = keepDescriptor(connection.ready, ready_number);
  if (is_done) return std::nullopt;
  return monitorError("cannot connect the program to the monitor", errno);
}

void reportPhase(const MonitorConnection& connection,
                 const PhaseMessage& message) {
  if (connection.phases < 0) return;
  // Smaller than PIPE_BUF: complete or not at all. The guardian keeps the pipe
  // readable.
  if (::write(connection.phases, &message, sizeof(message)) < 0) return;
}

}  // namespace vorn::run
