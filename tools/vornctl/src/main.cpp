#include <fcntl.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <clocale>
#include <cstdlib>
#include <exception>
#include <new>

#include "cli/command_line.h"
#include "context/exit_status.h"
#include "output/output.h"

namespace {

int cancel_pipe[2] = {-1, -1};

extern "C" void onStopSignal(int signal) {
  // Commands that wait never read the pipe: after the first signal every wait
  // returns at once. A full pipe is readable as well.
  const auto number = static_cast<unsigned char>(signal);
  (void)!::write(cancel_pipe[1], &number, sizeof(number));
}

/// Opens /dev/null for standard descriptors that are closed. Otherwise another
/// file would get the number, and output would go there. Reading a standard
/// input that was closed still fails.
void fillStandardDescriptors() {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (::fcntl(fd, F_GETFD) < 0) (void)!::open("/dev/null", O_WRONLY);
  }
}

/// Makes SIGINT, SIGTERM and SIGHUP end a wait: a client that is killed cannot
/// report the outcome of its request. A second signal terminates the process. A
/// signal that the caller ignores, as with nohup, stays ignored.
bool armStopSignals() {
  if (::pipe2(cancel_pipe, O_CLOEXEC | O_NONBLOCK) != 0) return false;
  struct sigaction action {};
  action.sa_handler = onStopSignal;
  action.sa_flags = static_cast<int>(SA_RESETHAND);
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction before {};
    (void)::sigaction(signal, nullptr, &before);
    if (before.sa_handler == SIG_IGN) continue;
    (void)::sigaction(signal, &action, nullptr);
  }
  return true;
}

}  // namespace

int main(int argc, char** argv) {
  (void)std::setlocale(LC_CTYPE, "");
  // The output is UTF-8 like the launch file, even if no locale is set.
  if (MB_CUR_MAX == 1) (void)std::setlocale(LC_CTYPE, "C.UTF-8");
  (void)::signal(SIGPIPE,
                 SIG_DFL);  // a closed output pipe terminates vornctl silently
  // If the caller ignores SIGCHLD, the results of commands cannot be collected.
  (void)::signal(SIGCHLD, SIG_DFL);
  fillStandardDescriptors();
  (void)armStopSignals();
  try {
    return vorn::launch::runCommandLine(argc, argv, cancel_pipe[0]);
  } catch (const std::bad_alloc&) {
    // Written without an Output, which allocates memory.
    constexpr char kText[] = "vornctl: out of memory\n";
    (void)!::write(STDERR_FILENO, kText, sizeof(kText) - 1);
    return vorn::launch::kFailed;
  } catch (const std::exception& failure) {
    using vorn::launch::terminalText;
    vorn::launch::standardError()
        << "vornctl: " << terminalText(failure.what()) << "\n";
    return vorn::launch::kFailed;
  }
}
