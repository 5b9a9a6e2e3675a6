#include "monitor/child_process.h"

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "monitor/process_handle.h"
#include "process/credentials.h"
#include "process/execute.h"
#include "report.h"
#include "vorn/launch_rules.h"

namespace vorn::run {
namespace {

// -- In the child.

[[noreturn]] void executeInChild(const std::vector<std::string>& arguments,
                                 const ChildProcess::Options& options,
                                 pid_t parent) {
  for (const int number : kIgnoredSignals) (void)::signal(number, SIG_DFL);
  (void)::setsid();
  if (options.isBackground) (void)::setpriority(PRIO_PROCESS, 0, 19);
  const int output =
      options.output >= 0 ? options.output : ::open("/dev/null", O_WRONLY);
  (void)::dup2(output, STDOUT_FILENO);
  (void)::dup2(output, STDERR_FILENO);
  const bool changes_user =
      options.node != nullptr && options.node->account != nullptr;
  if (changes_user && applyAccount(*options.node->account))
    ::_exit(kExitFailure);
  if (!options.directory.empty() && ::chdir(options.directory.c_str()) != 0)
    ::_exit(kExitFailure);
  // After the change of the user, which clears it.
  (void)::prctl(PR_SET_PDEATHSIG, options.deathSignal);
  if (::getppid() != parent) ::_exit(kExitFailure);
  Environment environment = options.node != nullptr ? options.node->environment
                                                    : Environment::inherited();
  // Otherwise tools that search the processes of a node by it find an orphan.
  environment.unset(launch::kNodeNameVariable);
  std::string reason;
  ::_exit(executeProgram(arguments, environment, reason));
}

}  // namespace

ChildProcess::~ChildProcess() {
  if (pidfd_ >= 0) (void)::close(pidfd_);
}

bool ChildProcess::start(const std::vector<std::string>& arguments,
                         const Options& options) {
  const pid_t self = ::getpid();
  const pid_t pid = ::fork();
  if (pid < 0) return false;
  if (pid == 0) executeInChild(arguments, options, self);
  pid_ = pid;
  pidfd_ = openProcess(pid);
  return true;
}

bool ChildProcess::isFinished() {
  if (pid_ <= 0 || ::waitpid(pid_, &wait_status_, WNOHANG) == 0) return false;
  pid_ = 0;
  if (pidfd_ >= 0) (void)::close(pidfd_);
  pidfd_ = -1;
  return true;
}

void ChildProcess::kill() const {
  if (pid_ <= 0) return;
  (void)::kill(-pid_, SIGKILL);  // fails before the child's setsid()
  (void)::kill(pid_, SIGKILL);
}

}  // namespace vorn::run
