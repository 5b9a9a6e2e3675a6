#pragma once

#include <unistd.h>

#include <stdexcept>

namespace vorn::test {

/// Redirects this process's standard error to the open file `fd`, and restores
/// it at destruction.
class StandardErrorTo {
 public:
  explicit StandardErrorTo(int fd) : kept_(::dup(STDERR_FILENO)) {
    if (::dup2(fd, STDERR_FILENO) == -1) {
      throw std::runtime_error("cannot redirect standard error");
    }
  }
  ~StandardErrorTo() {
    (void)::dup2(kept_, STDERR_FILENO);
    (void)::close(kept_);
  }
  StandardErrorTo(const StandardErrorTo&) = delete;
  StandardErrorTo& operator=(const StandardErrorTo&) = delete;

 private:
  int kept_;
};

}  // namespace vorn::test
