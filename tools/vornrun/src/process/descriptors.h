#pragma once

#include <optional>

#include "run_arguments.h"

namespace vorn::run {

/// Closes the descriptors `first` to `last`. Returns false and sets errno if
/// the kernel is older than 5.9 and /proc cannot be read.
bool closeDescriptors(unsigned first, unsigned last);

/// Makes exec close all descriptors from 3 up, which this process can use until
/// then. Returns the error, if any.
std::optional<RunError> closeDescriptorsOnExec();

/// Makes `descriptor` the descriptor `number` of the program. Returns whether
/// that was possible; errno is set otherwise.
bool keepDescriptor(int descriptor, int number);

}  // namespace vorn::run
