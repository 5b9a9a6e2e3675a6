#include "process/limits.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>

#include "option_values.h"

namespace vorn::run {
namespace {

RunError limitError(const char* option, const std::string& what) {
  return {option, what + ": " + std::strerror(errno)};
}

std::optional<RunError> setNice(int value) {
  if (::setpriority(PRIO_PROCESS, 0, value) == 0) return std::nullopt;
  return limitError("--nice", "cannot set " + std::to_string(value));
}

std::optional<RunError> setOomScore(int value) {
  const std::string text = std::to_string(value);
  const int fd = ::open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
  const bool is_done = fd >= 0 && ::write(fd, text.data(), text.size()) ==
                                      static_cast<ssize_t>(text.size());
  const int error = errno;
  if (fd >= 0) (void)::close(fd);
  errno = error;
  if (is_done) return std::nullopt;
  return limitError("--oom-score-adj", "cannot set " + text);
}

std::optional<RunError> setIoPriority(const IoPriority& priority) {
  constexpr int kClassShift = 13;  // the format of ioprio_set(2)
  constexpr int kWhoProcess = 1;
  const int value = (priority.ioClass << kClassShift) | priority.level;
  if (::syscall(SYS_ioprio_set, kWhoProcess, 0, value) == 0)
    return std::nullopt;
  return limitError("--ionice", "cannot set the I/O priority");
}

std::optional<RunError> setScheduling(const Scheduling& scheduling) {
  sched_param parameters{};
  parameters.sched_priority = scheduling.priority;
  if (::sched_setscheduler(0, scheduling.policy, &parameters) == 0) {
    return std::nullopt;
  }
  return limitError("--sched", "cannot set the policy");
}

std::optional<RunError> setCpus(const std::vector<int>& cpus) {
  cpu_set_t set;
  CPU_ZERO(&set);
  for (const int cpu : cpus) CPU_SET(static_cast<size_t>(cpu), &set);
  if (::sched_setaffinity(0, sizeof(set), &set) == 0) return std::nullopt;
  if (errno == EINVAL) {
    return RunError{"--cpu-list", "this machine has none of these processors"};
  }
  return limitError("--cpu-list", "cannot set the processors");
}

std::optional<RunError> setLimit(const Limit& limit) {
  const rlimit value{limit.soft, limit.hard};
  // The type of the first argument is different in C and C++.
  const auto resource = static_cast<__rlimit_resource_t>(limit.resource);
  if (::setrlimit(resource, &value) == 0) return std::nullopt;
  return limitError("--limit",
                    std::string("cannot set ") + limitName(limit.resource));
}

}  // namespace

std::optional<RunError> applyLimits(const RunSettings& settings) {
  std::optional<RunError> error;
  if (settings.nice) error = setNice(*settings.nice);
  if (!error && settings.oomScoreAdjust) {
    error = setOomScore(*settings.oomScoreAdjust);
  }
  if (!error && settings.ioPriority)
    error = setIoPriority(*settings.ioPriority);
  if (!error && settings.scheduling)
    error = setScheduling(*settings.scheduling);
  if (!error && !settings.cpus.empty()) error = setCpus(settings.cpus);
  for (const Limit& limit : settings.limits) {
    if (!error) error = setLimit(limit);
  }
  return error;
}

}  // namespace vorn::run
