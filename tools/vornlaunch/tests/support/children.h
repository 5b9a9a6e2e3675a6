#pragma once

#include <signal.h>
#include <stdlib.h>
#include <sys/wait.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>
#include <stdexcept>
#include <string>

#include "support/system_calls.h"

namespace vorn::test {

/// Real children of this process, started through the launcher's fork, and a
/// folder for what they write. Whoever is left in the end is killed and
/// collected.
class Children {
 public:
  Children() {
    std::string name = "/tmp/children-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot make a folder for the children");
    }
    folder_ = name;
    systemCalls().fork = [this] {
      const pid_t pid = real.fork();
      if (pid > 0) pids_.insert(pid);
      return pid;
    };
  }
  ~Children() {
    systemCalls() = {};
    for (const pid_t pid : pids_) {
      (void)real.kill(pid, SIGKILL);
      (void)real.waitpid(pid, nullptr, 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all(folder_, ignored);
  }
  Children(const Children&) = delete;
  Children& operator=(const Children&) = delete;

  /// Waits for the child's end; its status as of waitpid().
  int waitFor(pid_t pid) {
    int status = 0;
    if (real.waitpid(pid, &status, 0) != pid) {
      throw std::runtime_error("no such child");
    }
    pids_.erase(pid);
    return status;
  }

  /// The path of `name` in the folder.
  std::string path(const std::string& name) const { return folder_ / name; }

  /// Writes the file `name` with these permissions; returns its path.
  std::string write(const std::string& name, const std::string& content,
                    std::filesystem::perms permissions) const {
    std::ofstream(path(name)) << content;
    std::filesystem::permissions(path(name), permissions);
    return path(name);
  }

  /// The content of the file `name`; empty when there is none.
  std::string read(const std::string& name) const {
    std::ostringstream content;
    content << std::ifstream(path(name)).rdbuf();
    return content.str();
  }

 private:
  std::filesystem::path folder_;
  std::set<pid_t> pids_;  // those not collected
};

}  // namespace vorn::test
