#pragma once

#include <optional>

#include "run_arguments.h"

namespace vorn::run {

/// Makes exec close all descriptors from 3 up, which this process can use until
/// then. Returns the error, if any.
std::optional<RunError> closeDescriptorsOnExec();

/// Makes `descriptor` the descriptor `number` of the program. Returns whether
/// that was possible; errno is set otherwise.
bool keepDescriptor(int descriptor, int number);

}  // namespace vorn::run
