// Linked into vornctl and vornrun of the coverage build: a stop signal that
// terminates the process writes the counters first.

#include <sys/types.h>

#include <algorithm>
#include <csignal>
#include <iterator>

// The linker replaces every call of X() by __wrap_X and provides the original
// as __real_X. The linker defines these names, and GCC those of the counters.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)

extern "C" {
void __gcov_dump(void);

int __real_sigaction(int number, const struct sigaction* action,
                     struct sigaction* old);
}

namespace {

constexpr int kStopSignals[] = {SIGHUP, SIGINT, SIGPIPE, SIGTERM};

void writeCounters(int number) {
  __gcov_dump();
  struct sigaction action {};
  action.sa_handler = SIG_DFL;
  (void)__real_sigaction(number, &action, nullptr);
  (void)::raise(number);  // after the handler, which blocks it
}

bool isStopSignal(int number) {
  return std::any_of(std::begin(kStopSignals), std::end(kStopSignals),
                     [number](int stop) { return stop == number; });
}

}  // namespace

extern "C" {

int __wrap_sigaction(int number, const struct sigaction* action,
                     struct sigaction* old) {
  struct sigaction replaced {};
  if (action != nullptr && action->sa_handler == SIG_DFL &&
      isStopSignal(number)) {
    replaced = *action;
    replaced.sa_handler = writeCounters;
    action = &replaced;
  }
  const int result = __real_sigaction(number, action, old);
  if (old != nullptr && old->sa_handler == writeCounters) {
    old->sa_handler = SIG_DFL;
  }
  return result;
}

sighandler_t __wrap_signal(int number, sighandler_t handler) {
  struct sigaction action {};
  action.sa_handler = handler;
  action.sa_flags = SA_RESTART;
  struct sigaction old {};
  return __wrap_sigaction(number, &action, &old) == 0 ? old.sa_handler
                                                      : SIG_ERR;
}

}  // extern "C"

namespace {

__attribute__((constructor)) void replaceDefaultActions() {
  for (const int number : kStopSignals) {
    struct sigaction action {};
    (void)__real_sigaction(number, nullptr, &action);
    if (action.sa_handler == SIG_DFL) {
      (void)__wrap_sigaction(number, &action, nullptr);
    }
  }
}

}  // namespace

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
