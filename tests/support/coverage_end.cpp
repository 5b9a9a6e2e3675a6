// Linked into the programs of the coverage build, whose counters are otherwise
// written only by exit handlers: also writes them before _exit() and execv(),
// and independently of the limit on file sizes.

#include <sys/resource.h>
#include <unistd.h>

// The linker replaces every call of X() by __wrap_X and provides the original
// as
// __real_X. The linker defines these names, and GCC those of the counters.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)

extern "C" {

void __gcov_dump(void);
void __gcov_reset(void);

[[noreturn]] void __real__exit(int status);
int __real_execv(const char* path, char* const* argv);

namespace {

// Runs before GCC's own destructor, which writes the counters.
__attribute__((destructor)) void liftSizeLimit() {
  rlimit limit{};
  (void)::getrlimit(RLIMIT_FSIZE, &limit);
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_FSIZE, &limit);
}

}  // namespace

[[noreturn]] void __wrap__exit(int status) {
  liftSizeLimit();
  __gcov_dump();
  __real__exit(status);
}

int __wrap_execv(const char* path, char* const* argv) {
  rlimit limit{};
  (void)::getrlimit(RLIMIT_FSIZE, &limit);
  liftSizeLimit();
  __gcov_dump();
  (void)::setrlimit(RLIMIT_FSIZE, &limit);  // the next program inherits it
  const int result = __real_execv(path, argv);
  __gcov_reset();  // do not count the written counters again
  return result;
}

}  // extern "C"

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
