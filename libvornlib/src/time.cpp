#include "vornlib/time.h"

#include <stdexcept>

namespace vorn {

Time normalizeSecNSec(uint64_t sec, uint64_t nsec) {
  constexpr uint64_t kPerSecond = kNanosecondsPerSecond;
  uint64_t whole = 0;
  if (__builtin_add_overflow(sec, nsec / kPerSecond, &whole) ||
      whole > std::numeric_limits<uint32_t>::max()) {
    throw std::runtime_error("Time is out of its 32-bit range");
  }
  return {static_cast<uint32_t>(whole),
          static_cast<uint32_t>(nsec % kPerSecond)};
}

Duration normalizeSecNSecSigned(int64_t sec, int64_t nsec) {
  int64_t carry = nsec / kNanosecondsPerSecond;
  int64_t rest = nsec % kNanosecondsPerSecond;
  if (rest < 0) {  // the division truncates towards zero
    rest += kNanosecondsPerSecond;
    --carry;
  }
  int64_t whole = 0;
  if (__builtin_add_overflow(sec, carry, &whole) ||
      whole < std::numeric_limits<int32_t>::min() ||
      whole > std::numeric_limits<int32_t>::max()) {
    throw std::runtime_error("Duration is out of its 32-bit range");
  }
  return {static_cast<int32_t>(whole), static_cast<int32_t>(rest)};
}

}  // namespace vorn
