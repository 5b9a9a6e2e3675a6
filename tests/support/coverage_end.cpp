// Linked into the programs of the coverage build, whose counters are otherwise
// written only by exit handlers: also writes them before _exit(), execv() and
// execve(), and raises the limits on file sizes and descriptors as far as it
// may.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

// The linker replaces every call of X() by __wrap_X and provides the original
// as __real_X. The linker defines these names, and GCC those of the counters.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl*)

extern "C" {
void __gcov_dump(void);
void __gcov_reset(void);

[[noreturn]] void __real__exit(int status);
int __real_execv(const char* path, char* const* argv);
int __real_execve(const char* path, char* const* argv, char* const* envp);
}

namespace {

constexpr __rlimit_resource_t kLifted[] = {RLIMIT_FSIZE, RLIMIT_NOFILE};

// Runs before GCC's own destructor, which writes the counters.
__attribute__((destructor)) void liftLimits() {
  constexpr rlim_t kEnough = 1 << 20;
  for (const auto resource : kLifted) {
    rlimit limit{};
    (void)::getrlimit(resource, &limit);
    limit.rlim_cur = limit.rlim_max;
    (void)::setrlimit(resource, &limit);
    limit.rlim_cur = limit.rlim_max = std::max(limit.rlim_max, kEnough);
    (void)::setrlimit(resource, &limit);  // only root can
  }
}

template <typename Execute>
int writeAndExecute(Execute execute) {
  rlimit limits[std::size(kLifted)] = {};
  for (size_t i = 0; i < std::size(kLifted); ++i) {
    (void)::getrlimit(kLifted[i], &limits[i]);
  }
  liftLimits();
  __gcov_dump();
  for (size_t i = 0; i < std::size(kLifted); ++i) {
    (void)::setrlimit(kLifted[i], &limits[i]);  // the next program inherits it
  }
  const int result = execute();
  __gcov_reset();  // do not count the written counters again
  return result;
}

}  // namespace

extern "C" {

[[noreturn]] void __wrap__exit(int status) {
  liftLimits();
  __gcov_dump();
  __real__exit(status);
}

int __wrap_execv(const char* path, char* const* argv) {
  return writeAndExecute([&] { return __real_execv(path, argv); });
}

int __wrap_execve(const char* path, char* const* argv, char* const* envp) {
  return writeAndExecute([&] { return __real_execve(path, argv, envp); });
}

}  // extern "C"

// NOLINTEND(bugprone-reserved-identifier,cert-dcl*)
