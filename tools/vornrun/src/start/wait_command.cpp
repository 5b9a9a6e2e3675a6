#include "start/wait_command.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include "process/credentials.h"
#include "process/descriptors.h"
#include "process/execute.h"
#include "report.h"

namespace vorn::run {
namespace {

/// The child: never returns.
[[noreturn]] void runCommand(const std::vector<std::string>& arguments,
                             const Account* account,
                             const Environment& environment, pid_t parent) {
  (void)::setpgid(0, 0);
  const int null = ::open("/dev/null", O_RDWR | O_CLOEXEC);
  for (int fd = 0; fd <= 2; ++fd)
    if (::dup2(null, fd) < 0) ::_exit(kExitFailure);
  if (closeDescriptorsOnExec()) ::_exit(kExitFailure);
  if (account != nullptr && applyAccount(*account)) ::_exit(kExitFailure);
  (void)::prctl(PR_SET_PDEATHSIG, static_cast<unsigned long>(SIGKILL));
  if (::getppid() != parent) ::_exit(kExitFailure);
  std::string reason;
  ::_exit(executeProgram(arguments, environment, reason));
}

/// Waits until the child has exited; false after `limit_ms`.
bool exitsWithin(pid_t child, int limit_ms) {
  const int fd = static_cast<int>(::syscall(SYS_pidfd_open, child, 0));
  if (fd < 0) return false;  // the next check may have a descriptor
  pollfd watched{fd, POLLIN, 0};
  const bool has_exited = ::poll(&watched, 1, limit_ms) > 0;
  (void)::close(fd);
  return has_exited;
}

}  // namespace

bool commandSucceeds(const std::vector<std::string>& arguments,
                     const Account* account, const Environment& environment,
                     milliseconds limit) {
  const pid_t parent = ::getpid();
  const pid_t child = ::fork();
  if (child < 0) return false;
  if (child == 0) runCommand(arguments, account, environment, parent);
  (void)::setpgid(child, child);  // also done by the child: whichever is first
  const bool is_in_time = exitsWithin(child, static_cast<int>(limit.count()));
  if (!is_in_time) {
    (void)::kill(-child, SIGKILL);
    (void)::kill(child, SIGKILL);
  }
  int status = 0;
  while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
  }
  return is_in_time && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace vorn::run
