#pragma once

#include <unistd.h>

#include <stdexcept>

namespace vorn::test {

/// Makes the open file `fd` this process's standard error, and puts the former
/// one back at its destruction.
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
