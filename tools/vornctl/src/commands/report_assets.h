#pragma once

#include "output/output_text.h"

// The parts of the page of a report that are the same in each.

namespace vorn::launch {

OutputText reportStyle();
OutputText reportScript();

/// The Content-Security-Policy that allows nothing but these two, by their
/// hashes.
OutputText reportPolicy();

}  // namespace vorn::launch
