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
/// directory for their files. The destructor kills and collects the remaining
/// children.
class Children {
 public:
  Children() {
    std::string name = "/tmp/children-XXXXXX";
    if (::mkdtemp(name.data()) == nullptr) {
      throw std::runtime_error("cannot create a directory for the children");
    }
    directory_ = name;
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
    std::filesystem::remove_all(directory_, ignored);
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

  /// The path of `name` in the directory.
  std::string path(const std::string& name) const { return directory_ / name; }

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
  std::filesystem::path directory_;
  std::set<pid_t> pids_;  // those not collected
};

}  // namespace vorn::test
