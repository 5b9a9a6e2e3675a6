#pragma once

#include <cstdint>
#include <string>

namespace vorn::run {

/// The time in ms that a sink gives a slow reader after the end of the node.
constexpr int64_t kFinishMs = 1000;

/// The line about lost output, without a prefix; `reason` may be empty.
inline std::string droppedNotice(uint64_t bytes, const std::string& reason) {
  return "vornrun: " + std::to_string(bytes) + " bytes dropped" +
         (reason.empty() ? "" : ": " + reason) + "\n";
}

}  // namespace vorn::run
