#include "system/stop_signals.h"

#include <signal.h>
#include <unistd.h>

#include <initializer_list>

namespace vorn::launch {

void dieByStopSignals(int cancel_fd) {
  for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
    struct sigaction action {};
    (void)::sigaction(signal, nullptr, &action);
    if (action.sa_handler == SIG_IGN) continue;
    action = {};
    action.sa_handler = SIG_DFL;
    (void)::sigaction(signal, &action, nullptr);
  }
  unsigned char caught = 0;
  if (::read(cancel_fd, &caught, sizeof(caught)) == 1) (void)::raise(caught);
}

}  // namespace vorn::launch
