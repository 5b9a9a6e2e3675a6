#pragma once

#include <cstdio>
#include <cstdlib>

namespace vorn::fuzz {

/// Aborts the process, which reports the input as a finding, unless `is_true`.
inline void check(bool is_true, const char* what_is_true) {
  if (is_true) return;
  (void)std::fprintf(stderr, "not true: %s\n", what_is_true);
  std::abort();
}

}  // namespace vorn::fuzz
