// Linked into the programs of the coverage build, whose counters are otherwise
// written by exit handlers alone: writes them as well before an _exit() and
// before the program becomes another, and whatever the limit on a file's size.

#include <sys/resource.h>
#include <unistd.h>

// The linker turns every call of X() into __wrap_X and offers the original as
// __real_X; the names are its own, and those of the counters GCC's.
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
  __gcov_reset();  // what was written must not count again
  return result;
}

}  // extern "C"

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
