#pragma once

#include <string>
#include <vector>

namespace vorn::run {

/// Replaces this process by the program `arguments`[0], which is searched in
/// PATH of the environment if it contains no slash. Returns only on failure:
/// the error number.
int executeProgram(const std::vector<std::string>& arguments);

}  // namespace vorn::run
