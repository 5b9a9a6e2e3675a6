#pragma once

#include <string>

namespace vorn::launch {

/// The part of the help of a command that follows its options: examples, the
/// columns of `status`, and the exit statuses.
std::string helpFooter(const std::string& command);

}  // namespace vorn::launch
