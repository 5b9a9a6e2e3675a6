#include "system/child_command.h"

#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>

#include "vornlib/retry_on_eintr.h"

namespace vorn::launch {

bool runCommand(const std::vector<std::string>& command, std::string& error) {
  std::vector<char*> arguments;
  arguments.reserve(command.size() + 1);
  for (const std::string& word : command) {
    arguments.push_back(const_cast<char*>(word.c_str()));
  }
  arguments.push_back(nullptr);
  pid_t pid = 0;
  const int failure = ::posix_spawnp(&pid, arguments.front(), nullptr, nullptr,
                                     arguments.data(), environ);
  if (failure != 0) {
    error = std::string("cannot be run: ") + std::strerror(failure);
    return false;
  }
  int status = 0;
  if (retryOnEintr([&] { return ::waitpid(pid, &status, 0); }) != pid) {
    error = "has an unknown result";
    return false;
  }
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  error = WIFEXITED(status)
              ? "exited with status " + std::to_string(WEXITSTATUS(status))
              : "was killed by signal " + std::to_string(WTERMSIG(status));
  return false;
}

}  // namespace vorn::launch
