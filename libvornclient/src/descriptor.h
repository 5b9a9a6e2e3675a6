#pragma once

#include <unistd.h>

namespace vorn::launch {

/// Owns a descriptor. A negative number is the result of a failed open().
class Descriptor {
 public:
  explicit Descriptor(int number) : number_(number) {}
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor() {
    if (number_ >= 0) (void)::close(number_);
  }
  int number() const { return number_; }

 private:
  int number_;
};

}  // namespace vorn::launch
